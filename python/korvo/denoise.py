"""The denoising call: checks, unit normalisation, channels, stage driving."""

from __future__ import annotations

import contextlib
import contextvars
import threading

import numpy as np

from . import _native, chunked
from .matches import MatchStorage, StageMatches, shared_group_bytes
from .memory import SPLIT_ADVICE, check_limit, needs_copy, release_freed, stage_budgets
from .noise import _slabwise, haar_detail_std, prewhiten, psd_sigma
from .profile import BUILT_IN_BLOCKS, KORVOProfile, PSDAdaptation, _cpu_count, stage_parameters
from .progress import make_reporter
from .transforms import block_transforms
from .validation import (check_channels, check_data, check_noise, check_noise_level,
                         check_pilot, check_psd_rank, check_range, check_shared_groups,
                         warn_caller)

__all__ = ["korvo"]

_STAGES = {"both": (0, 1), "ht": (0,), "wiener": (1,)}
_STAGE_LABELS = ("korvo hard thresholding", "korvo Wiener")
_MATCH_LABEL = "korvo matching on prewhitened data"

# One native run at a time: the library's thread pool has a single driver.
_NATIVE_LOCK = threading.Lock()
_NATIVE_OWNER = [None]  # the thread holding it, which also runs the progress callbacks


@contextlib.contextmanager
def _native_turn():
    """The native stages to this thread; a call from inside a progress
    callback (the thread that holds them) would wait for itself forever."""
    if _NATIVE_OWNER[0] == threading.get_ident():
        raise RuntimeError("korvo cannot be called from inside a progress callback of another "
                           "korvo call: the native stages run one call at a time")
    with _NATIVE_LOCK:
        _NATIVE_OWNER[0] = threading.get_ident()
        try:
            yield
        finally:
            _NATIVE_OWNER[0] = None
# Set while the noise models denoise their stabilised data, whose level they
# have checked themselves.
_LEVEL_CHECKED = contextvars.ContextVar("korvo_level_checked", default=False)
_LEVEL_ADVICE = ("Check sigma's units (korvo.estimate_sigma(z) estimates it, as the command line "
                 "does without --sigma); if the noise is correlated (smooth), pass its spectrum "
                 "instead: psd=korvo.estimate_psd(z) (--psd auto)")
_MAP_ADVICE = ("Check the map's units: it holds the noise std of every voxel, in the data's "
               "units (korvo.estimate_sigma_map(z) estimates one, as --sigma-map auto does)")
_PSD_ADVICE = ("Check the PSD's convention, E|fftn(noise)|^2 over its own shape (white noise "
               "of std s on N elements: s*s*N everywhere), and its units; "
               "korvo.estimate_psd(z) estimates it (--psd auto)")
# How often the driving thread looks at progress and for an interrupt.
_POLL_SECONDS = 0.1
def _to_float32(a, offset, scale, out=None):
    """(a - offset) / scale as C-contiguous float32, a slab at a time;
    ``scale`` is a number or an array of a's shape (a per-voxel noise map)."""
    if np.ndim(scale) > 0:
        return _slabwise(lambda part, s: (np.asarray(part, np.float64) - offset) / s, a, scale,
                         out=out)
    inverse = 1.0 / scale
    return _slabwise(lambda part: (np.asarray(part, np.float64) - offset) * inverse, a, out=out)


# Without normalisation, data this many noise stds from zero lose to rounding:
# measured on the phantom, an offset of 1e4 sigma moved the result by 0.013
# sigma (rms), 1e5 sigma by 0.07, 1e6 sigma by 0.7.
RAW_REACH = 1e4


def _budget(profile, z, normalize, channels=None, stored=0):
    """Bytes each stage's native working memory may take in a call on ``z``
    (one channel of ``channels``, when the call has a channel axis) that holds
    ``stored`` bytes of shared groups, by record key (None: the profile sets
    the bands)."""
    if profile.split_block_extraction is not None:
        return None
    return stage_budgets(z.size, needs_copy(z, normalize), channels, profile.memory_limit,
                         stored)


def _run_stage(stage, noisy, psd, record, pilot, output, storage, reporter, label):
    """Run one native stage on a helper thread while this thread watches progress
    and Ctrl-C. Returns the number of match rows written."""
    # What the allocator holds from earlier work goes back first: with glibc's
    # moving mmap threshold, buffers freed before the call stay resident, and a
    # stage that cannot reuse them would add its own on top (64^3 measured 5.1x
    # to 7.3x the volume's bytes from run to run; with this, 4.9x to 5.4x).
    release_freed()
    monitor = _native.Monitor()
    outcome = {}
    # Completion is signalled by an event, not by Thread.join: a join that Ctrl-C
    # interrupts can leave the thread looking finished while it still runs.
    finished = threading.Event()

    block = tuple(record.block_size)
    transforms = None if block in BUILT_IN_BLOCKS else block_transforms(block)

    def work():
        try:
            outcome["result"] = _native.run_stage(stage, noisy, psd, record, pilot, output,
                                                  storage, monitor, transforms)
        except BaseException as exc:  # handed to the calling thread
            outcome["error"] = exc
        finally:
            finished.set()

    worker = threading.Thread(target=work, name="korvo-stage", daemon=True)
    try:
        reporter.start(label)
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
    status, rows = outcome["result"]
    release_freed()
    if status == _native.StageStatus.THREAD_START_FAILED:
        raise MemoryError(f"could not start {record.num_threads} worker threads for the "
                          f"{_STAGE_LABELS[stage]} stage (the system refused them); lower "
                          f"num_threads: pro = KORVOProfile(num_threads=2)")
    if status == _native.StageStatus.CANCELLED:
        raise KeyboardInterrupt
    if status != _native.StageStatus.COMPLETED:
        raise MemoryError(
            f"{_STAGE_LABELS[stage]} stage could not allocate its memory "
            f"(split_block_extraction was {list(record.split_block_extraction)}); "
            f"{SPLIT_ADVICE}: pro = KORVOProfile(); "
            f"pro.split_block_extraction = [False, False, True]; y = korvo(z, sigma, profile=pro)")
    return rows


class _Channel:
    """One 2-D or 3-D array checked and described in the stages' units."""

    def __init__(self, z, sigma, psd, pilot, normalize, noise_map=None):
        self.z, lo, hi = check_data("z", z)
        # ``scale`` divides the data on the way in and multiplies the result on the
        # way out: the noise level, or the per-voxel noise map.
        if noise_map is not None:
            self.offset, self.scale = float(np.mean(self.z, dtype=np.float64)), noise_map
            sigma = smallest = float(np.min(noise_map))
        elif normalize:
            self.offset, self.scale = float(np.mean(self.z, dtype=np.float64)), sigma
            smallest = sigma
        else:
            self.offset, self.scale = 0.0, 1.0
            smallest = 1.0
        self.unit = sigma / smallest  # noise std as the stages see it
        if psd is None:
            self.psd = None
        else:
            self.psd = np.ascontiguousarray(psd * (self.unit / sigma) ** 2, dtype=np.float32)
        check_range("z", lo, hi, self.offset, smallest, self.unit, self.psd)
        reach = max(abs(lo), abs(hi)) / sigma
        if not normalize and noise_map is None and reach > RAW_REACH:
            warn_caller(f"normalize=False: the data reach {reach:.3g} times the noise std, "
                        f"where single-precision rounding in the stages is no longer small "
                        f"against the noise; pass normalize=True", RuntimeWarning)
        self.pilot = None
        if pilot is not None:
            self.pilot, plo, phi = check_data("pilot", pilot)
            if self.pilot.shape != self.z.shape:
                raise ValueError(f"pilot shape {self.pilot.shape} differs from the data shape "
                                 f"{self.z.shape}")
            check_range("pilot", plo, phi, self.offset, smallest, self.unit)

    def records(self, profile, run, budgets, adaptation):
        """Native records by stage, and under "match" the prewhitened matching
        pass's when the groups are matched on a prewhitened copy; ``budgets``
        by the same keys (None: no bound)."""
        psd_shape = None if self.psd is None else self.psd.shape
        budgets = budgets or {}
        records = {stage: stage_parameters(profile, stage, self.z.shape, noise_std=self.unit,
                                           psd_shape=psd_shape, budget=budgets.get(stage),
                                           adaptation=adaptation) for stage in run}
        if adaptation.prewhiten:
            records["match"] = stage_parameters(profile, 0, self.z.shape,
                                                noise_std=self.unit * adaptation.match_std,
                                                budget=budgets.get("match"),
                                                adaptation=adaptation, matching=True)
        return records

    def native_psd(self):
        """White noise is the one-value PSD sigma^2 (the record's psd_size (1, 1, 1))."""
        if self.psd is not None:
            return self.psd
        return np.full((1, 1, 1), self.unit * self.unit, dtype=np.float32)


def _restore(channel, result, normalize):
    """The stages' result back in the data's units, in place; never non-finite."""
    if normalize:
        result *= channel.scale if np.ndim(channel.scale) else np.float32(channel.scale)
        result += np.float32(channel.offset)
    bad = result.size - np.count_nonzero(np.isfinite(result))
    if bad:
        raise FloatingPointError(
            f"the stages produced {bad} non-finite values; the data's range or the noise "
            f"description is beyond what single precision carries (check sigma/psd and outliers)")
    return result


def _prewhitened_groups(channel, noisy, record, reporter, label_suffix, whitened=None):
    """Groups matched on a prewhitened copy of ``noisy`` (stage units), for
    both stages to replay; the pass's own estimate is discarded. ``whitened``:
    that copy and its noise std, when the caller has them."""
    whitened, std = prewhiten(noisy, channel.psd) if whitened is None else whitened
    groups = StageMatches(noisy.shape, record)
    scratch = np.zeros(noisy.shape, dtype=np.float32)
    white = np.full((1, 1, 1), std * std, dtype=np.float32)
    groups.rows = _run_stage(0, whitened, white, record, None, scratch, groups.native(), reporter,
                             _MATCH_LABEL + label_suffix)
    groups.filled = True
    return groups


def check_levels(z, sigma, psd, scale=None, pilot=None, where=""):
    """Warns (NoiseLevelWarning) where the noise the call is told of is not
    the noise ``z`` shows: ``sigma`` (or the PSD's, or that of a sigma map
    ``scale`` that z is divided by) against the finest scale, and a pilot
    against z. Callers skip it under stabilisers (``_LEVEL_CHECKED``), which
    check their own level."""
    if scale is not None:
        check_noise_level(z, 1.0, f"The sigma map{where}, which should leave noise of std 1 "
                          f"in the data divided by it,", _MAP_ADVICE, scale=scale)
        return
    if pilot is not None:
        check_pilot(z, pilot, sigma if psd is None else psd_sigma(psd), f"The pilot{where}")
    if psd is None:
        check_noise_level(z, sigma, f"sigma={sigma:.3g}{where}", _LEVEL_ADVICE)
        return
    level = haar_detail_std(psd, sum(n > 1 for n in z.shape))
    check_noise_level(z, level, f"The PSD's noise at the finest scale, {level:.3g}{where},",
                      _PSD_ADVICE)


def _denoise(channel, records, run, matches, reporter, normalize, label_suffix="", whitened=None):
    z = channel.z
    if needs_copy(z, normalize):
        noisy = _to_float32(z, channel.offset, channel.scale)
    else:
        noisy = z
    pilot = None
    if channel.pilot is not None:
        pilot = _to_float32(channel.pilot, channel.offset, channel.scale)
    result = None
    with _native_turn():
        if "match" in records and (matches is None or not matches.recorded["ht"]):
            shared = _prewhitened_groups(channel, noisy, records["match"], reporter, label_suffix,
                                         whitened)
            matches = matches if matches is not None else MatchStorage()
            matches.ht = matches.wiener = shared
        for stage in run:
            if result is not None:
                pilot = result  # the first estimate, still in the stages' units
            record = records[stage]
            stored = None if matches is None else matches.for_stage(stage, z.shape, record)
            result = np.zeros(z.shape, dtype=np.float32)
            rows = _run_stage(stage, noisy, channel.native_psd(), record,
                              pilot if stage == 1 else None, result,
                              None if stored is None else stored.native(), reporter,
                              _STAGE_LABELS[stage] + label_suffix)
            if stored is not None and not stored.filled:
                stored.rows, stored.filled = rows, True
    del pilot, noisy
    return _restore(channel, result, normalize)


def korvo(z, sigma=None, *, psd=None, noise="gaussian", gain=None, offset=None, coils=None,
          profile=None, channel_axis=None, shared_groups=False, stages="both", pilot=None,
          matches=None, progress=False, normalize=True):
    """Denoise a 2-D image or a 3-D volume: additive Gaussian noise (white,
    coloured or of varying level), photon counts or magnitude MRI.

    Parameters
    ----------
    z : array_like, 2-D (rows, columns) or 3-D (slices, rows, columns)
        The noisy data, any real dtype. The last axis is the fastest (x), the
        first of a volume the slowest (z); profile tuples are (x, y, z). With
        ``channel_axis``, one more axis holds channels. A dask array gives a
        lazy dask array of the same chunks, each chunk denoised with a margin
        (docs/big-volumes.md).
    sigma : float, a sequence of floats with ``channel_axis``, or an array
        Standard deviation of white noise (one per channel, or one for all),
        or a per-voxel noise map: an array of z's shape, or broadcastable to
        it (one value per slice, say), for noise whose level varies in space
        (parallel imaging, vignetting). The data are divided by the map,
        denoised as unit white noise and multiplied back, which assumes the
        level varies little over a search window (about a dozen voxels);
        ``korvo.estimate_sigma_map`` gives such a map. With a dask ``z`` the
        map may be a dask array too.
    psd : array_like, 2-D or 3-D, any shape
        Instead of ``sigma``: the noise power spectral density,
        PSD = E|fftn(noise)|^2 over the PSD's own shape (white noise of std s
        on N elements: s*s*N everywhere), resampled to
        ``profile.psd_work_size``. One PSD serves every channel.
    noise : {"gaussian", "poisson-gaussian", "rician"}
        The noise model. "gaussian" (default): additive, described by sigma
        or psd. "poisson-gaussian": photon counts,
        z = gain * Poisson(x / gain) + N(offset, sigma^2) (microscopy,
        low-dose CT); "rician": magnitude MRI from complex Gaussian noise of
        std sigma per channel, with ``coils`` receive coils combined by sum of
        squares (non-central chi). The data are stabilised to white noise of
        unit level, denoised, and brought back by an unbiased inverse
        (:func:`korvo.noise_models.stabilise`, which cites the methods).
        Parameters left out are estimated from the data (from its central
        block for a dask array, whose chunks are then stabilised and brought
        back one by one).
    gain, offset : float or a sequence of floats with ``channel_axis``, optional
        "poisson-gaussian": detector gain (data units per photon) and dark
        level (the Gaussian part's mean), one for all channels or one each.
        With ``gain`` given, ``sigma`` and ``offset`` left out are 0 (no read
        noise, no dark level), not estimated; leave all three out to estimate
        them together.
    coils : int, optional
        "rician": number of receive coils (default 1; one per channel with
        ``channel_axis`` if they differ).
    profile : KORVOProfile, optional
        Tunables; the defaults when omitted.
    channel_axis : int, optional
        Axis of ``z`` that holds channels: an image with channels
        (rows, columns, 3) is ``channel_axis=-1``. Each channel is denoised
        on its own (with ``matches``, the first channel records the groups and
        the others replay them).
    shared_groups : bool, int or "mean"
        With ``channel_axis``: find the groups once and filter every channel
        with them. True: on the first channel; an integer: on that channel
        (the one with the best signal); "mean": on the mean of the channels
        (each divided by its noise level), whose noise is lower. Default
        False: each channel finds its own groups.
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
        the result does not depend on units: korvo(a*z + b, sigma=a*s) equals
        a*korvo(z, sigma=s) + b to float precision. This costs one float32
        working copy. False: a C-contiguous float32 ``z`` reaches the native
        code without any copy; thresholds are still scaled to the noise level,
        but the result then depends slightly on the data's offset, and more
        than slightly (RuntimeWarning) when the data lie over 1e4 noise
        standard deviations from zero; noise levels outside [1e-2, 1e12]
        are refused (the result would not scale with the data).

    Returns
    -------
    numpy.ndarray (dask.array.Array for a dask input)
        The estimate, float32, of z's shape.

    Warns
    -----
    NoiseLevelWarning
        A white-noise sigma (or the finest-scale noise a PSD implies, or
        magnitude MRI's sigma, when given) over three times, or under a
        third of, the noise the data show at the finest scale: a PSD's
        convention mistaken, other units, coloured noise passed as white,
        or data with more noise than the level given. Photon counts mostly
        at or below the model's zero (an offset above the dark level).

    Raises
    ------
    TypeError, ValueError
        Bad inputs, or data beyond the range single precision carries, before
        any native stage runs.
    MemoryError
        The native stages could not allocate their memory (the message says
        how to set ``split_block_extraction``) or start their threads.
    FloatingPointError
        The result holds non-finite values (it is never returned).
    KeyboardInterrupt
        Ctrl-C stops the run within a fraction of a second.
    """
    if profile is None:
        profile = KORVOProfile()
    elif not isinstance(profile, KORVOProfile):
        raise TypeError("profile must be a KORVOProfile")
    if not isinstance(stages, str) or stages not in _STAGES:
        raise ValueError(f"stages must be one of {sorted(_STAGES)}, got {stages!r}")
    if stages == "wiener" and pilot is None:
        raise ValueError("stages='wiener' needs a pilot estimate (pilot=...)")
    if stages != "wiener" and pilot is not None:
        raise ValueError("a pilot is only used with stages='wiener'")
    if matches is not None and not isinstance(matches, MatchStorage):
        raise TypeError("matches must be a MatchStorage")
    if not isinstance(normalize, bool):
        raise TypeError("normalize must be True or False")
    if noise != "gaussian" or (gain, offset, coils) != (None, None, None):
        return _stabilised(z, sigma, psd, noise, dict(gain=gain, offset=offset, coils=coils),
                           pilot, dict(profile=profile, channel_axis=channel_axis,
                                       shared_groups=shared_groups, stages=stages,
                                       matches=matches, progress=progress))
    cores = _cpu_count()  # checked here: the noise models above call korvo again
    if profile.num_threads is not None and profile.num_threads > cores:
        warn_caller(f"num_threads={profile.num_threads} is more than the {cores} cores this "
                    f"process may use: the workers poll for work, so the extra threads only "
                    f"slow the call down (1024 threads on 2 cores took 370 times as long)",
                    RuntimeWarning)
    if chunked.is_dask(z):  # lazily, chunk by chunk
        return chunked.denoise_dask(z, sigma, psd=psd, profile=profile, channel_axis=channel_axis,
                                    shared_groups=shared_groups, stages=stages, pilot=pilot,
                                    matches=matches, progress=progress, normalize=normalize)
    reporter = make_reporter(progress)
    split = check_channels(z, channel_axis)
    leader = check_shared_groups(shared_groups, split)
    z = np.asarray(z)
    sigmas, psd, noise_map = check_noise(sigma, psd, split.count if split.axis is not None else None,
                                         z.shape)
    if noise_map is not None and not normalize:
        raise ValueError("a per-voxel sigma map needs normalize=True (the data are divided by it)")
    if chunked.is_dask(noise_map):  # in memory beside in-memory data
        noise_map = noise_map.compute()
    if pilot is not None:
        pilot = np.asarray(pilot)
        if pilot.shape != z.shape:
            raise ValueError(f"pilot shape {pilot.shape} differs from the data shape {z.shape}")
    run = _STAGES[stages]

    # Every channel is checked, and its records built, before any stage runs.
    channels = [_Channel(split.view(z, i), sigmas[i], psd,
                         None if pilot is None else split.view(pilot, i), normalize,
                         None if noise_map is None else split.view(noise_map, i))
                for i in range(split.count)]
    check_psd_rank(psd, channels[0].z.shape)
    adaptation = PSDAdaptation.of(profile, channels[0].z.shape, psd, channels[0].z,
                                  keep_block=matches is not None)
    stored = shared_group_bytes(profile, channels[0].z.shape, adaptation)
    budget = _budget(profile, channels[0].z, normalize,
                     None if split.axis is None else split.count, stored)
    plans = [channel.records(profile, run, budget, adaptation) for channel in channels]
    if budget is not None:  # the bands are ours to choose, not the profile's
        check_limit(profile.memory_limit, plans[0], channels[0].z.size,
                    needs_copy(channels[0].z, normalize),
                    None if split.axis is None else split.count, _native, stored)
    if not _LEVEL_CHECKED.get():
        for i, channel in enumerate(channels):
            check_levels(channel.z, sigmas[i], psd,
                         channel.scale if noise_map is not None else None, channel.pilot,
                         "" if split.axis is None else f" (channel {i})")

    if split.axis is None:
        return _denoise(channels[0], plans[0], run, matches, reporter, normalize)
    order = list(range(split.count))
    if leader is not None:
        matches = matches if matches is not None else MatchStorage()
        if leader == "mean":
            mean = _mean_channel(channels, normalize)
            _denoise(mean, mean.records(profile, run, budget, adaptation), run, matches, reporter,
                     normalize, " [channel mean, groups only]")
        else:  # the leading channel records the groups, the others replay them
            order.insert(0, order.pop(leader))
    out = np.empty(z.shape, dtype=np.float32)
    for i in order:
        split.view(out, i)[...] = _denoise(channels[i], plans[i], run, matches, reporter,
                                           normalize, f" [channel {i + 1}/{split.count}]")
    return out


def _mean_channel(channels, normalize):
    """The channels' mean, each in units of its noise level, as a channel of its
    own: the groups found on it serve every channel."""
    count = len(channels)

    def mean_of(arrays):
        total = np.zeros(channels[0].z.shape, dtype=np.float32)
        for channel, a in zip(channels, arrays):
            # Unnormalised channels keep their units: divided here, so that
            # one in larger units does not outweigh the others.
            total += _to_float32(a, channel.offset, channel.scale if normalize else channel.unit)
        return total / count

    # Independent noise of unit level in every channel.
    level = float(np.sqrt(count)) / count
    first = channels[0]
    scaled_psd = None if first.psd is None else first.psd * (level / first.unit) ** 2
    # A Wiener-only call matches on the mean: its pilot is the pilots' mean.
    pilot = None if first.pilot is None else mean_of(c.pilot for c in channels)
    return _Channel(mean_of(c.z for c in channels), level, scaled_psd, pilot, normalize)


def _stabilised(z, sigma, psd, model, extra, pilot, options):
    """Non-Gaussian noise: each channel stabilised to white unit noise, the
    stabilised data denoised, each channel brought back by its inverse."""
    from .noise_models import MODEL_PARAMETERS, MODELS, stabilise

    if model not in MODELS:
        raise ValueError(f"noise must be one of {MODELS}, got {model!r}")
    stray = [name for name, value in extra.items()
             if value is not None and name not in MODEL_PARAMETERS[model]]
    if stray:
        raise ValueError(f"{', '.join(stray)} belong to another noise model than {model!r}")
    if psd is not None:
        raise ValueError(f"psd= describes additive Gaussian noise; noise={model!r} is stabilised "
                         f"to white noise and takes sigma= (or estimates it)")
    if pilot is not None:
        raise ValueError(f"a pilot cannot be combined with noise={model!r}")
    if chunked.is_dask(z):
        given = {name: value for name, value in extra.items() if value is not None}
        return chunked.stabilised_dask(z, model, sigma, given, options)
    split = check_channels(z, options["channel_axis"])
    z = np.asarray(z)

    def per_channel(name, value):  # one value for all channels, or one each
        if value is None or np.ndim(value) == 0:
            return [value] * split.count
        if split.axis is not None and np.shape(value) == (split.count,):
            return list(np.asarray(value).tolist())
        raise ValueError(f"with noise={model!r}, {name} is one number (or one per channel)")

    channel_params = [dict(zip(("sigma", *extra), values)) for values in zip(
        per_channel("sigma", sigma), *(per_channel(n, v) for n, v in extra.items()))]
    stabilised = None if split.axis is None else np.empty(z.shape, dtype=np.float32)
    inverses = []
    for i in range(split.count):
        params = {name: value for name, value in channel_params[i].items()
                  if value is not None or name == "sigma"}
        part, inverse = stabilise(split.view(z, i), model, **params)
        # Estimated parameters give unit noise by construction. Photon counts
        # are not checked: where the counts are near zero their stabilised
        # noise falls far below 1, and dark backgrounds fill most cells.
        if sigma is not None and model == "rician":
            where = "" if split.axis is None else f" (channel {i})"
            check_noise_level(part, 1.0, f"The stabilised noise level, 1 (rician with sigma "
                              f"given){where},", "Check sigma's units, or leave it out to "
                              "estimate it from the data")
        if stabilised is None:
            stabilised = part
        else:
            split.view(stabilised, i)[...] = part
        del part
        inverses.append(inverse)
    token = _LEVEL_CHECKED.set(True)
    try:
        out = korvo(stabilised, 1.0, **options)
    finally:
        _LEVEL_CHECKED.reset(token)
    del stabilised  # the inverses run in place on the result
    for i, inverse in enumerate(inverses):
        inverse(split.view(out, i), out=split.view(out, i))
    return out
