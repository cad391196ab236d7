#!/usr/bin/env python3
"""Compare korvo with scikit-image's denoisers on volumes with white and coloured noise.

Volumes: the package's synthetic phantom and real MRI volumes that nibabel
ships with its test data (no network access needed). Noise: white Gaussian,
and coloured (white noise filtered by [1, 2, 1]/sqrt(6) along x, so that
neighbouring columns are correlated), both of the same standard deviation.

korvo runs with its defaults and the true noise model (sigma, or the PSD for
coloured noise). The scikit-image denoisers (non-local means, total variation,
wavelet shrinkage) get the true standard deviation, and their main parameter
is tuned by oracle over a small grid (the best PSNR is reported), which
favours them. Reported per method: PSNR and SSIM against the clean volume,
wall-clock seconds of the best setting, and the peak memory the call added to
the process (resident set size sampled every few milliseconds).

    python bench/compare.py            # markdown table on stdout
    python bench/compare.py --quick    # phantom only, white noise
"""

from __future__ import annotations

import argparse
import os
import sys
import time

import numpy as np

import korvo
from korvo.memory import measure_peak

KERNEL = np.array([[[1.0, 2.0, 1.0]]]) / np.sqrt(6.0)


def measure(function):
    """-> (result, seconds, peak added resident memory in bytes)."""
    started = time.perf_counter()
    result, peak = measure_peak(function)
    return result, time.perf_counter() - started, peak


def normalise(a):
    a = np.asarray(a, dtype=np.float64)
    lo, hi = np.percentile(a, [0.5, 99.5])
    return np.clip((a - lo) / (hi - lo), 0.0, 1.0)


def volumes(quick):
    out = {"phantom 48x96x96": korvo.phantom((48, 96, 96)).astype(np.float64)}
    if quick:
        return out
    try:
        import nibabel as nib
    except ImportError:
        print("nibabel not installed: real volumes skipped", file=sys.stderr)
        return out
    data = os.path.join(os.path.dirname(nib.__file__), "tests", "data")
    epi = np.asarray(nib.load(os.path.join(data, "example4d.nii.gz")).dataobj)[..., 0]
    anat = np.asarray(nib.load(os.path.join(data, "anatomical.nii")).dataobj)
    out["EPI 24x96x128 (nibabel)"] = normalise(epi.T)
    out["T1 25x41x33 (nibabel)"] = normalise(anat.T)
    return out


def metrics(estimate, clean):
    from skimage.metrics import structural_similarity

    mse = np.mean((estimate - clean) ** 2)
    psnr = 10 * np.log10(1.0 / mse)
    ssim = structural_similarity(clean, np.asarray(estimate, np.float64), data_range=1.0)
    return psnr, ssim


def competitors(sigma):
    from skimage.restoration import denoise_nl_means, denoise_tv_chambolle, denoise_wavelet

    return {
        "non-local means": [
            (f"h={f:g}sigma", lambda z, f=f: denoise_nl_means(
                z, h=f * sigma, sigma=sigma, patch_size=5, patch_distance=5, fast_mode=True))
            for f in (0.4, 0.6, 0.8, 1.0)],
        "total variation": [
            (f"weight={w:g}", lambda z, w=w: denoise_tv_chambolle(z, weight=w))
            for w in (0.25 * sigma, 0.5 * sigma, sigma, 2 * sigma)],
        "wavelet": [
            (f"{mode}", lambda z, mode=mode: denoise_wavelet(
                z, sigma=sigma, wavelet="db2", mode=mode, method="BayesShrink", rescale_sigma=True))
            for mode in ("soft", "hard")],
    }


def run(quick, sigma, seed):
    rng = np.random.default_rng(seed)
    rows = []
    noises = ("white",) if quick else ("white", "coloured")
    for name, clean in volumes(quick).items():
        for kind in noises:
            if kind == "white":
                noisy = clean + sigma * rng.standard_normal(clean.shape)
                model = dict(sigma=sigma)
            else:
                noisy = clean + korvo.coloured_noise(KERNEL, clean.shape, sigma, rng)
                model = dict(psd=korvo.psd_from_kernel(KERNEL, (16, 16, 16), sigma))
            psnr0, ssim0 = metrics(noisy, clean)
            rows.append((name, kind, "noisy input", "", psnr0, ssim0, 0.0, 0))
            estimate, seconds, memory = measure(lambda: korvo.korvo(noisy, **model))
            rows.append((name, kind, "korvo", "defaults", *metrics(estimate, clean), seconds, memory))
            for method, settings in competitors(sigma).items():
                best = None
                for label, function in settings:
                    estimate, seconds, memory = measure(lambda: function(noisy))
                    psnr, ssim = metrics(estimate, clean)
                    if best is None or psnr > best[4]:
                        best = (name, kind, method, label, psnr, ssim, seconds, memory)
                rows.append(best)
            print(f"done: {name}, {kind} noise", file=sys.stderr)
    return rows


def table(rows, sigma):
    lines = [f"Noise standard deviation {sigma:g} (volumes scaled to [0, 1]); "
             f"{korvo.KORVOProfile().num_threads or os.cpu_count()} threads available.",
             "",
             "| volume | noise | method | setting | PSNR (dB) | SSIM | seconds | peak memory (MiB) |",
             "|---|---|---|---|---:|---:|---:|---:|"]
    for name, kind, method, label, psnr, ssim, seconds, memory in rows:
        lines.append(f"| {name} | {kind} | {method} | {label} | {psnr:.2f} | {ssim:.3f} | "
                     f"{seconds:.2f} | {memory / 2**20:.0f} |")
    return "\n".join(lines)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="phantom only, white noise")
    parser.add_argument("--sigma", type=float, default=0.1)
    parser.add_argument("--seed", type=int, default=0)
    args = parser.parse_args(argv)
    try:
        import skimage  # noqa: F401
    except ImportError:
        sys.exit("the comparison needs scikit-image: pip install 'korvo[bench]'")
    print(table(run(args.quick, args.sigma, args.seed), args.sigma))


if __name__ == "__main__":
    main()
