"""The tunables of a korvo run, validated when they are set.

Every per-axis value is a tuple in (x, y, z) order, where x is the array's
*last* axis (the fastest in memory), y the one before it and z the *first*
axis of a 3-D array.  A value printed by the native library, such as
``split_block_extraction = [False, False, True]``, therefore applies as
written: ``True`` on z splits along the array's first axis.

A setting left at ``None`` is chosen per call from the data (2-D image or 3-D
volume, its shape, the memory the machine has), from the library's own
defaults; :meth:`KORVOProfile.resolve` shows the native records a call would
use.
"""

from __future__ import annotations

import copy
import math
import numbers
import os
import re

import numpy as np

from . import _native
from .memory import choose_split, needs_copy, stage_budgets
from .noise import Flatness, block_flatness, psd_concentration, whitening_kernel
from .validation import MAX_DYNAMIC_RANGE, _check_psd, check_psd_rank, integer_tuple

__all__ = ["StageProfile", "KORVOProfile", "BLOCK_SIZES", "BUILT_IN_BLOCKS", "FFT_LENGTHS",
           "stage_parameters",
           "shape_xyz", "STAGE_KEYS", "PSDAdaptation"]

# Block sizes with built-in transform sets: cubes for volumes, squares for planes.
BUILT_IN_BLOCKS = ((4, 4, 4), (8, 8, 1))
# Larger blocks run with DCT matrices and Kaiser windows from korvo.transforms:
# under strongly correlated noise they resolve the spectrum better (higher
# SSIM; up to +1.7 dB on microscopy), at 2-4x the time and memory.
BLOCK_SIZES = BUILT_IN_BLOCKS + ((6, 6, 6), (8, 8, 4), (8, 8, 8))
# Lengths the noise model's FFTs support along an axis (1: that axis is flat).
FFT_LENGTHS = (1, 4, 8, 16, 32, 64)
# Largest working grid for the noise model (its point count squared must fit
# in a signed 32-bit integer).
MAX_WORK_POINTS = 46340
MAX_GROUP = 64
# Bounds of the factors: far beyond any useful value, and small enough that the
# squared threshold times a coefficient variance stays a finite float32.
MAX_FACTOR = 1e3
FACTOR_LIMIT = (" (far beyond any useful value; the library multiplies noise variances by it, "
                "squared for hard_threshold, in single precision)")
# A mean squared difference per voxel, in units of the noise variance: the
# largest distance of data within the supported dynamic range.
MAX_MATCH_THRESHOLD = (2 * MAX_DYNAMIC_RANGE) ** 2
STAGE_KEYS = ("ht", "wiener")
# Extents, steps and windows reach the library as 32-bit integers.
MAX_EXTENT = 2 ** 31 - 1
# PSD adaptation, measured on MRI, CT and microscopy volumes under four noise
# spectra (bench/coloured_study.py): per stage, the noise variance the
# thresholds see is multiplied by 1 + ln(c) * slope, c the PSD's concentration.
# Groups matched on noisy data whose noise is correlated keep more noise than
# the independent-block model predicts (the matching favours blocks whose
# noise resembles the reference's); the scales make up for it.
PSD_SCALE_SLOPES = (0.125, 0.5)
# From this concentration on, groups are matched on a prewhitened copy, when
# at least this fraction of the data's blocks is flat. The selection effect
# lives in flat regions; on data textured throughout (dense micro-CT, say)
# matching on the prewhitened copy loses 0.5-1.7 dB, on data with flat regions
# it gains up to 3 dB (bench/coloured_study.py). Counting noise-dominated
# blocks instead let textured volumes in at high noise (three MRIs and the
# micro-CT at std 0.2 read 0.54 to 0.84), where it lost 0.16 to 0.63 dB; they
# read 0.36 at most flat, volumes with flat regions 0.52 at least.
PREWHITEN_FROM = 1.25
PREWHITEN_FLAT_FRACTION = 0.45
# Below this fraction of flat blocks the scales fade out in proportion: with
# no flat block there is no selection effect to make up for, and on data
# textured throughout they only blur (micro-CT of concrete and a cryo-electron
# tomogram at std 0.05 and 0.1: 0.09 to 0.60 dB gained without them). Counted
# by noise-dominated blocks, which texture yields at higher noise, the fade
# left them on where they lost 0.10 to 0.28 dB (the micro-CT at std 0.1, the
# tomogram at 0.2, the fluorescence stack, own noise near the added, at 0.05).
SCALE_FLAT_FRACTION = 0.05
# From this concentration on, volumes left on the default block are filtered in
# 6x6x6 blocks (DCT, Kaiser window) with their own scales, matched on the data
# themselves: a 4x4x4 block cannot tell most of such noise from structure. On
# six real volumes under a 3x3x3 smoothing kernel (c = 7.35) they gained 0.33
# dB on average (-0.23 to +1.73; small blocks stay ahead at std 0.05 on
# textured data), at 3 to 6 times the time; at c = 3.78 they gained 0.21 dB,
# and the piecewise-constant phantom lost 0.4 to 2.3 dB (bench/coloured_study.py
# large).
LARGE_BLOCK_FROM = 5.0
LARGE_BLOCK = (6, 6, 6)
LARGE_BLOCK_SLOPES = (0.0, 0.25)


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
        if item > MAX_EXTENT:
            raise ValueError(f"{name} components must be at most {MAX_EXTENT} (the library's "
                             f"integers), got {tuple(items)}")
        out.append(int(item))
    return tuple(out)


def _number(name, value, low=None, high=None, low_open=False, integer=False, why=""):
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
    if low_open and not integer and not np.float32(value) > low:  # the library's precision
        raise ValueError(f"{name} must be greater than {low} in single precision, got {value:g}")
    if high is not None and value > high:
        raise ValueError(f"{name} must be at most {high:g}{why}, got {value:g}")
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
        Block extents (x, y, z): (4, 4, 4) and (8, 8, 1) with the library's
        built-in transforms (volumes and planes; plane blocks also run on
        volumes), or (6, 6, 6), (8, 8, 4), (8, 8, 8) with DCT transforms and a
        Kaiser window. None: (4, 4, 4) for a 3-D array ((6, 6, 6) under
        strongly coloured noise, see ``adapt_to_psd``), (8, 8, 1) for a 2-D
        one.
    step
        Distance between reference blocks (x, y, z), at most the block extent
        on every axis (a larger step leaves voxels uncovered and is refused).
        None: 3 on every axis of the block's extent (1 along z for plane
        blocks); half the extent for the larger blocks.
    search_window
        Half extents (x, y, z) of the window searched for similar blocks; the
        window holds (2x+1)(2y+1)(2z+1) positions. None: the stage default.
        A call clamps each extent to what the data can serve (extent minus
        block), which changes no group.
    max_group_size
        Largest group of blocks, reference included: a power of two, 1 to 64.
        None: the stage's default (16 hard thresholding, 32 Wiener).
    match_threshold
        Largest accepted distance between a block and the reference, as a mean
        squared difference per voxel in units of the noise variance (the
        expected noise part is removed first when ``match_variance_weight`` is
        positive). At most 4e30, which accepts every block. None: the stage's
        default (9 hard thresholding, 3 Wiener).
    """

    _defaults = dict(block_size=None, step=None, search_window=None,
                     max_group_size=None, match_threshold=None)

    def _check(self, name, value):
        if name == "block_size":
            value = _axis_tuple(name, value, 1)
            if value is not None and value not in BLOCK_SIZES:
                raise ValueError(f"block_size must be one of {BLOCK_SIZES}, got {value}")
            return value
        if name == "step":
            return _axis_tuple(name, value, 1)
        if name == "search_window":
            return _axis_tuple(name, value, 0)
        if name in ("max_group_size", "match_threshold") and value is None:
            return None
        if name == "max_group_size":
            value = _number(name, value, 1, MAX_GROUP, integer=True)
            if value & (value - 1):
                raise ValueError(f"max_group_size must be a power of two, got {value}")
            return value
        if name == "match_threshold":
            return _number(name, value, 0.0, MAX_MATCH_THRESHOLD,
                           why=" (the largest distance of data within the supported range: every block "
                               "is accepted)")
        return value


# Per stage: what a StageProfile left at None stands for.
STAGE_DEFAULTS = (dict(max_group_size=16, match_threshold=9.0),
                  dict(max_group_size=32, match_threshold=3.0))


def _ht_stage_defaults():
    return StageProfile(**STAGE_DEFAULTS[0])


def _wiener_stage_defaults():
    return StageProfile(**STAGE_DEFAULTS[1])


def stage_setting(profile, stage, name):
    """A stage's ``max_group_size`` or ``match_threshold``: its own, or the
    stage's default where it is None (a StageProfile() made afresh)."""
    value = getattr(getattr(profile, STAGE_KEYS[stage]), name)
    return STAGE_DEFAULTS[stage][name] if value is None else value


class KORVOProfile(_Validated):
    """Every tunable of a korvo run, with the defaults measured for the package.

    ht, wiener
        :class:`StageProfile` of the hard-thresholding and the Wiener stage.
    hard_threshold
        Hard-threshold lambda: a group coefficient is dropped when its
        magnitude is below lambda times its noise standard deviation. 0 to
        1000 (its square must stay a useful single-precision factor).
    wiener_factor
        Multiplier of the noise variance in the empirical Wiener gain
        pilot^2 / (factor * variance + pilot^2); above 0, at most 1000.
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
        distance before matching (0: none); at most 1000.
    sharpen, sharpen_exponent, sharpen_exponent_flat, sharpen_variances
        Alpha-rooting of the thresholded spectrum: each coefficient c becomes
        |dc|^(1-e) |c|^e sign(c); exponents below 1 sharpen. The flat exponent
        is used for coefficients constant along the block's z axis.
    adapt_to_psd
        True (default): with a coloured PSD of concentration
        c = mean(PSD^2)/mean(PSD)^2 > 1 (1 is white noise), the hard
        threshold's square is multiplied by 1 + ln(c)/8 and the Wiener factor
        by 1 + ln(c)/2 (ln(c) scaled down where under a tenth of the data's
        8^3 blocks are flat), and from c = 1.25 on the groups of both stages are
        matched once on a prewhitened copy of the data when at least half of
        its 8^3 blocks are flat (noise-dominated) (groups of up to the
        larger of the two stages' ``max_group_size``, the Wiener stage's
        ``match_threshold``) and replayed by both stages, which then need
        the same block size, step and search window (otherwise each stage
        matches as usual). From c = 5 on, a volume whose stages are left on
        the default block (``block_size`` None, extents of 6 or more,
        ``psd_work_size`` None or at least 6 per axis) is filtered in
        (6, 6, 6) blocks instead, unless the call records or replays groups
        (``matches``): matched on the data, the hard threshold as written and
        the Wiener factor multiplied by 1 + ln(c)/4 (ln(c) scaled down as
        above), as (6, 6, 6) asked for on both stages is at any c. This takes
        3 to 6 times as long on two threads, and more on many cores, where the
        larger blocks' bands leave room for fewer threads. White noise is
        unaffected, and so are other blocks asked for than (4, 4, 4) and
        (8, 8, 1), for which the adaptation was not measured to help.
        False: the settings as written.
    num_threads
        Worker threads; None: every core this process may use. More than
        the cores only slows the call down (the workers poll for work), and
        a call warns.
    split_block_extraction
        Per axis (x, y, z): whether the pre-transformed blocks are kept for a
        band around the current position only (True) or for the whole extent
        (False). Bands need less memory. None: the fastest that keeps the
        call within ``memory_limit``.
    memory_limit
        Bytes of working memory a call may add at its peak, the result
        included, which the choice of bands aims at. None (default): six times
        the volume's float32 bytes (``korvo.memory.MEMORY_TARGET``), never more
        than the machine has free. Raise it to trade memory for speed on small
        volumes (bands along three axes cost up to a third more time). A limit
        below what the call needs with the bands and threads that need least
        warns (RuntimeWarning), and the call goes on.
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
        adapt_to_psd=True,
        num_threads=None,
        split_block_extraction=None,
        memory_limit=None,
    )

    def _check(self, name, value):
        if name in ("ht", "wiener"):
            if value is None:
                return _ht_stage_defaults() if name == "ht" else _wiener_stage_defaults()
            if not isinstance(value, StageProfile):
                raise TypeError(f"{name} must be a StageProfile")
            return value
        if name == "hard_threshold":
            return _number(name, value, 0.0, MAX_FACTOR, why=FACTOR_LIMIT)
        if name == "wiener_factor":
            return _number(name, value, 0.0, MAX_FACTOR, low_open=True, why=FACTOR_LIMIT)
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
            return _number(name, value, 0.0, MAX_FACTOR, why=FACTOR_LIMIT)
        if name in ("sharpen", "sharpen_variances", "adapt_to_psd"):
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
        if name == "memory_limit":
            return None if value is None else _number(name, value, 1)
        return value

    def resolve(self, shape, psd=None, z=None, *, normalize=True, channels=None, matches=None):
        """The native records a call on an array of this shape would use.

        Returns ``{"ht": record, "wiener": record}``: ``korvo._native.Parameters``
        with every per-axis value an (x, y, z) tuple, for noise of standard
        deviation 1 (what the stages see after normalisation) given by sigma,
        or by ``psd`` when given. Thresholds appear in the library's units:
        ``threshold_factor`` is ``hard_threshold`` squared, ``match_threshold``
        the per-voxel value times the block volume, both after the PSD
        adaptation (see ``adapt_to_psd``). When the groups are matched on a
        prewhitened copy, the record of that matching pass is included as
        ``"match"``; whether they are depends on the data: pass ``z`` to
        decide it (without, flat data are assumed). ``normalize`` and
        ``channels`` (the count along ``channel_axis``, if any) as in the call: they
        change the memory the stages may take, and so the bands and threads
        (without ``z``, float32 data are assumed); ``matches`` too (a call that
        records or replays groups keeps the default block). Settings that
        cannot work on this shape raise ValueError.
        """
        shape = integer_tuple(shape, "shape")
        if len(shape) not in (2, 3):
            raise ValueError(f"expected a 2-D or 3-D shape, got {len(shape)} dimensions")
        # Checked as a call checks them: a bad PSD would otherwise fail deep inside.
        if psd is not None:
            psd = _check_psd(psd)[1]
            check_psd_rank(psd, shape)
        if z is not None and np.shape(z) != shape:
            raise ValueError(f"z has shape {np.shape(z)}, not the shape {shape} to resolve")
        if channels is not None and (isinstance(channels, bool) or
                                     not isinstance(channels, numbers.Integral) or channels < 1):
            raise ValueError(f"channels must be None or a positive integer, got {channels!r}")
        from .matches import shared_group_bytes  # (it builds on this module)

        adaptation = PSDAdaptation.of(self, shape, psd, z, keep_block=matches is not None)
        copy = normalize if z is None else needs_copy(np.asarray(z), normalize)
        budgets = stage_budgets(math.prod(shape), copy, channels, limit=self.memory_limit,
                                stored=shared_group_bytes(self, shape, adaptation))
        psd_shape = None if psd is None else np.shape(psd)
        records = {key: stage_parameters(self, stage, shape, psd_shape=psd_shape,
                                         budget=budgets[stage], adaptation=adaptation)
                   for stage, key in enumerate(STAGE_KEYS)}
        if adaptation.prewhiten:
            records["match"] = stage_parameters(self, 0, shape, noise_std=adaptation.match_std,
                                                budget=budgets["match"], adaptation=adaptation,
                                                matching=True)
        return records


class PSDAdaptation:
    """How a call adapts to its noise PSD: the concentration c, the noise
    scale of each stage's thresholds, and whether groups are matched on a
    prewhitened copy (with the noise std, relative to the data's, that the
    prewhitened copy has)."""

    def __init__(self, concentration=1.0, prewhiten=False, match_std=1.0, flatness=None,
                 block=None):
        self.concentration = concentration
        self.flatness = flatness
        growth = math.log(max(concentration, 1.0))
        if flatness is not None:
            growth *= min(1.0, flatness.flat / SCALE_FLAT_FRACTION)
        slopes = PSD_SCALE_SLOPES if block is None else LARGE_BLOCK_SLOPES
        self.scales = tuple(1.0 + slope * growth for slope in slopes)
        self.prewhiten = prewhiten
        self.match_std = match_std
        self.block = block  # the block of stages left on the default one (None: the default)

    @classmethod
    def of(cls, profile, shape, psd, z=None, flatness=None, keep_block=False):
        """The adaptation of a call on ``shape`` with this PSD (None: white),
        on the data ``z`` or with their :class:`~korvo.noise.Flatness` given
        (neither: assumed flat enough to prewhiten). ``keep_block``: the call
        records or replays groups, which other calls (other noise) must be
        able to replay, so the default block stays."""
        asked = (profile.ht.block_size, profile.wiener.block_size)
        asked_large = asked == (LARGE_BLOCK, LARGE_BLOCK)  # as the switch would have it
        if psd is None or not profile.adapt_to_psd or not (
                set(asked) - {None} <= set(BUILT_IN_BLOCKS) or asked_large):
            return cls()
        concentration = psd_concentration(psd)
        if flatness is None and z is not None and concentration > 1.0:
            flatness = block_flatness(z, psd)
        if asked_large or (concentration >= LARGE_BLOCK_FROM and not keep_block
                           and _takes_large_block(profile, shape)):
            return cls(concentration, flatness=flatness, block=LARGE_BLOCK)
        same = all(getattr(profile.ht, n) == getattr(profile.wiener, n)
                   for n in ("block_size", "step", "search_window"))
        if not (same and concentration >= PREWHITEN_FROM) or (
                flatness is not None and flatness.flat < PREWHITEN_FLAT_FRACTION):
            return cls(concentration, flatness=flatness)
        return cls(concentration, True, whitening_kernel(psd, len(shape))[1], flatness)

    @classmethod
    def geometry(cls, profile, shape, psd):
        """The adaptation as far as the block goes, which the data's flatness
        leaves alone: what chunk margins and messages read, without the data."""
        return cls.of(profile, shape, psd, flatness=Flatness(0.0, 0.0))

    def __repr__(self):
        flat = "" if self.flatness is None else \
            f", noise_dominated={self.flatness.noise_dominated:.3g}, flat={self.flatness.flat:.3g}"
        block = "" if self.block is None else f", block={self.block}"
        return (f"PSDAdaptation(concentration={self.concentration:.4g}{flat}, "
                f"scales={self.scales}, prewhiten={self.prewhiten}{block})")


def _takes_large_block(profile, shape):
    """Whether both stages of a call on ``shape`` are left on the default
    volume block and can run the large one (extents and noise grid)."""
    if profile.ht.block_size is not None or profile.wiener.block_size is not None:
        return False
    extents = shape_xyz(shape)
    if any(_native.default_parameters(stage, extents, 1.0).block_size != (4, 4, 4)
           for stage in (0, 1)):
        return False
    grid = profile.psd_work_size
    return all(n >= b for n, b in zip(extents, LARGE_BLOCK)) and (
        grid is None or all(g >= b for g, b in zip(grid, LARGE_BLOCK)))


def shape_xyz(shape):
    """Array shape (z, y, x) or (y, x) -> library extents (x, y, z)."""
    if len(shape) == 2:
        return (int(shape[1]), int(shape[0]), 1)
    return (int(shape[2]), int(shape[1]), int(shape[0]))


def _cpu_count():
    try:
        return max(1, len(os.sched_getaffinity(0)))
    except (AttributeError, OSError):
        return max(1, os.cpu_count() or 1)


def _single(name, value):
    """``value`` as the float32 the record holds; a value that does not fit is refused."""
    single = np.float32(value)
    if not np.isfinite(single):
        raise ValueError(f"{name} = {value:.3g} in the library's units does not fit in single "
                         f"precision; lower it or the noise level")
    return float(single)


def stage_parameters(profile, stage, shape, *, noise_std=1.0, psd_shape=None, budget=None,
                     adaptation=None, matching=False):
    """The native record of one stage (0: hard thresholding, 1: Wiener) of a
    call on an array of ``shape`` whose noise, as the stages see it, has
    standard deviation ``noise_std`` and the PSD shape ``psd_shape`` (None:
    white, one value), adapted to the PSD by ``adaptation``
    (:class:`PSDAdaptation`; None: none). ``matching``: the record of the
    hard-thresholding pass over the prewhitened copy that records the groups
    both stages replay. Every unit conversion between the profile and the
    library happens here. Unset profile values come from the library's
    defaults; an unset split is chosen to fit ``budget`` bytes (None: no
    limit). Combinations a stage cannot run raise ValueError."""
    adaptation = adaptation or PSDAdaptation()
    settings = getattr(profile, STAGE_KEYS[stage])
    extents = shape_xyz(shape)
    record = _native.default_parameters(stage, extents, noise_std)
    block = settings.block_size or adaptation.block or record.block_size
    if block != record.block_size:
        # Defaults that follow the block come from the data kind it is made for.
        kind = extents if block[2] > 1 else extents[:2] + (1,)
        derived = _native.default_parameters(stage, kind, noise_std)
        record.step, record.psd_work_size = derived.step, derived.psd_work_size
        if block not in BUILT_IN_BLOCKS:
            record.step = tuple(max(1, n // 2) if n > 4 else s for n, s in zip(block, record.step))
    record.block_size = block
    record.step = settings.step or record.step
    record.psd_work_size = profile.psd_work_size or record.psd_work_size
    # A window wider than the data can serve changes no group, only time and memory.
    record.search_window = settings.search_window or record.search_window
    _native.fit_search_window(record)
    record.max_group_size = stage_setting(profile, stage, "max_group_size")
    if adaptation.prewhiten:  # both stages replay the same groups
        record.max_group_size = max(stage_setting(profile, s, "max_group_size") for s in (0, 1))
    record.variance_group_limit = profile.variance_group_limit
    # Squared in single precision, as the library squares its own default.
    threshold = np.float32(profile.hard_threshold)
    scale = 1.0 if matching else adaptation.scales[stage]
    hard, wiener = (scale, 1.0) if stage == 0 else (1.0, scale)
    record.threshold_factor = _single("hard_threshold squared", threshold * threshold * hard)
    record.wiener_factor = _single("wiener_factor", profile.wiener_factor * wiener)
    record.match_variance_weight = _single("match_variance_weight", profile.match_variance_weight)
    # Per-voxel mean squared distance in units of the noise variance -> a sum
    # over the block in the stages' units.
    # The shared groups are matched with the Wiener stage's threshold.
    distance = stage_setting(profile, 1 if matching else stage, "match_threshold")
    record.match_threshold = _single(f"{STAGE_KEYS[stage]}.match_threshold",
                                     distance * math.prod(block) * noise_std ** 2)
    record.sharpen = profile.sharpen
    record.sharpen_variances = profile.sharpen_variances
    record.sharpen_exponent = profile.sharpen_exponent
    record.sharpen_exponent_flat = profile.sharpen_exponent_flat
    record.num_threads = profile.num_threads or _cpu_count()
    if psd_shape is not None:
        record.psd_size = shape_xyz(psd_shape)
    _refuse(record, stage)
    if profile.split_block_extraction is None:
        choose_split(record, stage, budget, _native)
    else:
        record.split_block_extraction = profile.split_block_extraction
    return record


def _refuse(record, stage):
    reason = _native.check_parameters(record, stage)
    if reason:
        # The library names its record's fields; the profile spells them in snake case.
        words = re.sub(r"(?<=[a-z])([A-Z])", lambda m: "_" + m.group(1).lower(), reason)
        words = words.replace("image_size", "the data's (x, y, z) extents")
        if words.startswith("block_size") and words.endswith("along z"):
            # Thin stacks are the usual case: say what works.
            words += ("; for so few slices pass block_size=(8, 8, 1) in profile.ht and "
                      "profile.wiener (command line: --set ht.block_size=8,8,1 --set "
                      "wiener.block_size=8,8,1), or denoise each slice as a 2-D image")
        raise ValueError(f"profile.{STAGE_KEYS[stage]}: {words}")
