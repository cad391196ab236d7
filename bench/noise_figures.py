#!/usr/bin/env python3
"""The figures of docs/noise-models.md: a middle slice of a real volume,
clean, noisy, denoised with the right noise model, and denoised under the
Gaussian assumption, for photon counts (peak 5) and magnitude MRI (one coil,
SNR 3). Same simulation as bench/noise_models.py.

    python bench/noise_figures.py          # writes docs/figures/*.png
"""

from __future__ import annotations

import os
import sys

import numpy as np

import korvo

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import noise_models as bench  # noqa: E402

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "docs", "figures")


def figure(path, title, truth, noisy, right, gaussian, model):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    middle = truth.shape[0] // 2
    panels = [("clean", truth), ("noisy", noisy), (f"korvo, noise={model!r}", right),
              ("korvo, Gaussian assumption", gaussian)]
    low, high = float(truth.min()), float(truth.max())
    fig, axes = plt.subplots(1, 4, figsize=(13, 3.6), constrained_layout=True)
    for ax, (label, volume) in zip(axes, panels):
        image = ax.imshow(volume[middle], cmap="gray", vmin=low, vmax=high)
        if label != "clean":
            psnr, bias = bench.scores(volume, truth)
            label += f"\n{psnr:.2f} dB, dark bias {bias:+.1f} %"
        ax.set_title(label, fontsize=10)
        ax.set_xticks([])
        ax.set_yticks([])
    fig.colorbar(image, ax=axes[-1], shrink=0.8, label="signal")
    fig.suptitle(title, fontsize=11)
    fig.savefig(path, dpi=90)
    plt.close(fig)
    print("wrote", path)


def main():
    rng = np.random.default_rng(0)
    profile = korvo.KORVOProfile()
    os.makedirs(FOLDER, exist_ok=True)
    for name, cases, model in (("photon-counts", bench.photon_cases([5], rng), "poisson-gaussian"),
                               ("magnitude-mri", bench.mri_cases([3], [1], rng), "rician")):
        label, truth, noisy, params = next(cases)
        right = korvo.korvo(noisy, noise=model, profile=profile)  # parameters estimated
        gaussian = korvo.korvo(noisy, korvo.estimate_sigma(noisy), profile=profile)
        figure(os.path.join(FOLDER, name + ".png"), f"{label}: middle slice", truth, noisy,
               right, gaussian, model)


if __name__ == "__main__":
    main()
