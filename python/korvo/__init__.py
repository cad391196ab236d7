"""korvo: denoising of 3-D volumes and 2-D images by collaborative filtering of
groups of similar blocks, with white or coloured noise.

    >>> import korvo
    >>> y = korvo.korvo(z, sigma=s)               # white noise of std s
    >>> y = korvo.korvo(z, psd=psd)               # coloured noise with this PSD
    >>> y = korvo.korvo(z, sigma=korvo.estimate_sigma(z))
    >>> y = korvo.korvo(z, psd=korvo.estimate_psd(z))  # coloured noise, PSD unknown
    >>> y = korvo.korvo(rgb, sigma=s, channel_axis=-1)

Arrays are (rows, columns) or (slices, rows, columns); every per-axis setting
of :class:`KORVOProfile` is an (x, y, z) tuple with x the array's last axis.
"""

import logging as _logging

from .denoise import korvo
from .matches import MatchStorage, StageMatches
from .memory import available_memory
from .noise import (coloured_noise, estimate_sigma, estimate_sigma_map, psd_concentration, psd_from_kernel, psd_sigma,
                    white_psd)
from .noise_models import estimate_poisson_gaussian, estimate_rician_sigma
from .phantom import phantom
from .profile import KORVOProfile, StageProfile
from .spectrum import estimate_psd
from .validation import NoiseLevelWarning

_logging.getLogger("korvo").addHandler(_logging.NullHandler())  # the application decides

try:  # one source: the VERSION file, through the installed package's metadata
    from importlib.metadata import version as _installed_version
    __version__ = _installed_version("korvo")
except Exception:  # pragma: no cover - running from a source tree
    __version__ = "0+unknown"

__all__ = [
    "korvo",
    "KORVOProfile",
    "StageProfile",
    "MatchStorage",
    "StageMatches",
    "estimate_sigma",
    "estimate_sigma_map",
    "estimate_psd",
    "estimate_poisson_gaussian",
    "estimate_rician_sigma",
    "white_psd",
    "psd_from_kernel",
    "psd_sigma",
    "psd_concentration",
    "coloured_noise",
    "phantom",
    "available_memory",
    "NoiseLevelWarning",
]
