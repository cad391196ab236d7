"""How well korvo.estimate_psd recovers coloured-noise spectra, and what it costs
the denoiser.

For every volume (bench/datasets.py, centre-cropped, scaled to [0, 1]), noise
spectrum and level: noise from bench/coloured_study.py's generators is added,
the PSD is estimated from the noisy data alone, and a markdown table row gives

- the relative PSD error ||est - true|| / ||true|| on the 16x16x16 work grid,
  the error of the implied per-voxel std, and the estimated and true
  concentration c = mean(P^2) / mean(P)^2 (what PSD-adaptive settings read),
- the PSNR of korvo with the estimated PSD, with the true PSD, and with the
  white-noise assumption at korvo.estimate_sigma's level.

    python bench/psd_eval.py [--volumes mri_t1_mni,ct_head] [--sigmas 0.05,0.1]
                             [--crop 64] [--threads 1] [--no-denoise]

The real volumes carry noise of their own, which the estimate sees too while
the "true" PSD is that of the added noise only; scored against such a volume,
the true PSD would win by leaving the volume's own noise in. Volumes whose own
noise exceeds 0.005 (korvo.estimate_sigma) are therefore first denoised at
that level and the result used as the clean reference (datasets.quiet_reference;
--raw-reference scores against the volume as loaded).
"""

from __future__ import annotations

import argparse
import os
import sys
import time

import numpy as np

import korvo

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import datasets  # noqa: E402
from coloured_study import SPECTRA, concentration, noise, psd  # noqa: E402

DEFAULT_VOLUMES = "mri_t1_mni,mri_t1_colin,ct_head,fm_nuclei,em_tomogram,mri_epi,mri_t1_small"


def _volume(name, crop):
    if name == "phantom":
        return korvo.phantom((crop,) * 3).astype(np.float64)
    # The tiny T1 is evaluated whole: it is the case without any background.
    return datasets.load(name, crop=None if name == "mri_t1_small" else crop)[0].astype(np.float64)


def _psnr(estimate, clean):
    return 10 * np.log10(1.0 / np.mean((np.asarray(estimate, np.float64) - clean) ** 2))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--volumes", default=DEFAULT_VOLUMES)
    parser.add_argument("--spectra", default=",".join(SPECTRA))
    parser.add_argument("--sigmas", default="0.1")
    parser.add_argument("--crop", type=int, default=64)
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--no-denoise", action="store_true", help="PSD errors only")
    parser.add_argument("--raw-reference", action="store_true",
                        help="score against the volume as loaded, with its own noise")
    args = parser.parse_args()
    profile = korvo.KORVOProfile(num_threads=args.threads)

    def denoise(z, **noise_args):
        return _psnr(korvo.korvo(z, **noise_args, profile=profile), clean)

    print("| volume | noise | std | PSD error | std error | c est / true | PSNR noisy "
          "| est. PSD | true PSD | white | est - true | seconds |")
    print("|---|---|---|---|---|---|---|---|---|---|---|---|")
    for v, vname in enumerate(args.volumes.split(",")):
        clean = _volume(vname, args.crop)
        if not args.raw_reference:
            clean, _ = datasets.quiet_reference(clean)
        for sigma in map(float, args.sigmas.split(",")):
            for s, sname in enumerate(args.spectra.split(",")):
                rng = np.random.default_rng([v, s, round(sigma * 1000)])
                noisy = clean + noise(sname, clean.shape, sigma, rng)
                true = psd(sname, sigma).astype(np.float64)
                start = time.perf_counter()
                est = korvo.estimate_psd(noisy, true.shape).astype(np.float64)
                seconds = time.perf_counter() - start
                row = [vname + " " + "x".join(map(str, clean.shape)), sname, f"{sigma:g}",
                       f"{np.linalg.norm(est - true) / np.linalg.norm(true):.3f}",
                       f"{np.sqrt(est.mean() / true.mean()) - 1:+.3f}",
                       f"{concentration(est):.2f} / {concentration(true):.2f}",
                       f"{_psnr(noisy, clean):.2f}"]
                if args.no_denoise:
                    row += [""] * 4
                else:
                    scores = [denoise(noisy, psd=est), denoise(noisy, psd=true),
                              denoise(noisy, sigma=korvo.estimate_sigma(noisy))]
                    row += [f"{x:.2f}" for x in scores] + [f"{scores[0] - scores[1]:+.2f}"]
                print("| " + " | ".join(row + [f"{seconds:.2f}"]) + " |", flush=True)


if __name__ == "__main__":
    main()
