#!/usr/bin/env python3
"""Speed and memory at scale: the figures of the README's "Big volumes" tables.

Volumes are real: the T1-weighted MNI template that nilearn ships
(bench/datasets.py), centre-cropped, or mirrored at its borders where a size
exceeds it (256^3, 512^3). Noise: white, std 0.1 on the [0, 1] scale. Every
ratio is taken from figures measured in the same run; memory is the peak
resident memory a call adds (korvo.memory.measure_peak), in multiples of the
volume's float32 bytes.

    python bench/scale.py speed          # ~1 Mvoxel: 1 and 2 threads, scikit-image NLM, in rounds
    python bench/scale.py sizes          # 64^3 .. 256^3 in memory, 1 thread and all threads
    python bench/scale.py big [--size N] # 512^3 from a .npy on disk through dask, to a .npy
    python bench/scale.py dask           # the dask path against the in-memory call
    python bench/scale.py breakdown      # where a call's peak memory goes, by the package's estimate
"""

from __future__ import annotations

import argparse
import os
import resource
import subprocess
import sys
import tempfile
import time

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import datasets  # noqa: E402

import korvo  # noqa: E402
from korvo.memory import measure_peak  # noqa: E402

SIGMA = 0.1
VOLUME = "mri_t1_mni"


def volume(size):
    """A real volume of size^3 voxels: the centre crop, mirrored where too small."""
    full, _ = datasets.load(VOLUME, crop=None)
    while min(full.shape) < size:
        full = np.pad(full, [(0, max(0, min(n, size - n))) for n in full.shape], mode="symmetric")
    return np.ascontiguousarray(datasets.center_crop(full, size))


def noisy(clean, seed=0):
    rng = np.random.default_rng(seed)
    return (clean + SIGMA * rng.standard_normal(clean.shape, dtype=np.float32)).astype(np.float32)


def timed(function, *args, **kwargs):
    """-> (result, seconds, peak added bytes)."""
    started = time.perf_counter()
    result, added = measure_peak(function, *args, **kwargs)
    return result, time.perf_counter() - started, added


def psnr(estimate, clean):
    return 10 * np.log10(1.0 / np.mean((np.asarray(estimate, np.float64) - clean) ** 2))


def speed(args):
    """Rounds of one call each on 1 and 2 threads and of non-local means, in
    turn, so that the machine's drift reaches all three alike; medians, and
    the ratios taken round by round."""
    from skimage.restoration import denoise_nl_means

    clean = volume(args.size)
    z = noisy(clean)
    korvo.korvo(z[:24, :24, :24].copy(), SIGMA)  # first-call imports stay out of the figures
    calls = [(f"korvo, {threads} thread{'s' * (threads > 1)}", korvo.korvo, (z, SIGMA),
              {"profile": korvo.KORVOProfile(num_threads=threads, memory_limit=args.memory_limit)})
             for threads in (1, 2)]
    calls.append(("scikit-image non-local means", denoise_nl_means, (z,),
                  {"h": 0.8 * SIGMA, "sigma": SIGMA, "patch_size": 5, "patch_distance": 5,
                   "fast_mode": True}))
    seconds = np.zeros((args.repeat, len(calls)))
    quality = []
    for r in range(args.repeat):
        for c, (_, function, positional, keywords) in enumerate(calls):
            out, seconds[r, c], _ = timed(function, *positional, **keywords)
            if r == 0:
                quality.append(psnr(out, clean))
    print(f"{VOLUME} {z.shape}, {z.size / 1e6:.2f} Mvoxel, noise std {SIGMA}, "
          f"{args.repeat} rounds\n")
    print("| call | seconds (median, min-max) | PSNR (dB) |\n|---|---|---|")
    for (name, *_), column, value in zip(calls, seconds.T, quality):
        print(f"| {name} | {np.median(column):.2f} ({column.min():.2f}-{column.max():.2f}) "
              f"| {value:.2f} |")
    one, two, nlm = seconds.T
    print(f"\nspeed-up 1 -> 2 threads: {np.median(one / two):.2f}x; non-local means / korvo "
          f"(2 threads): {np.median(nlm / two):.1f}x (medians of the rounds' ratios)")


def sizes(args):
    cores = korvo.profile._cpu_count()
    print("| volume | threads | bands (x, y, z) | seconds | peak memory |\n|---|---|---|---|---|")
    for size in args.sizes:
        for threads in sorted({1, cores}):
            # A fresh process each, whose allocator hands every large buffer back
            # when it is freed: otherwise memory an earlier step freed and kept
            # would hide part of the call's own peak.
            env = dict(os.environ, MALLOC_MMAP_THRESHOLD_="65536", MALLOC_TRIM_THRESHOLD_="65536")
            subprocess.run([sys.executable, __file__, "one", str(size), str(threads)], env=env,
                           check=True)


def one(args):
    z = noisy(volume(args.size))
    korvo.korvo(z[:24, :24, :24].copy(), SIGMA)
    profile = korvo.KORVOProfile(num_threads=args.threads)
    split = profile.resolve(z.shape)["wiener"].split_block_extraction
    _, seconds, peak = timed(korvo.korvo, z, SIGMA, profile=profile)
    bands = "".join("T" if s else "F" for s in split)
    print(f"| {args.size}^3 | {args.threads} | {bands} | {seconds:.1f} | "
          f"{peak / (4 * z.size):.2f}x |", flush=True)


def big(args):
    import dask
    import dask.array as da

    size, chunk = args.size, args.chunk
    with tempfile.TemporaryDirectory(dir=args.tmp) as folder:
        source, target = os.path.join(folder, "noisy.npy"), os.path.join(folder, "denoised.npy")
        np.save(source, noisy(volume(size)))
        z = da.from_array(np.load(source, mmap_mode="r"), chunks=chunk)
        out = np.lib.format.open_memmap(target, mode="w+", dtype=np.float32, shape=z.shape)
        started = time.perf_counter()
        with dask.config.set(scheduler="threads"):
            _, driver = measure_peak(da.store, korvo.korvo(z, SIGMA), out)
        seconds = time.perf_counter() - started
        korvo.chunked._WORKERS.close()
        worker = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss * 1024
        workers = korvo.profile._cpu_count()
        total = driver + workers * worker
        print(f"{size}^3 ({z.size / 1e6:.0f} Mvoxel) in chunks of {chunk}^3 from .npy on disk to "
              f".npy on disk, {workers} worker processes: {seconds:.0f} s; driver peak added "
              f"{driver / 2**20:.0f} MiB, largest worker process {worker / 2**20:.0f} MiB "
              f"(interpreter included); in all at most {total / 2**20:.0f} MiB, "
              f"{total / (4 * z.size):.2f}x the volume's float32 bytes")


def compare_dask(args):
    import dask
    import dask.array as da

    clean = volume(args.size)
    z = noisy(clean)
    chunks = (args.size // 2, args.size, args.size)
    whole, seconds, _ = timed(korvo.korvo, z, SIGMA)
    with dask.config.set(scheduler="threads"):
        lazy = korvo.korvo(da.from_array(z, chunks=chunks), SIGMA)
        lazy.compute()  # worker processes started
        started = time.perf_counter()
        chunked = lazy.compute()
        chunked_seconds = time.perf_counter() - started
    print(f"{args.size}^3 in chunks of {chunks}: in memory {seconds:.1f} s, dask "
          f"{chunked_seconds:.1f} s (ratio {chunked_seconds / seconds:.2f}); largest difference "
          f"{np.max(np.abs(chunked - whole)):.2e} (data range 1)")


def breakdown(args):
    """The package's own estimate of each stage's peak (it counts whole
    allocations), in multiples of the volume's float32 bytes: the volumes the
    call holds (working copy, pilot, result), the block collections and the
    rest of the native working memory (weights, noise tables, group buffers)."""
    from korvo import _native
    from korvo.memory import CALL_OVERHEAD, held_bytes

    volume_bytes = 4 * args.size ** 3
    held = held_bytes(args.size ** 3, True)  # the working copy, the stage's pilot and output
    print("| threads | stage | bands (x, y, z) | held | collections | other | total |\n"
          "|---|---|---|---|---|---|---|")
    for threads in sorted({1, korvo.profile._cpu_count()}):
        records = korvo.KORVOProfile(num_threads=threads).resolve((args.size,) * 3)
        for stage, key in enumerate(("ht", "wiener")):
            record = records[key]
            parts = [(held[stage] - CALL_OVERHEAD) / volume_bytes,
                     _native.collection_bytes(record, stage) / volume_bytes,
                     _native.working_bytes(record, stage) / volume_bytes]
            bands = "".join("T" if s else "F" for s in record.split_block_extraction)
            print(f"| {threads} | {key} | {bands} | " + " | ".join(f"{p:.2f}" for p in parts) +
                  f" | {sum(parts):.2f} |")


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    sub = parser.add_subparsers(dest="what", required=True)
    p = sub.add_parser("speed")
    p.add_argument("--size", type=int, default=100)
    p.add_argument("--repeat", type=int, default=5, help="rounds")
    p.add_argument("--memory-limit", type=float, default=None,
                   help="profile.memory_limit in bytes (default: the package's)")
    p.set_defaults(run=speed)
    p = sub.add_parser("sizes")
    p.add_argument("--sizes", type=int, nargs="+", default=[64, 128, 256])
    p.set_defaults(run=sizes)
    p = sub.add_parser("one")  # one line of "sizes", in its own process
    p.add_argument("size", type=int)
    p.add_argument("threads", type=int)
    p.set_defaults(run=one)
    p = sub.add_parser("big")
    p.add_argument("--size", type=int, default=512)
    p.add_argument("--chunk", type=int, default=256)
    p.add_argument("--tmp", default=None, help="folder for the two .npy files")
    p.set_defaults(run=big)
    p = sub.add_parser("dask")
    p.add_argument("--size", type=int, default=160)
    p.set_defaults(run=compare_dask)
    p = sub.add_parser("breakdown")
    p.add_argument("--size", type=int, default=100)
    p.set_defaults(run=breakdown)
    args = parser.parse_args(argv)
    args.run(args)


if __name__ == "__main__":
    main()
