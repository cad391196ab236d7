"""Noise helpers: estimating the noise level, and building noise PSDs.

PSD convention used throughout the package: PSD = E|fftn(noise)|^2 over the
PSD's own shape, so white noise of standard deviation s on an array of N
elements has the flat PSD s*s*N, and the noise variance per element is
mean(PSD) / N.
"""

from __future__ import annotations

import numpy as np

__all__ = ["estimate_sigma", "white_psd", "psd_from_kernel", "psd_sigma", "coloured_noise"]

# Median of |X| for X standard normal: turns a median absolute value into a
# standard deviation.
_MAD_TO_SIGMA = 0.6744897501960817


def estimate_sigma(z):
    """Estimate the standard deviation of additive white noise in a 2-D or 3-D array.

    Uses the finest-scale diagonal Haar detail coefficients (the alternating
    sum over every 2x2 or 2x2x2 cell, normalised to preserve the noise
    variance): smooth image content cancels in them, so their median absolute
    value divided by 0.6745 is a robust estimate of the noise level. Edges and
    texture bias it upwards a little; coloured noise is underestimated where
    its power sits at low frequencies.
    """
    a = np.asarray(z)
    if a.dtype.kind not in "biuf":
        raise TypeError(f"estimate_sigma needs a real array, got dtype {a.dtype}")
    if a.ndim not in (2, 3):
        raise ValueError(f"estimate_sigma needs a 2-D or 3-D array, got {a.ndim} dimensions")
    if any(n < 2 for n in a.shape):
        raise ValueError(f"estimate_sigma needs at least 2 samples along every axis, got {a.shape}")
    cells = tuple(slice(0, n - n % 2) for n in a.shape)
    a = a[cells].astype(np.float64, copy=False)
    if not np.isfinite(a).all():
        raise ValueError("estimate_sigma: the array contains NaN or infinite samples")
    detail = a
    for axis in range(a.ndim):
        even = np.take(detail, np.arange(0, detail.shape[axis], 2), axis=axis)
        odd = np.take(detail, np.arange(1, detail.shape[axis], 2), axis=axis)
        detail = (even - odd) / np.sqrt(2.0)
    return float(np.median(np.abs(detail)) / _MAD_TO_SIGMA)


def white_psd(sigma, shape):
    """Flat PSD of white noise of standard deviation ``sigma`` over ``shape``."""
    shape = tuple(int(n) for n in shape)
    return np.full(shape, float(sigma) ** 2 * float(np.prod(shape)), dtype=np.float32)


def psd_from_kernel(kernel, shape, sigma=1.0):
    """PSD of white noise of std ``sigma`` filtered (circularly) by ``kernel``.

    The noise ``ifftn(fftn(white) * fftn(kernel, shape)).real`` has the PSD
    sigma^2 * N * |fftn(kernel, shape)|^2, N = prod(shape). The kernel is
    placed with its centre at the origin, so an odd-sized kernel adds no
    shift.
    """
    shape = tuple(int(n) for n in shape)
    transfer = np.fft.fftn(_centred_kernel(kernel, shape))
    return (sigma ** 2 * np.prod(shape) * np.abs(transfer) ** 2).astype(np.float32)


def coloured_noise(kernel, shape, sigma=1.0, rng=None):
    """Draw noise whose PSD is ``psd_from_kernel(kernel, shape, sigma)``."""
    rng = np.random.default_rng(rng)
    shape = tuple(int(n) for n in shape)
    white = rng.standard_normal(shape) * sigma
    return np.fft.ifftn(np.fft.fftn(white) * np.fft.fftn(_centred_kernel(kernel, shape))).real


def _centred_kernel(kernel, shape):
    """The kernel zero-padded to ``shape`` with its centre moved to the origin."""
    kernel = np.asarray(kernel, dtype=np.float64)
    if kernel.ndim != len(shape):
        raise ValueError("kernel and shape must have the same number of dimensions")
    if any(k > n for k, n in zip(kernel.shape, shape)):
        raise ValueError(f"kernel {kernel.shape} is larger than the shape {shape}")
    padded = np.zeros(shape)
    padded[tuple(slice(0, k) for k in kernel.shape)] = kernel
    return np.roll(padded, tuple(-(k // 2) for k in kernel.shape), axis=tuple(range(len(shape))))


def psd_sigma(psd):
    """Noise standard deviation per element described by a PSD: sqrt(mean(PSD) / N)."""
    psd = np.asarray(psd, dtype=np.float64)
    return float(np.sqrt(psd.mean() / psd.size))
