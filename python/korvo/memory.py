"""Memory: what the machine has, the working memory a call aims at, the band
splitting of block collections that keeps it there, and a measurement of the
peak memory a call adds."""

from __future__ import annotations

import os
import sys
import threading
import time

from .validation import warn_caller

__all__ = ["available_memory", "check_limit", "choose_split", "measure_peak", "MEMORY_TARGET",
           "SPLIT_ADVICE", "stage_budgets"]

SPLIT_ADVICE = ("set profile.split_block_extraction = [False, False, True], or if that still "
                "fails [False, True, True]")

# Peak working memory of a call on the defaults, in multiples of the volume's
# float32 bytes: the data's working copy, the pilot and the result take three;
# the block collections and the rest of the stages' working memory get what is left.
MEMORY_TARGET = 6

# What the interpreter and the worker threads add during a call besides what
# the estimate counts: measured at up to 160 KiB over it (80x88x96, two threads).
CALL_OVERHEAD = 256 * 1024


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


def needs_copy(z, normalize):
    """Whether a call's stages need a float32 working copy of the array z."""
    return normalize or z.dtype != "float32" or not z.flags.c_contiguous


def held_bytes(voxels, copy, channels=None):
    """Bytes a call holds beside each stage's native working memory, by record
    key: its working copy of the data (``copy``), the result of all
    ``channels`` (a count: the call has a channel axis), and float32 volumes
    of its own: the hard-thresholding stage its output (the pilot to be), the
    Wiener stage the pilot and its result, the matching pass on a prewhitened
    copy ("match") that copy and its scratch output; and CALL_OVERHEAD."""
    volume = 4 * voxels
    held = 0 if channels is None else volume * channels
    volumes = {0: 1, 1: 2, "match": 2}
    return {key: held + volume * (int(copy) + n) + CALL_OVERHEAD for key, n in volumes.items()}


def stage_budgets(voxels, copy, channels=None, limit=None, stored=0):
    """Bytes each stage's native working memory (block collections, weights,
    noise tables) may take in a call on ``voxels`` voxels, by record key:
    ``limit`` bytes for the whole call (None: MEMORY_TARGET times the
    volume's float32 bytes), never more than the machine has free, less what
    the call holds meanwhile (``held_bytes``), and less ``stored`` bytes of
    match lists held throughout when the caller set the limit (they alone
    pass the default target, which fewer threads would not reach either)."""
    total = MEMORY_TARGET * 4 * voxels if limit is None else limit - stored
    free = available_memory()
    if free is not None:
        total = min(total, free - stored)
    return {key: max(0, total - held) for key, held in held_bytes(voxels, copy, channels).items()}


def stage_bytes(record, stage, native):
    """Native working memory of a stage run by ``record``: its block collections and the rest."""
    return native.collection_bytes(record, stage) + native.working_bytes(record, stage)


def check_limit(limit, records, voxels, copy, channels, native, stored=0):
    """Warns (RuntimeWarning) when a ``memory_limit`` the caller set is below the
    peak the call is estimated to reach even with the bands and threads that
    need least, as chosen for ``records`` (by key, as ``held_bytes``), with
    ``stored`` bytes of match lists held throughout. The estimate counts whole
    allocations, so it errs high."""

    if limit is None:
        return
    held = held_bytes(voxels, copy, channels)
    need = max(held[key] + stored + stage_bytes(record, 1 if key == 1 else 0, native)
               for key, record in records.items())
    if need > limit:
        warn_caller(f"memory_limit={limit:.4g} bytes is below the least this call is "
                    f"estimated to take at its peak, about {need:.4g} bytes (with the bands "
                    f"and threads that need least); it goes on", RuntimeWarning)


def choose_split(record, stage, budget, native):
    """The fastest band splitting whose native working memory fits ``budget``
    bytes (None: no bound), else the one that needs least. Fastest first: the
    whole volume or bands along the slowest axis, whichever needs less
    (slabs cost no measurable time: each worker slides its own along its
    slices), then bands along the two slowest axes, then along all three
    (every new row of reference positions then fills its band afresh).
    Where even that exceeds the budget, fewer worker threads run the stage,
    each keeping its own bands. ``record`` is the stage's native record; its
    split flags (and thread count) are overwritten."""
    plane = record.image_size[2] == 1
    whole = (False, False, False)
    options = [(False, True, False), (True, True, False)] if plane else [
        (False, False, True), (False, True, True), (True, True, True)]

    def cost(split):
        record.split_block_extraction = split
        return stage_bytes(record, stage, native)

    first = min((whole, options[0]), key=cost)
    choice = min(options, key=cost)
    for split in (first, *options[1:]):
        if budget is None or cost(split) <= budget:
            choice = split
            break
    record.split_block_extraction = choice
    while budget is not None and record.num_threads > 1 and cost(choice) > budget:
        record.num_threads -= 1
    return choice


def _libc_trim():
    try:
        import ctypes
        return ctypes.CDLL("libc.so.6").malloc_trim
    except (OSError, AttributeError):  # not glibc
        return None


_TRIM = _libc_trim() if sys.platform.startswith("linux") else None


def release_freed():
    """Hands memory the allocator keeps after frees back to the system (glibc),
    before and after each stage: a stage's worker threads free their blocks in
    arenas of their own, which would otherwise stay resident while the next
    stage allocates afresh; and buffers freed before the call, which the
    stage's threads cannot reuse, would stay resident under its own."""
    if _TRIM is not None:
        _TRIM(0)


def _status(field):
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith(field):
                return int(line.split()[1]) * 1024
    raise OSError(field)


def measure_peak(function, *args, **kwargs):
    """Runs ``function(*args, **kwargs)`` and returns ``(result, bytes)``: the
    largest resident memory of the process during the call less that before
    it. On Linux the kernel's own high-water mark is reset and read (exact);
    elsewhere the resident size is sampled every few milliseconds (psutil)."""
    try:
        with open("/proc/self/clear_refs", "w") as f:
            f.write("5")  # resets the peak resident size to the current one
        base = _status("VmRSS:")
        result = function(*args, **kwargs)
        return result, _status("VmHWM:") - base
    except OSError:
        pass
    import psutil
    process = psutil.Process()
    base = process.memory_info().rss
    peak = [base]
    running = threading.Event()
    running.set()

    def sample():
        while running.is_set():
            peak[0] = max(peak[0], process.memory_info().rss)
            time.sleep(0.002)

    sampler = threading.Thread(target=sample, daemon=True)
    sampler.start()
    try:
        result = function(*args, **kwargs)
    finally:
        running.clear()
        sampler.join()
    return result, max(peak[0], process.memory_info().rss) - base
