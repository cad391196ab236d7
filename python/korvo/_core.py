"""The denoising call: input checks, unit normalisation, stage driving."""

from __future__ import annotations

import math
import numbers
import os
import threading

import numpy as np

from .noise import psd_sigma
from .profile import KORVOProfile, StageProfile
from .progress import make_reporter

__all__ = ["korvo", "MatchStorage", "StageMatches", "available_memory", "SPLIT_ADVICE"]

SPLIT_ADVICE = ("set profile.split_block_extraction = [False, False, True], or if that still "
                "fails [False, True, True]")

_STAGES = {"both": (0, 1), "ht": (0,), "wiener": (1,)}
_STAGE_LABELS = ("korvo hard thresholding", "korvo Wiener")
_STAGE_KEYS = ("ht", "wiener")

# One native run at a time: the library's thread pool has a single driver.
_NATIVE_LOCK = threading.Lock()
# How often the driving thread looks at progress and for an interrupt.
_POLL_SECONDS = 0.1
# Elements normalised per chunk (bounds the float64 temporaries).
_CHUNK = 1 << 22


def _native():
    from . import _native as module  # imported late so that pure helpers work without it
    return module


# ----------------------------------------------------------------------------
# Profile resolution


def _is_plane(shape):
    return len(shape) == 2


def _shape_xyz(shape):
    """Array shape (z, y, x) or (y, x) -> library extents (x, y, z)."""
    if len(shape) == 2:
        return (shape[1], shape[0], 1)
    return (shape[2], shape[1], shape[0])


def _stage_settings(stage: StageProfile, default_window, plane, extents):
    block = stage.block_size or ((8, 8, 1) if plane else (4, 4, 4))
    step = stage.step or (3, 3, 3 if block[2] > 1 else 1)
    window = stage.search_window or default_window
    if plane:
        window = (window[0], window[1], 0)
    too_small = [a for a, b, n in zip("xyz", block, extents) if b > n]
    if too_small:
        raise ValueError(f"the data (extents x, y, z = {extents}) is smaller than a block "
                         f"{block} along {', '.join(too_small)}")
    return dict(block_size=block, step=step, search_window=window,
                max_group_size=stage.max_group_size, match_threshold=stage.match_threshold)


def _default_work_size(block, plane):
    return (32, 32, 1) if plane or block[2] == 1 else (16, 16, 16)


def _resolve_profile(profile: KORVOProfile, shape):
    if len(shape) not in (2, 3):
        raise ValueError(f"expected a 2-D or 3-D shape, got {len(shape)} dimensions")
    plane = _is_plane(shape)
    extents = _shape_xyz(shape)
    default_window = (11, 11, 0) if plane else (5, 5, 5)
    resolved = {}
    for key in _STAGE_KEYS:
        settings = _stage_settings(getattr(profile, key), default_window, plane, extents)
        block = settings["block_size"]
        work = profile.psd_work_size or _default_work_size(block, plane)
        short = [a for a, b, w in zip("xyz", block, work) if w < b]
        if short:
            raise ValueError(f"psd_work_size {work} is smaller than the block {block} along "
                             f"{', '.join(short)}")
        settings.update(
            psd_work_size=work,
            hard_threshold=profile.hard_threshold,
            wiener_factor=profile.wiener_factor,
            variance_group_limit=profile.variance_group_limit,
            match_variance_weight=profile.match_variance_weight,
            sharpen=profile.sharpen,
            sharpen_exponent=profile.sharpen_exponent,
            sharpen_exponent_flat=profile.sharpen_exponent_flat,
            sharpen_variances=profile.sharpen_variances,
            num_threads=profile.num_threads or _cpu_count(),
            split_block_extraction=profile.split_block_extraction,
        )
        resolved[key] = settings
    return resolved


def _cpu_count():
    try:
        return max(1, len(os.sched_getaffinity(0)))
    except (AttributeError, OSError):
        return max(1, os.cpu_count() or 1)


# ----------------------------------------------------------------------------
# Memory


def available_memory():
    """Bytes of memory this process can still use (best estimate), or None."""
    candidates = []
    try:
        import psutil
        candidates.append(int(psutil.virtual_memory().available))
    except Exception:
        try:
            with open("/proc/meminfo") as f:
                for line in f:
                    if line.startswith("MemAvailable:"):
                        candidates.append(int(line.split()[1]) * 1024)
        except OSError:
            pass
        if not candidates:
            try:
                candidates.append(os.sysconf("SC_AVPHYS_PAGES") * os.sysconf("SC_PAGE_SIZE"))
            except (ValueError, OSError, AttributeError):
                pass
    try:  # a container's own limit (cgroup v2)
        with open("/sys/fs/cgroup/memory.max") as f:
            limit = f.read().strip()
        if limit != "max":
            with open("/sys/fs/cgroup/memory.current") as f:
                candidates.append(int(limit) - int(f.read().strip()))
    except (OSError, ValueError):
        pass
    return min(candidates) if candidates else None


def _collection_bytes(extents, settings, split, collections):
    """Bytes of pre-transformed blocks a stage keeps with the given split flags."""
    block, window = settings["block_size"], settings["search_window"]
    count = 1
    for n, b, w, s in zip(extents, block, window, split):
        positions = n - b + 1
        count *= min(2 * w + 3, positions) if s else positions
    per_collection = count * math.prod(block) * 4
    threads = settings["num_threads"] if any(split) else 1
    return per_collection * collections * threads


def _choose_split(extents, settings, collections, budget):
    """Block collections for the whole volume or for bands along the slowest axis,
    whichever needs less memory (bands cost no measurable time: each worker
    slides its own along its slices); more splitting only when that does not
    fit in ``budget`` bytes."""
    plane = extents[2] == 1
    whole = (False, False, False)
    options = [(False, True, False), (True, True, False)] if plane else [
        (False, False, True), (False, True, True)]
    first = min((whole, options[0]),
                key=lambda split: _collection_bytes(extents, settings, split, collections))
    if budget is None:
        return first
    for split in (first, *options):
        if _collection_bytes(extents, settings, split, collections) <= budget:
            return split
    return options[-1]


# ----------------------------------------------------------------------------
# Match storage


class StageMatches:
    """Match lists of one stage: per reference position the group size and the
    (x, y, z) positions of its blocks, in numpy arrays the native stage fills."""

    def __init__(self, shape, settings):
        extents = _shape_xyz(shape)
        plane = extents[2] == 1
        per_axis = [n // s + 2 for n, s in zip(extents, settings["step"])]
        if plane:
            per_axis[2] = 1
        rows = math.prod(per_axis)
        entries = settings["max_group_size"]
        self.shape = tuple(shape)
        self.block_size = settings["block_size"]
        self.step = settings["step"]
        self.search_window = settings["search_window"]
        self.entries = entries
        self.counts = np.zeros(rows, dtype=np.int32)
        self.positions = np.zeros((rows * entries, 3), dtype=np.int32)
        self.relative_positions = np.zeros((rows * entries, 3), dtype=np.int32)
        self.rows = 0
        self.filled = False

    def check_replay(self, shape, settings):
        expected = dict(shape=tuple(shape), block_size=settings["block_size"],
                        step=settings["step"], search_window=settings["search_window"])
        for name, value in expected.items():
            if getattr(self, name) != value:
                raise ValueError(f"the stored matches were recorded with {name} "
                                 f"{getattr(self, name)}, this call uses {value}")
        if settings["max_group_size"] < self.entries:
            raise ValueError(f"the stored groups hold up to {self.entries} blocks, more than this "
                             f"call's max_group_size {settings['max_group_size']}")

    def native(self):
        return (self.counts, self.positions, self.relative_positions, self.entries, self.filled)

    def groups(self):
        """List of (n, 3) arrays of block positions (x, y, z) per reference position."""
        out = []
        for r in range(self.rows):
            start = r * self.entries
            out.append(self.positions[start:start + int(self.counts[r])].copy())
        return out

    @property
    def nbytes(self):
        return self.counts.nbytes + self.positions.nbytes + self.relative_positions.nbytes


class MatchStorage:
    """Match lists handed from one call to another.

    Pass the same object to several :func:`korvo` calls: a stage whose lists
    are empty finds its groups and records them; a later call replays them
    instead of matching, so every call filters the same groups. Typical use is
    multichannel data: denoise the channel with the best signal first, then the
    others with its groups. ``ht`` and ``wiener`` hold the lists of the two
    stages (None until recorded). Replaying needs the same array shape, block
    size, step and search window, and a largest group at least as large.
    """

    def __init__(self):
        self.ht: StageMatches | None = None
        self.wiener: StageMatches | None = None

    @property
    def recorded(self):
        return {key: getattr(self, key) is not None and getattr(self, key).filled
                for key in _STAGE_KEYS}

    def clear(self):
        self.ht = None
        self.wiener = None

    def _for_stage(self, stage, shape, settings):
        key = _STAGE_KEYS[stage]
        current = getattr(self, key)
        if current is not None and current.filled:
            current.check_replay(shape, settings)
            return current
        current = StageMatches(shape, settings)
        setattr(self, key, current)
        return current


# ----------------------------------------------------------------------------
# Inputs


def _check_data(name, z):
    if isinstance(z, np.ndarray):
        a = z
    else:
        try:
            a = np.asarray(z)
        except Exception as exc:
            raise TypeError(f"{name} must be a numeric array") from exc
    if a.dtype.kind not in "iuf":
        raise TypeError(f"{name} must hold real numbers, got dtype {a.dtype}")
    if a.ndim not in (2, 3):
        raise ValueError(f"{name} must be 2-D (rows, columns) or 3-D (slices, rows, columns), "
                         f"got {a.ndim} dimensions with shape {a.shape}")
    if a.size == 0:
        raise ValueError(f"{name} is empty (shape {a.shape})")
    if a.size >= 2 ** 31:
        raise ValueError(f"{name} has {a.size} elements; at most 2**31 - 1 are supported")
    if a.dtype.kind == "f":
        lo, hi = np.min(a), np.max(a)  # NaN propagates, inf shows at an end
        if not (np.isfinite(lo) and np.isfinite(hi)):
            raise ValueError(f"{name} contains NaN or infinite samples")
    return a


def _check_noise(sigma_psd):
    """-> (sigma, psd or None). ``psd`` is float64, validated."""
    if isinstance(sigma_psd, (bool, np.bool_)):
        raise TypeError("sigma_psd must be a number (noise std) or an array (noise PSD)")
    if isinstance(sigma_psd, numbers.Real) or (isinstance(sigma_psd, np.ndarray)
                                               and sigma_psd.ndim == 0):
        sigma = float(sigma_psd)
        if not math.isfinite(sigma):
            raise ValueError(f"sigma must be finite, got {sigma}")
        if sigma <= 0:
            raise ValueError(f"sigma must be positive, got {sigma}")
        return sigma, None
    try:
        psd = np.asarray(sigma_psd)
    except Exception as exc:
        raise TypeError("sigma_psd must be a number (noise std) or an array (noise PSD)") from exc
    if psd.dtype.kind not in "iuf":
        raise TypeError(f"the PSD must hold real numbers, got dtype {psd.dtype}")
    if psd.ndim not in (2, 3):
        raise ValueError(f"the PSD must be 2-D or 3-D, got {psd.ndim} dimensions")
    if psd.size == 0:
        raise ValueError("the PSD is empty")
    psd = psd.astype(np.float64)
    if not np.isfinite(psd).all():
        raise ValueError("the PSD contains NaN or infinite values")
    if (psd < 0).any():
        raise ValueError("the PSD contains negative values")
    sigma = psd_sigma(psd)
    if not sigma > 0:
        raise ValueError("the PSD is zero everywhere")
    if psd.size >= 2 ** 31:
        raise ValueError("the PSD is too large")
    return sigma, psd


def _to_float32(a, offset, scale, out=None):
    """(a - offset) / scale as C-contiguous float32, in chunks of the first axis."""
    if out is None:
        out = np.empty(a.shape, dtype=np.float32)
    rows = max(1, _CHUNK // max(1, a[0].size))
    inverse = 1.0 / scale
    for start in range(0, a.shape[0], rows):
        part = np.asarray(a[start:start + rows], dtype=np.float64)
        out[start:start + rows] = (part - offset) * inverse
    return out


# ----------------------------------------------------------------------------
# Native driving


def _native_params(settings, extents, psd_size, split):
    block_volume = math.prod(settings["block_size"])
    return dict(
        block_size=settings["block_size"],
        psd_work_size=settings["psd_work_size"],
        use_real_fft=True,
        max_group_size=settings["max_group_size"],
        variance_group_limit=settings["variance_group_limit"],
        threshold_factor=settings["hard_threshold"] ** 2,
        wiener_factor=settings["wiener_factor"],
        match_variance_weight=settings["match_variance_weight"],
        search_window=settings["search_window"],
        image_size=tuple(extents),
        psd_size=tuple(psd_size),
        step=settings["step"],
        min_reduce_count=1,
        # Per-voxel mean squared distance in units of the noise variance; the
        # data reach the library with unit noise variance.
        match_threshold=settings["match_threshold"] * block_volume,
        split_block_extraction=tuple(split),
        sharpen=settings["sharpen"],
        sharpen_variances=settings["sharpen_variances"],
        sharpen_exponent=settings["sharpen_exponent"],
        sharpen_exponent_flat=settings["sharpen_exponent_flat"],
        num_threads=settings["num_threads"],
    )


def _run_stage(stage, noisy, psd, params, pilot, output, storage, reporter):
    """Run one native stage on a helper thread; this thread watches progress and
    Ctrl-C. Returns the number of match rows written."""
    native = _native()
    monitor = native.Monitor()
    outcome = {}
    # Completion is signalled by an event, not by Thread.join: a join that Ctrl-C
    # interrupts can leave the thread looking finished while it still runs.
    finished = threading.Event()

    def work():
        try:
            outcome["result"] = native.run_stage(stage, noisy, psd, params, pilot, output,
                                                 storage, monitor)
        except BaseException as exc:  # handed to the calling thread
            outcome["error"] = exc
        finally:
            finished.set()

    worker = threading.Thread(target=work, name="korvo-stage", daemon=True)
    reporter.start(_STAGE_LABELS[stage])
    try:
        worker.start()
        while not finished.wait(_POLL_SECONDS):
            reporter.update(monitor.slices_done, monitor.slices_total)
    except BaseException:
        # Ctrl-C (or any other interruption): stop the stage, wait for it, re-raise.
        monitor.cancel()
        while worker.ident is not None and not finished.is_set():
            try:  # a second Ctrl-C must not leave native code running unobserved
                finished.wait(_POLL_SECONDS)
            except KeyboardInterrupt:
                pass
        reporter.close()
        raise
    reporter.update(monitor.slices_done, monitor.slices_total)
    reporter.close()
    if "error" in outcome:
        raise outcome["error"]
    completed, rows = outcome["result"]
    total = monitor.slices_total
    if not completed or (total > 0 and monitor.slices_done < total):
        raise MemoryError(
            f"{_STAGE_LABELS[stage]} stage could not allocate its memory "
            f"(split_block_extraction was {list(params['split_block_extraction'])}); "
            f"{SPLIT_ADVICE}: pro = KORVOProfile(); "
            f"pro.split_block_extraction = [False, False, True]; y = korvo(z, sigma_psd, pro)")
    return rows


def korvo(z, sigma_psd, profile=None, *, stages="both", pilot=None, matches=None,
          progress=False, normalize=True):
    """Denoise a 2-D image or a 3-D volume corrupted by additive noise.

    Parameters
    ----------
    z : array_like, 2-D (rows, columns) or 3-D (slices, rows, columns)
        The noisy data, any real dtype. The last axis is the fastest (x), the
        first of a volume the slowest (z); profile tuples are (x, y, z).
    sigma_psd : float or array_like
        A float: the standard deviation of white noise. An array (2-D or 3-D,
        any shape): the noise power spectral density, PSD = E|fftn(noise)|^2
        over the PSD's own shape (white noise of std s on N elements: s*s*N
        everywhere). It is resampled to ``profile.psd_work_size``.
    profile : KORVOProfile, optional
        Tunables; the defaults when omitted.
    stages : {"both", "ht", "wiener"}
        "both" (default): hard thresholding, then Wiener filtering with its
        result as pilot. "ht": hard thresholding only. "wiener": Wiener
        filtering only, with the caller's ``pilot`` (same shape and units as z).
    matches : MatchStorage, optional
        Records the groups of this call, or replays those of an earlier call.
    progress : bool or callable
        Show progress (tqdm when installed, else a plain line on stderr), or
        call ``progress(stage_label, slices_done, slices_total)``.
    normalize : bool
        True (default): the data are shifted by their mean and divided by the
        noise level before the native stages and restored afterwards, so that
        the result does not depend on units: korvo(a*z + b, a*s) equals
        a*korvo(z, s) + b to float precision. This costs one float32 working
        copy. False: a C-contiguous float32 ``z`` reaches the native code
        without any copy; thresholds are still scaled to the noise level, but
        the result then depends slightly on the data's offset.

    Returns
    -------
    numpy.ndarray
        The estimate, float32, of z's shape.

    Raises
    ------
    TypeError, ValueError
        Bad inputs, before any native code runs.
    MemoryError
        The native stages could not allocate their memory (the message says
        how to set ``split_block_extraction``).
    KeyboardInterrupt
        Ctrl-C stops the run within a fraction of a second per slice.
    """
    z = _check_data("z", z)
    sigma, psd = _check_noise(sigma_psd)
    if profile is None:
        profile = KORVOProfile()
    elif not isinstance(profile, KORVOProfile):
        raise TypeError("profile must be a KORVOProfile")
    if stages not in _STAGES:
        raise ValueError(f"stages must be one of {sorted(_STAGES)}, got {stages!r}")
    if stages == "wiener":
        if pilot is None:
            raise ValueError("stages='wiener' needs a pilot estimate (pilot=...)")
        pilot = _check_data("pilot", pilot)
        if pilot.shape != z.shape:
            raise ValueError(f"pilot shape {pilot.shape} differs from the data shape {z.shape}")
    elif pilot is not None:
        raise ValueError("a pilot is only used with stages='wiener'")
    if matches is not None and not isinstance(matches, MatchStorage):
        raise TypeError("matches must be a MatchStorage")
    if not isinstance(normalize, bool):
        raise TypeError("normalize must be True or False")
    reporter = make_reporter(progress)

    shape = z.shape
    extents = _shape_xyz(shape)
    resolved = _resolve_profile(profile, shape)
    run = _STAGES[stages]

    # Units: the native stages see data with unit noise level and (normally) zero mean.
    if normalize:
        offset, scale = float(np.mean(z, dtype=np.float64)), sigma
    else:
        offset, scale = 0.0, 1.0
    if normalize or z.dtype != np.float32 or not z.flags.c_contiguous:
        noisy = _to_float32(z, offset, scale)
    else:
        noisy = z
    native_pilot = _to_float32(pilot, offset, scale) if pilot is not None else None
    unit = sigma / scale  # noise std as the native stages see it

    budget = None
    if any(resolved[_STAGE_KEYS[s]]["split_block_extraction"] is None for s in run):
        free = available_memory()
        if free is not None:
            buffers = (len(run) + 1) * noisy.nbytes
            budget = max(0, (free - buffers) // 2)

    output = None
    with _NATIVE_LOCK:
        for stage in run:
            settings = resolved[_STAGE_KEYS[stage]]
            work = settings["psd_work_size"]
            if psd is None:
                native_psd = np.full(work[::-1], unit * unit * math.prod(work), dtype=np.float32)
            else:
                native_psd = np.ascontiguousarray(psd * (unit / sigma) ** 2, dtype=np.float32)
            psd_size = native_psd.shape[::-1] + ((1,) if native_psd.ndim == 2 else ())
            split = settings["split_block_extraction"]
            if split is None:
                split = _choose_split(extents, settings, 1 + stage, budget)
            params = _native_params(settings, extents, psd_size, split)
            # Thresholds in noise units: the data arrive with noise std `unit`.
            params["match_threshold"] *= unit * unit
            stored = None
            if matches is not None:
                stored = matches._for_stage(stage, shape, settings)
            result = np.zeros(shape, dtype=np.float32)
            rows = _run_stage(stage, noisy, native_psd, params,
                              native_pilot if stage == 1 else None, result,
                              stored.native() if stored is not None else None, reporter)
            if stored is not None and not stored.filled:
                if rows > stored.counts.size:
                    raise RuntimeError("the native stage wrote more match rows than allocated")
                stored.rows, stored.filled = rows, True
            native_pilot = result
            output = result
    del native_pilot, noisy
    if normalize:
        output *= np.float32(scale)
        output += np.float32(offset)
    return output
