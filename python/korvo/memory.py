"""Memory the machine has, and the band splitting of block collections it allows."""

from __future__ import annotations

import os

__all__ = ["available_memory", "choose_split", "split_budget", "SPLIT_ADVICE"]

SPLIT_ADVICE = ("set profile.split_block_extraction = [False, False, True], or if that still "
                "fails [False, True, True]")


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


def split_budget(buffer_bytes):
    """Bytes the block collections of one stage may take: half of what is left
    after the call's own buffers; None when the machine does not say."""
    free = available_memory()
    return None if free is None else max(0, (free - buffer_bytes) // 2)


def choose_split(record, stage, budget, native):
    """Block collections for the whole volume or for bands along the slowest
    axis, whichever needs less memory (bands cost no measurable time: each
    worker slides its own along its slices); more splitting only when that
    does not fit in ``budget`` bytes. ``record`` is the stage's native record,
    its split flags are overwritten."""
    plane = record.image_size[2] == 1
    whole = (False, False, False)
    options = [(False, True, False), (True, True, False)] if plane else [
        (False, False, True), (False, True, True)]

    def cost(split):
        record.split_block_extraction = split
        return native.collection_bytes(record, stage)

    first = min((whole, options[0]), key=cost)
    choice = options[-1]
    for split in (first, *options):
        if budget is None or cost(split) <= budget:
            choice = split
            break
    record.split_block_extraction = choice
    return choice
