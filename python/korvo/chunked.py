"""Dask arrays: every chunk denoised with a margin, lazily, on a reference grid
aligned with the whole array's, so that a chunk's estimate is the in-memory one.

A stage's estimate of one voxel reads the data within ``block - 1 + 2 *
search_window`` voxels along each axis (the references whose blocks cover it,
and the candidates of those references' search windows); the Wiener stage also
reads the first stage's estimate over its own reach, so the margins of the
stages that run add up. A chunk's expanded region starts at a multiple of the
steps (its reference grid is then the whole array's) and ends a margin past
the chunk, which keeps the region's own last reference, and the search
windows it cuts short, away from the chunk. dask is imported only here.
"""

from __future__ import annotations

import atexit
import math
import multiprocessing
import os
import pickle
import subprocess
import sys
import threading

import numpy as np

from .noise import (_FLAT_BLOCK, Flatness, NonFiniteError, flat_block_counts, prewhiten,
                    whitening_reach)
from .profile import STAGE_KEYS, KORVOProfile, PSDAdaptation, _cpu_count, stage_parameters
from .progress import make_reporter
from .validation import check_noise, check_psd_rank

__all__ = ["is_dask", "chunk_margin", "denoise_dask", "stabilised_dask", "central_block"]

# Largest extent per axis that the margins are worked out on (1024^3 voxels
# fit the library's record).
_GEOMETRY_EXTENT = 1024


def is_dask(a):
    """Whether ``a`` is a dask array (without importing dask)."""
    return type(a).__module__.split(".")[0] == "dask" and hasattr(a, "chunks") \
        and hasattr(a, "dask")


def _array_axes(xyz, ndim):
    """An (x, y, z) tuple in the array's axis order."""
    return tuple(xyz[:ndim][::-1])


def chunk_margin(shape, profile=None, stages="both", psd=None):
    """Margin and alignment per array axis for chunked denoising.

    Returns ``(margin, align)``: a chunk is denoised over a region that
    reaches at least ``margin`` voxels beyond it on each side (clipped at the
    array's ends) and starts at a multiple of ``align`` (the steps of the
    stages that run). Chunks well above the margin waste less work. ``psd``:
    the call's noise PSD, which can choose a larger block.
    """
    profile = KORVOProfile() if profile is None else profile
    shape = tuple(int(n) for n in shape)
    margin, align = [0] * len(shape), [1] * len(shape)
    from .denoise import _STAGES

    # The geometry depends on the shape only through plane or volume and the
    # windows narrowed to the extents, so a capped shape serves arrays beyond
    # the library's voxel limit.
    capped = tuple(min(n, _GEOMETRY_EXTENT) for n in shape)
    adaptation = PSDAdaptation.geometry(profile, capped, psd)
    for stage in _STAGES[stages]:
        record = stage_parameters(profile, stage, capped, adaptation=adaptation)
        reach = [b - 1 + 2 * w for b, w in zip(record.block_size, record.search_window)]
        for axis, (r, s) in enumerate(zip(_array_axes(reach, len(shape)),
                                          _array_axes(record.step, len(shape)))):
            margin[axis] += r
            align[axis] = align[axis] * s // math.gcd(align[axis], s)
    return tuple(margin), tuple(align)


def _refuse_channels(channel_axis, shared_groups):
    if channel_axis is not None or shared_groups is not False:
        raise ValueError("a dask array is denoised as one 2-D or 3-D channel; denoise channels "
                         "one by one (korvo(z[..., i], ...))")


def _refuse_options(matches, progress):
    if matches is not None:
        raise ValueError("matches cannot be recorded or replayed chunk by chunk")
    if progress is not False:
        raise ValueError("progress is dask's with a dask array: "
                         "with dask.diagnostics.ProgressBar(): y.compute()")


def denoise_dask(z, sigma=None, *, psd=None, profile=None, channel_axis=None,
                 shared_groups=False, stages="both", pilot=None, matches=None, progress=False,
                 normalize=True):
    """:func:`korvo.korvo` on a dask array, once it has checked the arguments
    every call shares: a lazy float32 dask array with z's chunks. Each native
    run is single-threaded unless ``profile.num_threads`` says otherwise; the
    chunks run in parallel instead."""
    import dask
    import dask.array as da

    profile = KORVOProfile() if profile is None else profile
    _refuse_channels(channel_axis, shared_groups)  # before the shape: channels add an axis
    if z.ndim not in (2, 3):
        raise ValueError(f"z must be 2-D or 3-D, got {z.ndim} dimensions with shape {z.shape}")
    if any(math.isnan(n) for n in z.shape):
        raise ValueError("z has chunks of unknown size; call z.compute_chunk_sizes() first")
    sigmas, psd, noise_map = check_noise(sigma, psd, None, z.shape)
    check_psd_rank(psd, z.shape)
    _refuse_options(matches, progress)
    if noise_map is not None and not normalize:
        raise ValueError("a per-voxel sigma map needs normalize=True (the data are divided by it)")
    if pilot is not None:
        pilot = da.asarray(pilot)
        if pilot.shape != z.shape:
            raise ValueError(f"pilot shape {pilot.shape} differs from the data shape {z.shape}")
        pilot = pilot.rechunk(z.chunks)
    # Refuses settings the shape cannot run.
    margin, align = chunk_margin(z.shape, profile, stages, psd)
    _check_overlap(z.shape, z.chunks, margin, align)
    if profile.split_block_extraction is None:  # the largest region a chunk's call reads
        _check_region_limit(profile, psd, stages, normalize or z.dtype != np.float32,
                            [_region_extent(n, max(c), m, a) for n, c, m, a
                             in zip(z.shape, z.chunks, margin, align)])
    _check_central_levels(z, sigmas[0], psd, noise_map)

    # One offset for every chunk: the whole array's mean, as the in-memory call takes it.
    # As one delayed value it is computed once; a dask array handed to each
    # chunk's call would be finalized, and the whole array read, per chunk.
    offset = dask.delayed(z.mean(dtype=np.float64)) if normalize else 0.0
    # Whether coloured noise is matched on a prewhitened copy depends on how
    # flat the whole array is: counted chunk by chunk, decided once.
    flat, reach = None, (0,) * z.ndim
    if psd is not None and profile.adapt_to_psd:
        flat = dask.delayed(_flatness)(_flat_counts(z, psd))
        reach = whitening_reach(psd, z.ndim)  # what a region's prewhitened copy reads around it
    threads = profile.num_threads or 1
    settings = dict(sigma=sigmas[0], psd=psd, profile=profile, stages=stages,
                    normalize=normalize, threads=threads)
    starts = [np.cumsum((0,) + c) for c in z.chunks]

    def task(index):
        region, inner, chunk = [], [], []
        for axis, i in enumerate(index):
            c0, c1, n = int(starts[axis][i]), int(starts[axis][i + 1]), z.shape[axis]
            first = max(0, (c0 - margin[axis]) // align[axis] * align[axis])
            region.append(slice(first, min(n, c1 + margin[axis])))
            inner.append(slice(c0 - first, c1 - first))
            chunk.append(c1 - c0)
        region = tuple(region)
        call = dask.delayed(_chunk_task, pure=True)(
            _surround(z, region, reach), None if pilot is None else pilot[region], offset, flat,
            tuple(inner), settings, None if noise_map is None else noise_map[region], reach)
        return da.from_delayed(call, shape=tuple(chunk), dtype=np.float32)

    def nest(prefix):
        axis = len(prefix)
        if axis == z.ndim:
            return task(prefix)
        return [nest(prefix + (i,)) for i in range(len(z.chunks[axis]))]

    return da.block(nest(()))


def _check_central_levels(z, sigma, psd, noise_map):
    """The noise-level checks the chunks' own calls skip, on the chunks that
    hold the central block, computed now (data and map in one pass). A pilot
    that is a dask array is not checked: computing it here would run its
    whole graph there twice. A non-finite sample is the chunks' to report."""
    from .denoise import _LEVEL_CHECKED, check_levels
    if _LEVEL_CHECKED.get():
        return
    sizes = (LEVEL_BLOCK,) * 3 if z.ndim == 3 else (8 * LEVEL_BLOCK,) * 2
    central, scale = central_block([z, noise_map], sizes)
    if np.isfinite(central).all():
        check_levels(central, sigma, psd, scale)


# Chunks whose regions, margins included, add up to more than this many times
# the array are refused: the work and the task graph grow with it (chunks of
# 1 to 3 voxels on a 24^3 to 48^3 volume took minutes and tens of GB).
MAX_OVERLAP = 100


def _region_extent(n, chunk, margin, align):
    """The most a chunk's region spans along an axis of n voxels: the chunk, its
    margin on each side, and the start rounded down to the alignment."""
    return min(n, chunk + 2 * margin + align)


def _check_overlap(shape, chunks, margin, align):
    """Refuse chunks so small that their regions read the array many times over."""
    reads = [sum(_region_extent(n, c, m, a) for c in sizes) / n
             for n, sizes, m, a in zip(shape, chunks, margin, align)]
    if math.prod(reads) > MAX_OVERLAP:
        least = [min(n, 2 * m) for n, m in zip(shape, margin)]
        raise ValueError(f"chunks of {tuple(max(c) for c in chunks)} are too small for the "
                         f"{tuple(margin)}-voxel margins each chunk's call reads around it: "
                         f"the regions would read the array {math.prod(reads):.0f} times; "
                         f"rechunk to larger chunks, such as {tuple(least)}")


def _check_region_limit(profile, psd, stages, copy, shape):
    """The in-memory call's memory_limit warning, for the largest region a
    chunk's call denoises (flat data assumed for the matching pass)."""
    from . import _native
    from .denoise import _STAGES
    from .matches import StageMatches
    from .memory import check_limit

    if profile.memory_limit is None:
        return
    resolved = profile.resolve(shape, psd, normalize=copy)
    records = {stage: resolved[STAGE_KEYS[stage]] for stage in _STAGES[stages]}
    stored = 0
    if "match" in resolved:
        records["match"] = resolved["match"]
        stored = StageMatches.storage_bytes(resolved["match"])
    check_limit(profile.memory_limit, records, math.prod(shape), copy, None, _native, stored)


# Samples per axis of the central block that noise parameters are estimated
# on and noise levels checked on (a volume's; an image's is 512).
LEVEL_BLOCK = 64


def central_block(z, sizes=(LEVEL_BLOCK,) * 3):
    """The block of at least ``sizes`` (64) samples per axis in the middle of a
    dask (or numpy) array, as a numpy array: where noise parameters are
    estimated. Given a list of arrays of one shape (None entries stay None),
    their blocks, computed together on the current scheduler (a distributed
    client's, where one is active)."""
    import dask

    arrays = z if isinstance(z, list) else [z]
    shape = next(a.shape for a in arrays if a is not None)
    key = []
    for n, s in zip(shape, sizes):
        s = min(n, max(int(s), LEVEL_BLOCK))
        key.append(slice((n - s) // 2, (n - s) // 2 + s))
    blocks = [None if a is None else a[tuple(key)] for a in arrays]
    blocks = [None if b is None else np.asarray(b) for b in dask.compute(*blocks)]
    return blocks if isinstance(z, list) else blocks[0]


def stabilised_dask(z, model, sigma, params, options):
    """Photon counts or magnitude MRI on a dask array, lazily. Parameters not
    given are estimated on the central block, each chunk is stabilised on its
    own, the stabilised array is denoised as white noise of std 1 (margins as
    for any dask array) and each chunk is brought back by its inverse: the
    in-memory call's result to float rounding, except that magnitude data's
    inverse takes the lift of the chunk's own background (if it has one)
    rather than the whole volume's."""
    import dask.array as da

    from .noise_models import _block_inverse, stabilise

    _refuse_channels(options.get("channel_axis"), options.get("shared_groups", False))
    _refuse_options(options.get("matches"), options.get("progress", False))
    if z.ndim not in (2, 3):
        raise ValueError(f"z must be 2-D or 3-D, got {z.ndim} dimensions with shape {z.shape}")
    # The central block settles every parameter: each chunk then uses the same.
    central = central_block(z, [max(c) for c in z.chunks])
    try:
        _, inverse = stabilise(central, model, sigma=sigma, **params)
    except ValueError as exc:
        raise ValueError(f"{exc} (estimated on the dask array's central "
                         f"{'x'.join(map(str, central.shape))} block; give the noise "
                         f"parameters to use them everywhere)") from None
    fixed = dict(inverse.params)

    def forward(block):  # the central block's checks spoke for every block
        return stabilise(block, model, check=False, **fixed)[0]

    def backward(denoised, block):
        return _block_inverse(block, inverse)(denoised)

    y = z.map_blocks(forward, dtype=np.float32)
    from .denoise import _LEVEL_CHECKED
    token = _LEVEL_CHECKED.set(True)  # the central block's checks spoke for every block
    try:
        out = denoise_dask(y, 1.0, profile=options.get("profile"),
                           stages=options.get("stages", "both"))
    finally:
        _LEVEL_CHECKED.reset(token)
    return da.map_blocks(backward, out, z, dtype=np.float32)


def _flat_counts(z, psd):
    """The whole array's flat-block counts, chunk by chunk: each chunk counts
    the blocks of the whole array's tiling that start in it, reading them whole."""
    import dask

    block = [min(_FLAT_BLOCK, n) for n in z.shape]
    starts = [np.cumsum((0,) + c) for c in z.chunks]
    counts = []
    for index in np.ndindex(*z.numblocks):
        box = []
        for axis, i in enumerate(index):
            c0, c1, b = int(starts[axis][i]), int(starts[axis][i + 1]), block[axis]
            first = -(-c0 // b) * b
            last = min(-(-c1 // b), z.shape[axis] // b) * b  # complete blocks only
            box.append(slice(first, max(first, last)))
        if all(s.stop > s.start for s in box):
            counts.append(dask.delayed(flat_block_counts)(z[tuple(box)], psd))
    return counts


def _surround(z, region, reach):
    """The region with ``reach`` samples around it on each axis, wrapped
    around at the array's ends as its prewhitening wraps the whole array."""
    index = [slice(r.start - k, r.stop + k) if k <= r.start and r.stop + k <= n
             else np.arange(r.start - k, r.stop + k) % n
             for r, k, n in zip(region, reach, z.shape)]
    part = z[tuple(i if isinstance(i, slice) else slice(None) for i in index)]
    for axis, i in enumerate(index):
        if not isinstance(i, slice):
            part = part[(slice(None),) * axis + (i,)]
    return part


def _flatness(counts):
    *blocks, total = (sum(column) for column in zip(*counts)) if counts else (0, 0, 0)
    return Flatness(*(b / max(1, total) for b in blocks))


def _chunk_task(data, pilot, offset, flat, inner, settings, noise_map=None, reach=None):
    args = (np.asarray(data), None if pilot is None else np.asarray(pilot), float(offset),
            flat, inner, settings, None if noise_map is None else np.asarray(noise_map), reach)
    if _runs_in_place():
        return _denoise_region(*args)
    return _WORKERS.call(args, max(1, _cpu_count() // settings["threads"]))


def _denoise_region(data, pilot, offset, flat, inner, settings, noise_map=None, reach=None):
    """The estimate of one chunk from its expanded region (runs in a worker);
    ``noise_map``: the region's part of a per-voxel noise map. ``data`` holds
    ``reach`` samples around the region on each side: what its prewhitened
    copy reads."""
    from .denoise import _STAGES, _Channel, _budget, _denoise, _to_float32
    from .matches import shared_group_bytes

    reach = (0,) * data.ndim if reach is None else reach
    region = data[tuple(slice(k, n - k) for k, n in zip(reach, data.shape))]

    profile = settings["profile"].copy()
    profile.num_threads = settings["threads"]
    run = _STAGES[settings["stages"]]
    normalize = settings["normalize"]
    if normalize and not math.isfinite(offset):  # a sample elsewhere, read into the mean
        raise NonFiniteError("z contains NaN or infinite samples")
    channel = _Channel(region, settings["sigma"], settings["psd"], pilot, normalize, noise_map)
    if normalize:
        channel.offset = offset
    adaptation = PSDAdaptation.of(profile, region.shape, settings["psd"], flatness=flat)
    stored = shared_group_bytes(profile, region.shape, adaptation)
    records = channel.records(profile, run, _budget(profile, channel.z, normalize, stored=stored),
                              adaptation)
    whitened = None
    if "match" in records:  # as the whole array's copy has it over the region
        stage_units = _to_float32(data, channel.offset, channel.scale)
        whitened = prewhiten(stage_units, channel.psd, surround=True)
    out = _denoise(channel, records, run, None, make_reporter(False), normalize, whitened=whitened)
    return np.ascontiguousarray(out[inner])


def _runs_in_place():
    """True in a dask.distributed worker or any daemonic process: one native
    run per worker process there already."""
    if multiprocessing.current_process().daemon:
        return True
    if "distributed" in sys.modules:
        try:
            sys.modules["distributed"].get_worker()
            return True
        except (ValueError, AttributeError):
            pass
    return False


class _WorkerProcesses:
    """Interpreters that each run one chunk at a time, for the threaded
    scheduler: the library's thread pool takes one driver per process. They
    are started with a plain command line (not multiprocessing) so that a
    caller's script is never imported again, guard or no guard."""

    def __init__(self):
        self._idle = []
        self._live = 0
        self._ready = threading.Condition()
        atexit.register(self.close)

    def call(self, args, size):
        worker = self._take(size)
        try:
            pickle.dump(args, worker.stdin, protocol=pickle.HIGHEST_PROTOCOL)
            worker.stdin.flush()
            ok, value = pickle.load(worker.stdout)
        except (EOFError, OSError, pickle.UnpicklingError):
            self._discard(worker)
            raise RuntimeError(f"a korvo worker process ended unexpectedly (exit code "
                               f"{worker.poll()})") from None
        except BaseException:
            self._discard(worker)
            raise
        with self._ready:
            self._idle.append(worker)
            self._ready.notify()
        if not ok:
            raise value
        return value

    def _take(self, size):
        with self._ready:
            while not self._idle and self._live >= size:
                self._ready.wait()
            if self._idle:
                return self._idle.pop()
            self._live += 1
        try:
            # The package's own parent folder first: the workers import this very copy.
            root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
            env = dict(os.environ, PYTHONPATH=os.pathsep.join(
                [root] + [p for p in [os.environ.get("PYTHONPATH")] if p]))
            return subprocess.Popen([sys.executable, "-c", "from korvo.chunked import _serve; _serve()"],
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=env)
        except BaseException:
            self._discard(None)
            raise

    def _discard(self, worker):
        if worker is not None:
            worker.kill()
            worker.wait()
        with self._ready:
            self._live -= 1
            self._ready.notify()

    def close(self):
        with self._ready:
            idle, self._idle = self._idle, []
        for worker in idle:
            worker.stdin.close()  # the worker's loop ends at end of input
            worker.wait()


def _serve():
    """A worker process's loop: pickled arguments in on stdin, (ok, result or
    exception) out on the original stdout; anything printed goes to stderr."""
    source, sink = sys.stdin.buffer, os.fdopen(os.dup(1), "wb")
    os.dup2(2, 1)
    while True:
        try:
            args = pickle.load(source)
        except EOFError:
            return
        try:
            reply = (True, _denoise_region(*args))
        except BaseException as exc:
            reply = (False, exc)
        try:
            data = pickle.dumps(reply, protocol=pickle.HIGHEST_PROTOCOL)
        except Exception:  # an exception that does not pickle travels as its text
            data = pickle.dumps((False, RuntimeError(repr(reply[1]))))
        sink.write(data)
        sink.flush()


_WORKERS = _WorkerProcesses()
