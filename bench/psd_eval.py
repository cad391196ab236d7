"""How well korvo.spectrum.estimate_psd recovers coloured-noise spectra.

For every volume and noise spectrum: noise of std 0.1 is added to the volume
scaled to [0, 1], the PSD is estimated from the noisy data alone, and the
script prints a markdown table of

- the relative PSD error ||est - true|| / ||true|| on the 16x16x16 work grid,
- the relative error of the implied per-voxel noise std (psd_sigma),
- the PSNR of korvo denoising with the estimated PSD, the true PSD, and the
  white-noise assumption at korvo.estimate_sigma's level.

    python bench/psd_eval.py [--threads 2] [--volumes mri_epi,mri_t1_small,phantom]
"""

from __future__ import annotations

import argparse
import os
import sys
import time

import numpy as np

import korvo
from korvo.noise import coloured_noise, psd_from_kernel, psd_sigma
from korvo.spectrum import estimate_psd

GRID = (16, 16, 16)
SIGMA = 0.1


def _volumes(names):
    sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
    import datasets  # real volumes from installed packages, scaled to [0, 1]

    for name in names:
        if name == "phantom":
            yield name, korvo.phantom((48, 96, 96)).astype(np.float64)
        else:
            yield name, datasets.load(name)[0].astype(np.float64)


def _separable(taps):
    taps = np.asarray(taps, dtype=np.float64)
    kernel = taps[:, None, None] * taps[None, :, None] * taps[None, None, :]
    return kernel / np.sqrt(np.sum(kernel ** 2))


def _kspace_noise(shape, rng):
    """White noise with the outer half of the frequencies along rows removed
    (zero-filled k-space), rescaled to unit variance."""
    keep = _kspace_keep(shape[1])
    spectrum = np.fft.fftn(rng.standard_normal(shape)) * keep[None, :, None]
    return np.fft.ifftn(spectrum).real / np.sqrt(keep.mean())


def _kspace_keep(n):
    return (np.abs(np.fft.fftfreq(n)) < 0.25).astype(np.float64)


def _kspace_psd(shape):
    # The spectral density sampled on the work grid, as psd_from_kernel does.
    along = (np.abs(np.fft.fftfreq(GRID[1])) < 0.25) / _kspace_keep(shape[1]).mean()
    return np.broadcast_to(along[None, :, None], GRID) * np.prod(GRID)


def _spectra():
    x121 = np.array([[[1.0, 2.0, 1.0]]]) / np.sqrt(6.0)
    smooth = _separable([0.5, 1.0, 0.5])
    return {
        "white": (lambda shape, rng: rng.standard_normal(shape),
                  lambda shape: np.full(GRID, float(np.prod(GRID)))),
        "[1,2,1] along x": (lambda shape, rng: coloured_noise(x121, shape, 1.0, rng),
                            lambda shape: psd_from_kernel(x121, GRID)),
        "3x3x3 smoothing": (lambda shape, rng: coloured_noise(smooth, shape, 1.0, rng),
                            lambda shape: psd_from_kernel(smooth, GRID)),
        "half k-space along y": (_kspace_noise, _kspace_psd),
    }


def _denoiser(threads):
    profile = korvo.KORVOProfile(num_threads=threads)
    return lambda z, sigma=None, psd=None: korvo.korvo(z, sigma, psd=psd, profile=profile)


def _psnr(estimate, clean):
    return 10 * np.log10(1.0 / np.mean((np.asarray(estimate, np.float64) - clean) ** 2))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--volumes", default="mri_epi,mri_t1_small,phantom")
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--no-denoise", action="store_true", help="PSD errors only")
    args = parser.parse_args()
    denoise = _denoiser(args.threads)
    print("| volume | noise | PSD error | sigma error | PSNR noisy | est. PSD | true PSD "
          "| white, est. sigma | estimate s |")
    print("|---|---|---|---|---|---|---|---|---|")
    for vname, clean in _volumes(args.volumes.split(",")):
        for seed, (sname, (noise, true)) in enumerate(_spectra().items()):
            rng = np.random.default_rng(seed)
            noisy = clean + SIGMA * noise(clean.shape, rng)
            true_psd = true(clean.shape) * SIGMA ** 2
            start = time.perf_counter()
            est = estimate_psd(noisy)
            seconds = time.perf_counter() - start
            error = np.linalg.norm(est - true_psd) / np.linalg.norm(true_psd)
            sigma_error = psd_sigma(est) / psd_sigma(true_psd) - 1
            row = [vname + " " + "x".join(map(str, clean.shape)), sname, f"{error:.3f}",
                   f"{sigma_error:+.3f}", f"{_psnr(noisy, clean):.2f}"]
            if args.no_denoise:
                row += ["", "", ""]
            else:
                row += [f"{_psnr(denoise(noisy, psd=est), clean):.2f}",
                        f"{_psnr(denoise(noisy, psd=true_psd), clean):.2f}",
                        f"{_psnr(denoise(noisy, sigma=korvo.estimate_sigma(noisy)), clean):.2f}"]
            print("| " + " | ".join(row + [f"{seconds:.2f}"]) + " |", flush=True)


if __name__ == "__main__":
    main()
