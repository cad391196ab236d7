"""The tunables of a korvo run, validated when they are set.

Every per-axis value is a tuple in (x, y, z) order, where x is the array's
*last* axis (the fastest in memory), y the one before it and z the *first*
axis of a 3-D array.  A value printed by the native library, such as
``split_block_extraction = [False, False, True]``, therefore applies as
written: ``True`` on z splits along the array's first axis.

A setting left at ``None`` is chosen per call from the data (2-D image or 3-D
volume, its shape, the memory the machine has); :meth:`KORVOProfile.resolve`
shows what a call would use.
"""

from __future__ import annotations

import copy
import math
import numbers

__all__ = ["StageProfile", "KORVOProfile", "BLOCK_SIZES", "FFT_LENGTHS"]

# Block sizes with built-in transform sets: cubes for volumes, squares for planes.
BLOCK_SIZES = ((4, 4, 4), (8, 8, 1))
# Lengths the noise model's FFTs support along an axis (1: that axis is flat).
FFT_LENGTHS = (1, 4, 8, 16, 32, 64)
# Largest working grid for the noise model (its point count squared must fit
# in a signed 32-bit integer).
MAX_WORK_POINTS = 46340
MAX_GROUP = 64


def _axis_tuple(name, value, minimum, allow_none=True):
    if value is None:
        if allow_none:
            return None
        raise ValueError(f"{name} must be given")
    if isinstance(value, bool):
        raise TypeError(f"{name} must be an integer or a tuple of three integers (x, y, z)")
    if isinstance(value, numbers.Integral):
        value = (int(value),) * 3
    try:
        items = tuple(value)
    except TypeError:
        raise TypeError(f"{name} must be an integer or a tuple of three integers (x, y, z)") from None
    if len(items) != 3:
        raise ValueError(f"{name} must have three components (x, y, z), got {len(items)}")
    out = []
    for item in items:
        if isinstance(item, bool) or not isinstance(item, numbers.Integral):
            raise TypeError(f"{name} components must be integers, got {item!r}")
        if item < minimum:
            raise ValueError(f"{name} components must be at least {minimum}, got {tuple(items)}")
        out.append(int(item))
    return tuple(out)


def _number(name, value, low=None, high=None, low_open=False, integer=False):
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a number, got {value!r}")
    if integer:
        if not isinstance(value, numbers.Integral):
            raise TypeError(f"{name} must be an integer, got {value!r}")
        value = int(value)
    else:
        value = float(value)
        if not math.isfinite(value):
            raise ValueError(f"{name} must be finite, got {value}")
    if low is not None and (value <= low if low_open else value < low):
        raise ValueError(f"{name} must be {'greater than' if low_open else 'at least'} {low}, got {value}")
    if high is not None and value > high:
        raise ValueError(f"{name} must be at most {high}, got {value}")
    return value


def _flag(name, value):
    if isinstance(value, bool):
        return value
    if hasattr(value, "dtype") and value.dtype == bool and getattr(value, "shape", None) == ():
        return bool(value)
    raise TypeError(f"{name} must be True or False, got {value!r}")


class _Validated:
    """Attributes are checked and normalised on assignment; unknown ones are refused."""

    _defaults: dict = {}

    def __init__(self, **kwargs):
        for name, default in self._defaults.items():
            object.__setattr__(self, name, None)
            setattr(self, name, copy.deepcopy(default))
        for name, value in kwargs.items():
            setattr(self, name, value)

    def __setattr__(self, name, value):
        if name not in self._defaults:
            raise AttributeError(f"{type(self).__name__} has no setting {name!r}; "
                                 f"settings: {', '.join(self._defaults)}")
        object.__setattr__(self, name, self._check(name, value))

    def _check(self, name, value):  # pragma: no cover - overridden
        return value

    def __eq__(self, other):
        return type(self) is type(other) and all(
            getattr(self, n) == getattr(other, n) for n in self._defaults)

    def __repr__(self):
        body = ", ".join(f"{n}={getattr(self, n)!r}" for n in self._defaults)
        return f"{type(self).__name__}({body})"

    def copy(self):
        return copy.deepcopy(self)


class StageProfile(_Validated):
    """Settings of one stage (hard thresholding or Wiener filtering).

    block_size
        Block extents (x, y, z). Only sizes with built-in transforms exist:
        (4, 4, 4) for volumes, (8, 8, 1) for planes (usable on volumes too).
        None: (4, 4, 4) for a 3-D array, (8, 8, 1) for a 2-D one.
    step
        Distance between reference blocks (x, y, z). None: 3 on every axis of
        the block's extent (1 along z for plane blocks).
    search_window
        Half extents (x, y, z) of the window searched for similar blocks; the
        window holds (2x+1)(2y+1)(2z+1) positions. None: the stage default.
    max_group_size
        Largest group of blocks, reference included: a power of two, 1 to 64.
    match_threshold
        Largest accepted distance between a block and the reference, as a mean
        squared difference per voxel in units of the noise variance (the
        expected noise part is removed first when ``match_variance_weight`` is
        positive).
    """

    _defaults = dict(block_size=None, step=None, search_window=None,
                     max_group_size=16, match_threshold=1.0)

    def _check(self, name, value):
        if name == "block_size":
            value = _axis_tuple(name, value, 1)
            if value is not None and value not in BLOCK_SIZES:
                raise ValueError(f"block_size must be one of {BLOCK_SIZES} (sizes with built-in "
                                 f"transforms), got {value}")
            return value
        if name == "step":
            return _axis_tuple(name, value, 1)
        if name == "search_window":
            return _axis_tuple(name, value, 0)
        if name == "max_group_size":
            value = _number(name, value, 1, MAX_GROUP, integer=True)
            if value & (value - 1):
                raise ValueError(f"max_group_size must be a power of two, got {value}")
            return value
        if name == "match_threshold":
            return _number(name, value, 0.0)
        return value


def _ht_stage_defaults():
    return StageProfile(max_group_size=16, match_threshold=9.0)


def _wiener_stage_defaults():
    return StageProfile(max_group_size=32, match_threshold=3.0)


class KORVOProfile(_Validated):
    """Every tunable of a korvo run, with the defaults measured for the package.

    ht, wiener
        :class:`StageProfile` of the hard-thresholding and the Wiener stage.
    hard_threshold
        Hard-threshold lambda: a group coefficient is dropped when its
        magnitude is below lambda times its noise standard deviation.
    wiener_factor
        Multiplier of the noise variance in the empirical Wiener gain
        pilot^2 / (factor * variance + pilot^2).
    psd_work_size
        Grid (x, y, z) on which the noise PSD is resampled and the noise
        variances are computed; each extent one of 1, 4, 8, 16, 32, 64, at
        least the block extent, at most 46340 points in all. None: per data.
    variance_group_limit
        Number of group coefficients whose noise variance is computed exactly
        from the PSD and the block positions (the rest share the remainder
        evenly). 0 to 64.
    match_variance_weight
        Weight of the expected noise distance subtracted from every block
        distance before matching (0: none).
    sharpen, sharpen_exponent, sharpen_exponent_flat, sharpen_variances
        Alpha-rooting of the thresholded spectrum: each coefficient c becomes
        |dc|^(1-e) |c|^e sign(c); exponents below 1 sharpen. The flat exponent
        is used for coefficients constant along the block's z axis.
    num_threads
        Worker threads; None: every core this process may use.
    split_block_extraction
        Per axis (x, y, z): whether the pre-transformed blocks are kept for a
        band around the current position only (True) or for the whole extent
        (False). Bands need less memory. None: chosen per call from the memory
        the blocks would need and the memory the machine has.
    """

    _defaults = dict(
        ht=None,
        wiener=None,
        hard_threshold=2.7,
        wiener_factor=0.75,
        psd_work_size=None,
        variance_group_limit=1,
        match_variance_weight=1.0,
        sharpen=False,
        sharpen_exponent=0.8,
        sharpen_exponent_flat=0.8,
        sharpen_variances=False,
        num_threads=None,
        split_block_extraction=None,
    )

    def _check(self, name, value):
        if name in ("ht", "wiener"):
            if value is None:
                return _ht_stage_defaults() if name == "ht" else _wiener_stage_defaults()
            if not isinstance(value, StageProfile):
                raise TypeError(f"{name} must be a StageProfile")
            return value
        if name == "hard_threshold":
            return _number(name, value, 0.0)
        if name == "wiener_factor":
            return _number(name, value, 0.0, low_open=True)
        if name == "psd_work_size":
            value = _axis_tuple(name, value, 1)
            if value is None:
                return None
            bad = [v for v in value if v not in FFT_LENGTHS]
            if bad:
                raise ValueError(f"psd_work_size extents must be among {FFT_LENGTHS}, got {value}")
            if math.prod(value) > MAX_WORK_POINTS:
                raise ValueError(f"psd_work_size {value} has more than {MAX_WORK_POINTS} points")
            return value
        if name == "variance_group_limit":
            return _number(name, value, 0, MAX_GROUP, integer=True)
        if name == "match_variance_weight":
            return _number(name, value, 0.0)
        if name in ("sharpen", "sharpen_variances"):
            return _flag(name, value)
        if name in ("sharpen_exponent", "sharpen_exponent_flat"):
            return _number(name, value, 0.0, 4.0, low_open=True)
        if name == "num_threads":
            if value is None:
                return None
            return _number(name, value, 1, 1024, integer=True)
        if name == "split_block_extraction":
            if value is None:
                return None
            try:
                items = tuple(value)
            except TypeError:
                raise TypeError("split_block_extraction must be None or three booleans (x, y, z)") from None
            if len(items) != 3:
                raise ValueError("split_block_extraction must have three entries (x, y, z)")
            return tuple(_flag("split_block_extraction entries", v) for v in items)
        return value

    def resolve(self, shape):
        """Concrete per-stage settings a call on an array of this shape would use.

        Returns a dict with the keys ``"ht"`` and ``"wiener"``, each a dict of
        (x, y, z) tuples and numbers. Shape-dependent checks (a block larger
        than the data, a work grid smaller than the block) raise ValueError.
        ``split_block_extraction`` stays None here when unset: it depends on
        the machine and is decided by the call.
        """
        from ._core import _resolve_profile  # local: the core imports this module
        return _resolve_profile(self, tuple(shape))
