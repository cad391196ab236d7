"""Input checks of a korvo call: data, noise description, channel axis and the
numeric range the single-precision stages can serve. Nothing here runs native
code; every refusal is a TypeError or ValueError that says what to pass instead.
"""

from __future__ import annotations

import math
import numbers
import os
import sys
import warnings

import numpy as np

from .noise import NonFiniteError, estimate_sigma, psd_sigma, scaled_sigma, spread_rows

__all__ = ["check_data", "check_noise", "check_channels", "check_shared_groups", "check_range",
           "check_noise_level", "ChannelSplit", "NoiseLevelWarning"]

_PACKAGE = os.path.dirname(os.path.abspath(__file__)) + os.sep


def integer_tuple(value, what):
    """``value`` (a shape) as a tuple of ints; TypeError naming ``what`` for
    anything else (an int alone, floats, flags)."""
    try:
        items = tuple(value)
    except TypeError:
        items = None
    if items is None or any(isinstance(n, (bool, np.bool_)) or not isinstance(n, numbers.Integral)
                            for n in items):
        raise TypeError(f"{what} must be a tuple of 2 or 3 integers, got {value!r}")
    return tuple(int(n) for n in items)


def warn_caller(message, category):
    """warnings.warn pointed at the first caller outside korvo: the same check
    is reached from a user's line at several depths (korvo.korvo, stabilise)."""
    frame, level = sys._getframe(1), 1
    while frame is not None and os.path.abspath(frame.f_code.co_filename).startswith(_PACKAGE):
        frame, level = frame.f_back, level + 1
    warnings.warn(message, category, stacklevel=level + 1)


# Largest sample magnitude the stages see, in units of the noise level. Group
# coefficients reach 64 times a sample and are squared, block distances sum 64
# squared differences, aggregation weights reach 1e8: 1e15 keeps all of them
# finite in single precision with a margin for the threshold factors.
MAX_DYNAMIC_RANGE = 1e15
# The result is float32: data and noise levels beyond this cannot be restored.
MAX_MAGNITUDE = 1e38
# Without normalisation the stages square the noise level and scale the PSD by
# transform energies, beside fixed floors of their own: outside this range the
# result no longer scales with the data. Measured (korvo(s*z, s*0.1) / s on the
# phantom): the same to float rounding for noise levels from 1e-2 to 1e13,
# 3e-3 of the range off at 1e-3, 0.1 at 1e-4 and worse than the noisy data below.
NOISE_RANGE = (1e-2, 1e12)
# A 3-D array whose last axis is this short next to the others looks like a
# colour image; "much larger" means at least this factor.
COLOUR_SAMPLES = (3, 4)
COLOUR_RATIO = 8
# A noise level this many times off the one the data show at the finest scale
# is most likely in other units. Measured on real MRI, CT and microscopy
# volumes under white noise, the finest-scale estimate reads 1.0-1.1 times the
# true level wherever noise dominates, more only where the data carry noise
# of their own; under 3x3x3-smoothed noise it reads 0.2-0.5 times the std.
LEVEL_MISMATCH = 3.0
# Samples the finest-scale estimate of that check reads at most.
LEVEL_SAMPLES = 1 << 17
# A caller's pilot differs from the data by about the noise. Measured as the
# 90th percentile of |z - pilot| over that of noise of the std given, on five
# real volumes (MRI, CT, microscopy) at noise std 0.02-0.3 on [0, 1]: 0.84-1.0
# for a first estimate by hard thresholding or the truth, up to 4 for a median
# or light Gaussian filter of the data, up to 8.4 for strong blurs (poor
# pilots, yet pilots); 250-7400 for a pilot scaled to 0-255; 0 for the data.
PILOT_MISMATCH = 10.0
# The 90th percentile of |X| for X standard normal.
_ABS_NORMAL_90 = 1.6448536269514722
# Largest ratio between the extremes of a sigma map: beyond it the quietest
# voxels would reach the stages far outside the noise level's scale.
MAX_MAP_RATIO = 1e6


class NoiseLevelWarning(UserWarning):
    """The noise level given disagrees with the one the data show
    (``warnings.simplefilter("ignore", korvo.NoiseLevelWarning)`` silences it)."""


def check_noise_level(z, level, given, advice, scale=None):
    """Warns (NoiseLevelWarning) when the noise of ``z`` at the finest scale
    (:func:`korvo.estimate_sigma` on evenly spaced pairs of slices, or rows of
    an image, at most LEVEL_SAMPLES samples) is over LEVEL_MISMATCH times
    ``level`` or under a third of it: a level in other units, or coloured
    noise passed as white, gives a result smoothed far beyond the noise or one
    that keeps most of it, without any error. ``scale``: a noise map
    (broadcastable to z) that z is divided by first. ``given`` names the level
    in the message, ``advice`` ends it. Returns the level the data show (0: none)."""
    a = np.asarray(z)
    flat = [n for n in a.shape if n > 1]  # a single slice is an image
    if scale is not None:
        scale = np.broadcast_to(scale, a.shape).reshape(flat)
    a = a.reshape(flat)
    if a.ndim < 2:
        return 0.0
    pairs = a.shape[0] // 2
    chosen, rows = spread_rows(pairs, a.size, LEVEL_SAMPLES, 2)
    if len(chosen) < pairs:
        a = np.take(a, rows, axis=0)
        scale = None if scale is None else np.take(scale, rows, axis=0)
    # Integer data: the finest-scale estimate only takes steps of about half a
    # unit, so it cannot read noise of less than one.
    if a.dtype.kind in "biu" and (level if scale is None else float(np.median(scale))) < 1:
        return 0.0
    seen = estimate_sigma(a) if scale is None else scaled_sigma(a, scale)
    if seen > 0 and not 1 / LEVEL_MISMATCH <= level / seen <= LEVEL_MISMATCH:
        ratio = level / seen
        effect = (f"{ratio:.3g} times" if ratio > 1 else
                  f"1/{1 / ratio:.3g} of" if ratio > 0 else "none of") + \
            f" the noise the data show at the finest scale ({seen:.3g}, as korvo.estimate_sigma " \
            f"reads it): the result would be " + \
            ("smoothed far beyond the noise" if ratio > 1 else "left with most of the noise")
        warn_caller(f"{given} is {effect}. {advice}", NoiseLevelWarning)
    return seen


def check_pilot(z, pilot, level, given):
    """Warns (NoiseLevelWarning) when a caller's pilot is no first estimate of
    ``z`` in its units: the spread of z - pilot (its 90th percentile, on evenly
    spaced slices, at most LEVEL_SAMPLES samples) over PILOT_MISMATCH times the
    noise std ``level`` (other units, another volume) or under a third of it
    (the noisy data themselves). The Wiener stage weighs every coefficient by
    the pilot's, so either gives a wrong result without any error. ``given``
    names the pilot in the message."""
    a, p = np.asarray(z), np.asarray(pilot)
    if a.ndim == 0 or level <= 0:
        return
    _, rows = spread_rows(a.shape[0], a.size, LEVEL_SAMPLES)
    residual = np.abs(np.take(a, rows, 0).astype(np.float64) - np.take(p, rows, 0))
    # The 90th percentile, not the median: a pilot in other units still matches
    # the data where both are zero, which may be over half a scan.
    ratio = float(np.quantile(residual, 0.9)) / _ABS_NORMAL_90 / level
    if ratio > PILOT_MISMATCH:
        problem = (f"differs from z by {ratio:.3g} times the noise std ({level:.3g}): is it "
                   f"in z's units, and of the same data?")
    elif ratio < 1 / LEVEL_MISMATCH:
        problem = (f"is within {ratio:.3g} times the noise std ({level:.3g}) of z: it still "
                   f"holds the noise, which the Wiener stage would then keep. Pass a first "
                   f"estimate, such as korvo(z, sigma, stages='ht')")
    else:
        return
    warn_caller(f"{given} {problem}", NoiseLevelWarning)


def _as_real(name, value):
    try:
        a = value if isinstance(value, np.ndarray) else np.asarray(value)
    except Exception as exc:
        raise TypeError(f"{name} must be a numeric array") from exc
    if a.dtype.kind not in "iuf":
        raise TypeError(f"{name} must hold real numbers, got dtype {a.dtype}")
    return a


def check_data(name, z):
    """A 2-D or 3-D real array with finite samples; returns (array, min, max)
    with min and max as floats (they bound what the stages will see)."""
    a = _as_real(name, z)
    if a.ndim not in (2, 3):
        raise ValueError(f"{name} must be 2-D (rows, columns) or 3-D (slices, rows, columns), "
                         f"got {a.ndim} dimensions with shape {a.shape}")
    if a.size == 0:
        raise ValueError(f"{name} is empty (shape {a.shape})")
    if a.size >= 2 ** 31:
        raise ValueError(f"{name} has {a.size} elements; at most 2**31 - 1 are supported")
    lo, hi = np.min(a), np.max(a)  # NaN propagates, inf shows at an end
    lo, hi = float(lo), float(hi)
    if not (math.isfinite(lo) and math.isfinite(hi)):
        raise NonFiniteError(f"{name} contains NaN or infinite samples")
    if max(-lo, hi) > MAX_MAGNITUDE:
        raise ValueError(f"{name} holds values up to {max(-lo, hi):.3g}; the result is float32, "
                         f"so magnitudes above {MAX_MAGNITUDE:.0e} cannot be represented")
    return a, lo, hi


def _positive_sigma(value, what="sigma"):
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, (numbers.Real, np.ndarray)):
        raise TypeError(f"{what} must be a number (the noise standard deviation), got {value!r}")
    sigma = float(value)
    if not math.isfinite(sigma):
        raise ValueError(f"{what} must be finite, got {sigma}")
    if sigma <= 0:
        raise ValueError(f"{what} must be positive, got {sigma}")
    return sigma


def _check_psd(psd):
    a = _as_real("psd", psd)
    if a.ndim not in (2, 3):
        raise ValueError(f"the PSD must be 2-D or 3-D, got {a.ndim} dimensions")
    if a.size == 0:
        raise ValueError("the PSD is empty")
    if a.size >= 2 ** 31:
        raise ValueError("the PSD is too large")
    a = a.astype(np.float64)
    if not np.isfinite(a).all():
        raise ValueError("the PSD contains NaN or infinite values")
    if (a < 0).any():
        raise ValueError("the PSD contains negative values")
    sigma = psd_sigma(a)
    if not sigma > 0:
        raise ValueError("the PSD is zero everywhere")
    return sigma, a


def check_psd_rank(psd, shape):
    """Refuse the PSD of 3-D noise (more than one plane) for an image of ``shape``
    (2-D, or one slice): its planes would be read as the image's own spectrum."""
    image = len(shape) == 2 or shape[0] == 1
    if psd is not None and image and np.ndim(psd) == 3 and np.shape(psd)[0] > 1:
        raise ValueError(f"an image takes a 2-D PSD, got one of shape {np.shape(psd)} (3-D "
                         f"noise); estimate it on the image: korvo.estimate_psd(z) (--psd auto)")


def check_noise(sigma, psd, channels=None, shape=None):
    """Exactly one of ``sigma`` and ``psd``. Returns (sigmas, psd, noise_map):
    one noise standard deviation per channel (a list of length ``channels``,
    or of one without channels), the PSD as float64 or None, and a per-voxel
    noise map broadcast to the data's ``shape`` (sigma given as an array) or
    None."""
    if sigma is None and psd is None:
        raise ValueError("pass the noise level: sigma= (standard deviation of white noise) or "
                         "psd= (power spectrum of coloured noise); korvo.estimate_sigma(z) "
                         "estimates sigma")
    if sigma is not None and psd is not None:
        raise ValueError("pass either sigma= or psd=, not both")
    count = channels or 1
    if psd is not None:
        level, a = _check_psd(psd)
        return [level] * count, a, None
    if isinstance(sigma, np.ndarray) and sigma.ndim == 0:
        sigma = sigma[()]
    if isinstance(sigma, (numbers.Real, np.generic)) or isinstance(sigma, (bool, str, bytes)):
        return [_positive_sigma(sigma)] * count, None, None
    from .chunked import is_dask  # not at import: chunked imports this module

    lazy = is_dask(sigma)
    values = sigma if lazy else _as_real("sigma", sigma)
    if lazy and values.dtype.kind not in "iuf":
        raise TypeError(f"sigma must hold real numbers, got dtype {values.dtype}")
    if channels is not None and values.shape == (channels,):
        return [_positive_sigma(v, f"sigma[{i}]") for i, v in enumerate(values.tolist())], None, None
    return [1.0] * count, None, _noise_map(values, shape, channels)


def _noise_map(values, shape, channels):
    """The map broadcast to ``shape``, checked; a dask map stays lazy (its
    extremes are computed, one pass)."""
    from .chunked import is_dask

    lazy = is_dask(values)
    try:
        if lazy:
            import dask
            import dask.array as da

            noise_map = da.broadcast_to(values, shape)
        else:
            noise_map = np.broadcast_to(values, shape)
    except ValueError:
        per_channel = f", or one value per channel ({channels})" if channels is not None else ""
        raise ValueError(f"sigma as an array is a per-voxel noise map: it must have the data's "
                         f"shape {shape} or broadcast to it{per_channel}; got shape "
                         f"{values.shape}. A noise power spectrum goes to psd=") from None
    if lazy:
        extremes = dask.compute(values.min(), values.max())
    else:
        extremes = np.min(values), np.max(values)
    lo, hi = (float(v) for v in extremes)
    if not (math.isfinite(lo) and math.isfinite(hi)):
        raise ValueError("the sigma map contains NaN or infinite values")
    if lo <= 0:
        raise ValueError(f"the sigma map must be positive everywhere, its minimum is {lo:g}")
    if hi / lo > MAX_MAP_RATIO:
        raise ValueError(f"the sigma map spans {hi / lo:.3g}x between its extremes; at most "
                         f"{MAX_MAP_RATIO:.0e} is supported (mask or clip it)")
    # Single precision stays as it is (a view, no copy): every use promotes it.
    if noise_map.dtype in (np.float32, np.float64):
        return noise_map
    return noise_map.astype(np.float64)


class ChannelSplit:
    """Where the channels of an array are: ``count`` channels along ``axis``
    (None: a single channel, the array itself)."""

    def __init__(self, axis, count):
        self.axis = axis
        self.count = count

    def view(self, a, i):
        """A view of channel i of ``a`` (writable when ``a`` is)."""
        if self.axis is None:
            return a
        index = [slice(None)] * a.ndim
        index[self.axis] = i
        return a[tuple(index)]


def looks_like_colour(shape):
    """Whether a 3-D shape reads as rows, columns and 3 or 4 colour samples."""
    return len(shape) == 3 and shape[2] in COLOUR_SAMPLES and \
        min(shape[:2]) >= COLOUR_RATIO * shape[2]


def check_channels(z, channel_axis):
    """The channel layout of ``z``; refuses layouts that would silently be
    read as something else."""
    a = _as_real("z", z)
    if channel_axis is None:
        if a.ndim == 4:
            raise ValueError(f"z has 4 dimensions {a.shape}: pass channel_axis= to name the axis "
                             f"of channels (each channel, a 3-D volume, is denoised on its own)")
        if looks_like_colour(a.shape):
            raise ValueError(f"z of shape {a.shape} looks like a colour image (rows, columns, "
                             f"{a.shape[2]}): pass channel_axis=-1 to denoise each channel as an "
                             f"image; if it really is a volume, put its short axis first "
                             f"(np.moveaxis(z, -1, 0))")
        return ChannelSplit(None, 1)
    if isinstance(channel_axis, (bool, np.bool_)) or not isinstance(channel_axis, numbers.Integral):
        raise TypeError(f"channel_axis must be None or an integer axis, got {channel_axis!r}")
    if a.ndim not in (3, 4):
        raise ValueError(f"with channel_axis, z must be 3-D (an image with channels) or 4-D "
                         f"(a volume with channels), got shape {a.shape}")
    axis = int(channel_axis)
    if not -a.ndim <= axis < a.ndim:
        raise ValueError(f"channel_axis {axis} is out of range for z of shape {a.shape}")
    axis %= a.ndim
    return ChannelSplit(axis, a.shape[axis])


def check_shared_groups(shared, split):
    """None (each channel its own groups), a channel index, or "mean"."""
    if shared is False or shared is None:
        return None
    if split.axis is None:
        raise ValueError("shared_groups needs channel_axis= (the channels that share the groups)")
    if shared is True:
        return 0
    if isinstance(shared, str):
        if shared != "mean":
            raise ValueError(f"shared_groups must be True, a channel index or 'mean', got {shared!r}")
        return shared
    if isinstance(shared, (bool, np.bool_)) or not isinstance(shared, numbers.Integral):
        raise TypeError(f"shared_groups must be True, a channel index or 'mean', got {shared!r}")
    if not -split.count <= shared < split.count:
        raise ValueError(f"shared_groups names channel {shared}, but there are {split.count}")
    return int(shared) % split.count


def check_range(name, lo, hi, offset, scale, unit, psd=None):
    """Refuse data the single-precision stages cannot carry.

    The samples, between ``lo`` and ``hi``, reach the stages as
    (sample - offset) / scale, with noise of standard deviation ``unit``;
    ``psd`` is the float32 PSD the stages get."""
    if not 1 / MAX_MAGNITUDE <= scale <= MAX_MAGNITUDE:
        raise ValueError(f"the noise standard deviation {scale:.3g} is outside the range of "
                         f"single precision, in which the result is restored")
    if not NOISE_RANGE[0] <= unit <= NOISE_RANGE[1]:
        raise ValueError(f"the noise standard deviation {unit:.3g} is outside "
                         f"[{NOISE_RANGE[0]:.0e}, {NOISE_RANGE[1]:.0e}], where the stages' result "
                         f"scales with the data; pass normalize=True")
    extreme = lo if offset - lo > hi - offset else hi
    reach = abs(extreme - offset) / scale
    if reach > MAX_DYNAMIC_RANGE:
        where = "times the noise standard deviation from the mean" if unit == 1 else \
            "without normalisation"
        raise ValueError(
            f"{name} holds {extreme:.3g}, which reaches the stages as {reach:.3g} ({where}); at "
            f"most {MAX_DYNAMIC_RANGE:.0e} is supported, because the stages square sums of "
            f"samples in single precision. Check sigma/psd, or clip outliers")
    if psd is not None and not float(np.max(psd)) <= MAX_DYNAMIC_RANGE ** 2:
        raise ValueError(f"the PSD reaches {float(np.max(psd)):.3g} in the stages' units, more "
                         f"than {MAX_DYNAMIC_RANGE ** 2:.0e}")
