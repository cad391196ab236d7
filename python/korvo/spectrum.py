"""Estimating a coloured-noise PSD from the data.

Method: Welch's overlapped-segment averaging (P. D. Welch, IEEE Trans. Audio
Electroacoustics 15(2), 1967) restricted to homogeneous blocks, combined with
the correlogram (Blackman-Tukey) route to the final spectrum:

1. The data is cut into half-overlapping blocks, each made zero-mean and
   tapered by a periodic Hann window.
2. Blocks that carry structure are rejected by a chi-square test: in pure
   noise the block periodogram divided by the PSD is a sum of exponential
   variables with a known (window-dependent) covariance, so its mean over a
   frequency band has a known gamma-like law. A block whose band mean falls
   outside that law in any band (edges and texture: too much power; clipped
   or noise-free padding: too little) is dropped, and the test is repeated
   against the PSD of the blocks kept until the set no longer changes. Since
   signal and low-frequency noise share the lowest frequencies, this
   per-block test (rather than a per-frequency robust statistic) is what
   keeps smooth structure out of the low end of the spectrum.
3. The kept blocks' autocorrelations are averaged, divided by the window's
   own autocorrelation (removing the window's smearing of the spectrum) and
   corrected for the bias of the per-block mean removal, which takes away
   noise power in proportion to the spectrum at zero frequency.
4. The lags are tapered, folded onto the output grid (sampling the spectral
   density at the grid's frequencies) and Fourier transformed.

Blocks are up to twice the output grid along each axis, so lags up to half
the grid are estimated with good window overlap; smaller data uses smaller
blocks, which the lag domain resamples to the grid without interpolation.
"""

from __future__ import annotations

import math
from statistics import NormalDist

import numpy as np

from .noise import MAD_TO_SIGMA, NonFiniteError, constant_cells, haar_level, spread_rows
from .validation import NoiseLevelWarning, integer_tuple, warn_caller

__all__ = ["estimate_psd"]

# Two-sided level of the per-band homogeneity test, as a standard normal
# quantile (about 5e-4 per side and band).
_TEST_Z = 3.3
# Fraction of the quietest blocks that seeds the first reference PSD.
_SEED_FRACTION = 0.3
_MAX_ROUNDS = 8
# Lags kept in the correlogram: beyond this many standard errors from zero.
_LAG_Z = 3.5
# Fewest samples a block may have along an axis it spans.
_MIN_BLOCK = 4
# Samples per batch of blocks going through the FFTs at once (memory).
_BATCH_SAMPLES = 1 << 22
# Most samples of the blocks one estimate reads, and of the data the detail
# test reads: past these (blocks of volumes above about 70^3, details above
# 128^3) evenly spaced blocks and slices stand for the rest, which bounds time
# and memory while leaving the statistics as good as on such a volume.
_MAX_BLOCK_SAMPLES = 1 << 21
_MAX_DETAIL_SAMPLES = 1 << 21
# Constant parts (zero-filled, masked, saturated) hold no noise to estimate from.
_TOO_FEW = ("estimate_psd: the data has too few non-constant blocks (zero-filled, masked or "
            "saturated parts hold no noise)")
# Short-range fit for data without homogeneous regions: block extent, largest
# noise correlation lag per axis, lowest frequency radius (cycles per sample)
# used, and the quantile of the block periodograms taken per frequency.
_FIT_BLOCK = 8
_FIT_LAGS = 2
# Lags per correlated axis of the fit that is returned when some axis tests
# white: the model then has few terms, and a third lag follows a steep
# spectral edge (zero-filled k-space) that two cannot. With every axis
# correlated a third lag overfits. Whether to use the fit at all is decided
# on the two-lag one, whose level the margin below was set on (the third lag
# reads a steep edge's level a few per cent low).
_FIT_LAGS_PARTIAL = 3
_FIT_RADIUS = 0.3
_FIT_QUANTILE = 0.1
# The homogeneous-block estimate is kept unless its noise power exceeds the
# fit's by more than this fraction (structure leaking into it).
_FIT_MARGIN = 0.1


def estimate_psd(z, shape=None, *, mask=None):
    """Estimate the PSD of additive stationary noise from the data.

    Parameters
    ----------
    z : array_like, 2-D (rows, columns) or 3-D (slices, rows, columns)
        Noisy data, or a noise-only scan. Integer data is accepted.
    shape : tuple of int, optional
        Grid of the returned PSD: 3-D for a volume, or 2-D for a volume whose
        noise is independent between slices (or for an image). Default
        (16, 16, 16) for a volume, (32, 32) for an image.
    mask : array_like of bool, optional
        Same shape as ``z``: only blocks lying entirely where the mask is true
        (a noise-only background region) are used.

    Returns
    -------
    numpy.ndarray (float32) of ``shape``: PSD = E|fftn(noise)|^2 over that
    grid, so white noise of std s gives s*s*prod(shape) everywhere.

    Method: Welch's averaged periodogram over half-overlapping Hann-windowed
    blocks, keeping only blocks that pass a chi-square homogeneity test
    against the current estimate (iterated), then the Blackman-Tukey
    correlogram of the kept blocks, corrected for the window and the block
    mean, folded onto the output grid. Structure that survives the test
    (weak smooth gradients) raises the lowest frequencies a little; data
    with no homogeneous region at all gives an upper bound.
    """
    data = _check_data(z)
    grid = _check_shape(shape, data)
    volume = data if data.ndim == 3 else data[None]
    weights = None if mask is None else _check_mask(mask, data.shape)
    if weights is not None and data.ndim == 2:
        weights = weights[None]
    # A 2-D grid for a volume: 2-D blocks taken slice by slice.
    grid3 = grid if len(grid) == 3 else (1,) + grid
    resolved = [n for n, g in zip(volume.shape, grid3) if g > 1]
    if resolved and max(resolved) < _MIN_BLOCK:  # nothing to estimate from, on any axis
        raise ValueError(f"estimate_psd needs at least {_MIN_BLOCK} samples along the axes of the "
                         f"PSD grid, got data of shape {data.shape}")
    # Blocks twice the grid estimate long lags better; blocks of the grid's
    # size find more homogeneous places in busy data. Structure only ever adds
    # power, so of the two the estimate with less noise power is kept.
    found, error = [], None
    # Zero-filled, masked or saturated parts hold no noise: blocks reaching
    # into them would read as the quietest and pull the estimate towards zero.
    details = _Details.of(volume, grid3) if weights is None else None
    live = None if details is None or details.live.all() else details.live
    tried = set()
    for scale in _SCALES[len(grid)]:
        if _extent(volume.shape, grid3, scale) in tried:
            continue  # the data cut these blocks to the same extent as larger ones
        tried.add(_extent(volume.shape, grid3, scale))
        try:
            found.append(_estimate(volume, grid3, weights, scale, live))
        except ValueError as exc:   # e.g. a single block at this scale
            error = exc
    best = min(found, key=np.sum) if found else None
    if weights is None:
        # Busy data (no region of noise alone): structure inflates the block
        # estimate, mostly at low frequencies, where the short-range fit
        # extrapolates instead.
        try:
            fit, refined = _short_range(volume, grid3, details)
        except ValueError as exc:
            fit, error = None, error or exc
        if fit is not None and (best is None or best.sum() > (1.0 + _FIT_MARGIN) * fit.sum()):
            best = refined()
        elif best is not None:
            best = _checked(best, details)
    if best is None:
        raise error
    with np.errstate(over="ignore"):
        psd = best.reshape(grid).astype(np.float32)
    if not (np.isfinite(psd).all() and psd.max() > 0):  # the stages read it in single precision
        raise ValueError(f"estimate_psd: a noise std of {math.sqrt(best.mean() / best.size):.3g} gives a "
                         f"PSD beyond single precision on a {grid} grid; rescale the data")
    _check_extent(data.shape, grid, best)
    return psd


# Data shorter than this many PSD grids along every axis the PSD resolves
# miss the long-range part of correlated noise: 3x3x3-smoothed noise of std
# 0.1 read 0.034 on 16^3, 0.065 on 24^3 and 0.09 on 32^3 (16^3 grid). One
# longer axis is enough: 24x64x64 and 25x41x33 MRI volumes read high if
# anything (their own noise).
_LEAST_GRIDS = 2
# A concentration from which the noise counts as correlated (white: 1).
_CORRELATED = 1.25


def _check_extent(shape, grid, psd):
    """Warns (NoiseLevelWarning) where correlated noise was estimated from
    data too short to show its long-range part, so that its level reads low."""
    resolved = [(n, g) for n, g in zip(shape[-len(grid):], grid) if g > 1]
    short = resolved and all(n < _LEAST_GRIDS * g for n, g in resolved)
    if short and np.mean(psd ** 2) / np.mean(psd) ** 2 >= _CORRELATED:
        warn_caller(f"estimate_psd: data of shape {tuple(shape)} are shorter than twice the "
                    f"PSD grid {tuple(grid)} on every axis, too short to show how far correlated "
                    f"noise reaches: its level reads low (a third of the true std on 16^3 data); "
                    f"give the PSD (korvo.psd_from_kernel), or estimate it on a larger or "
                    f"noise-only scan", NoiseLevelWarning)


def _checked(psd, details):
    """The block estimate held against the finest details. Along an axis
    that does not test as correlated, what the blocks read as colour is
    smooth structure passing for noise (out-of-focus haze, shading), so the
    spectrum is made flat along it; with no correlated axis at all the noise
    is white, at the details' level where that is lower."""
    if not details.correlated:
        return np.full(psd.shape, min(details.white_variance() * psd.size, psd.mean()))
    flat = tuple(a for a in details.axes if a not in details.correlated)
    return np.broadcast_to(psd.mean(axis=flat, keepdims=True), psd.shape).copy()


# Block extents tried, in PSD grids: blocks twice the grid estimate long lags
# better; smaller ones find more homogeneous places in busy data. An image's
# 32-point grid also takes blocks of 16, whose lags (to 8) reach as far as a
# volume's 16-point grid does: on 128^2 to 256^2 images with 3x3-smoothed
# noise, busy ones read std 0.33 for 0.1 without them.
_SCALES = {2: (2, 1, 0.5), 3: (2, 1)}


def _estimate(volume, grid, weights, scale, live=None):
    block, starts = _blocks(volume.shape, grid, weights, scale, live)
    windows = [_hann(b) for b in block]
    kept, mean_power = _homogeneous(volume, starts, block, windows)
    lags = _mean_autocorrelation(volume, starts[kept], block, windows)
    # Lag estimates are as noisy as about this many independent blocks;
    # half-overlapping Hann blocks are nearly independent.
    independent = kept.sum() / _overlap_inflation(starts[kept], block, windows)
    corr = _autocovariance(lags, windows, np.mean(mean_power ** 2), independent)
    return _fold(corr, block, grid)


# ----------------------------------------------------------------------------
# Arguments


def _check_data(z):
    a = np.asarray(z)
    if a.dtype.kind not in "biuf":
        raise TypeError(f"estimate_psd needs a real array, got dtype {a.dtype}")
    if a.ndim not in (2, 3):
        raise ValueError(f"estimate_psd needs a 2-D or 3-D array, got {a.ndim} dimensions")
    # No float64 copy of a large volume: blocks are taken to float64 as they
    # are read. Integers of up to 16 bits are exact in float32.
    if a.dtype not in (np.float32, np.float64):
        a = a.astype(np.float32 if a.dtype.itemsize <= 2 else np.float64)
    if not np.isfinite(a).all():
        raise NonFiniteError("estimate_psd: the array contains NaN or infinite samples")
    return a


def _check_shape(shape, data):
    if shape is None:
        # The grid korvo's defaults resample a PSD to for data of this shape.
        from ._native import default_parameters
        from .profile import shape_xyz

        x, y, z = default_parameters(0, shape_xyz(data.shape), 1.0).psd_work_size
        return (y, x) if z == 1 else (z, y, x)
    grid = integer_tuple(shape, "the PSD shape")
    if len(grid) not in (2, 3) or len(grid) > data.ndim:
        raise ValueError(f"the PSD shape {grid} must be 2-D, or 3-D for a volume")
    if any(n < 1 for n in grid):
        raise ValueError(f"the PSD shape {grid} must be positive")
    return grid


def _check_mask(mask, shape):
    m = np.asarray(mask)
    if m.dtype.kind not in "biuf":
        raise TypeError(f"the mask must be boolean or numeric (nonzero: noise only), "
                        f"got dtype {m.dtype}")
    if m.shape != shape:
        raise ValueError(f"the mask has shape {m.shape}, the data {shape}")
    return m != 0


# ----------------------------------------------------------------------------
# Blocks


def _extent(shape, grid, scale):
    """Extents of blocks ``scale`` PSD grids long, cut to the data."""
    return tuple(1 if g == 1 else min(n, int(scale * g)) for n, g in zip(shape, grid))


def _blocks(shape, grid, mask, scale, live=None):
    """-> (block extents, (n, 3) array of block starts); without a mask, only
    blocks wholly inside ``live`` (where there are two or more of them)."""
    small = [a for a, (n, g) in enumerate(zip(shape, grid)) if g > 1 and n < _MIN_BLOCK]
    if small:
        raise ValueError(f"estimate_psd needs at least {_MIN_BLOCK} samples along every "
                         f"axis of the PSD grid, got {shape}")
    preferred = _extent(shape, grid, scale)
    if mask is None:
        step = [max(1, b // 2) for b in preferred]
        starts = _starts(shape, preferred, step, sparse=True)
        if live is not None:
            inside = _inside(live, starts, preferred)
            if inside.sum() < 2:
                raise ValueError(_TOO_FEW)
            starts = starts[inside]
        return preferred, starts
    # Inside a mask, fall back to smaller blocks and a finer step before giving up.
    for scale in (1.0, 0.5, 0.25):
        block = tuple(1 if b == 1 else max(min(_MIN_BLOCK, b), int(b * scale))
                      for b in preferred)
        starts = _starts(shape, block, [max(1, b // 4) for b in block])
        inside = _inside(mask, starts, block)
        if inside.sum() >= 2:
            starts = starts[inside]
            limit = max(2, _MAX_BLOCK_SAMPLES // int(np.prod(block)))
            if len(starts) > limit:   # evenly spread over the masked region
                starts = starts[np.linspace(0, len(starts) - 1, limit).round().astype(int)]
            return block, starts
    need = [1 if b == 1 else min(_MIN_BLOCK, b) for b in preferred]
    raise ValueError(f"the mask marks {int(mask.sum())} voxels but not two whole "
                     f"{'x'.join(map(str, need))} blocks of them; it needs at least "
                     f"{2 * int(np.prod(need))} voxels in compact regions")


def _starts(shape, block, step, sparse=False):
    """Block starts on a lattice of ``step``; with ``sparse``, every k-th
    lattice position per axis, k the smallest that keeps the blocks' samples
    within _MAX_BLOCK_SAMPLES (still a lattice, so the overlap correction
    holds)."""
    axes = []
    for n, b, s in zip(shape, block, step):
        pos = list(range(0, n - b + 1, s))
        if pos[-1] != n - b:
            pos.append(n - b)   # cover the far edge too
        axes.append(pos)
    limit = _MAX_BLOCK_SAMPLES // int(np.prod(block))
    stride = 1
    while sparse and np.prod([-(-len(p) // stride) for p in axes]) > max(limit, 2):
        stride += 1
    axes = [p[::stride] for p in axes]
    grids = np.meshgrid(*axes, indexing="ij")
    return np.stack([g.ravel() for g in grids], axis=1)


def _inside(mask, starts, block):
    """Blocks lying entirely inside the mask, from a summed-area table (one
    array, summed in place)."""
    table = np.zeros(tuple(n + 1 for n in mask.shape),
                     dtype=np.int32 if mask.size < 2 ** 31 else np.int64)
    inner = table[1:, 1:, 1:]
    inner[...] = mask
    for axis in range(3):
        np.cumsum(inner, axis=axis, out=inner)
    z, y, x = starts.T
    bz, by, bx = block
    total = (table[z + bz, y + by, x + bx] - table[z, y + by, x + bx]
             - table[z + bz, y, x + bx] - table[z + bz, y + by, x]
             + table[z, y, x + bx] + table[z, y + by, x] + table[z + bz, y, x]
             - table[z, y, x])
    return total == bz * by * bx


def _batch(extents):
    return max(1, _BATCH_SAMPLES // int(np.prod(extents)))


def _hann(n):
    """Periodic Hann window; its spectrum lives on three bins, so removing the
    block mean touches only the 3x3x3 bins around zero frequency."""
    if n == 1:
        return np.ones(1)
    return np.sin(np.pi * np.arange(n) / n) ** 2


def _tapered(volume, starts, block, windows):
    """The blocks at ``starts``, made zero-mean (window-weighted) and windowed."""
    w = windows[0][:, None, None] * windows[1][None, :, None] * windows[2][None, None, :]
    idx = [starts[:, a, None] + np.arange(block[a]) for a in range(3)]
    cut = volume[idx[0][:, :, None, None], idx[1][:, None, :, None], idx[2][:, None, None, :]]
    mean = (cut * w).sum(axis=(1, 2, 3), keepdims=True) / w.sum()
    return (cut - mean) * w


def _periodograms(volume, starts, block, windows, fft):
    """Periodograms of the tapered blocks, normalised by the window energy."""
    norm = np.prod([np.sum(w * w) for w in windows])
    step = _batch(block)
    return np.concatenate([
        np.abs(fft(_tapered(volume, starts[i:i + step], block, windows), axes=(1, 2, 3))) ** 2
        / norm for i in range(0, len(starts), step)])


# ----------------------------------------------------------------------------
# Homogeneity test


def _homogeneous(volume, starts, block, windows):
    """-> (boolean array of the blocks that look like noise alone, their mean
    periodogram on the block grid)."""
    power = _periodograms(volume, starts, block, windows, np.fft.rfftn)
    bands, weights = _bands(block)
    # Per block and band: summed power, weighted as the full spectrum would be.
    sums = np.stack([(power * (weights * b)).sum(axis=(1, 2, 3)) for b in bands], axis=1)
    live = sums.sum(axis=1)
    usable = live > 1e-12 * max(float(np.median(live)), 1e-300)
    if usable.sum() < 2:
        raise ValueError(_TOO_FEW)

    def ratios(kept):
        # Leave-one-out reference, so a block is not compared with itself.
        n = kept.sum() - kept
        reference = (sums[kept].sum(axis=0) - sums * kept[:, None]) / np.maximum(n, 1)[:, None]
        return sums / np.maximum(reference, 1e-300)

    # Seeds: blocks of similar loudness relative to the median block, from
    # the quietest up. Each grows to a self-consistent set; the largest set
    # wins (quiet seeds can lock onto partly noise-free padding).
    score = (sums / np.median(sums[usable], axis=0)).mean(axis=1)
    order = np.argsort(np.where(usable, score, np.inf))[:usable.sum()]
    count = max(2, int(np.ceil(_SEED_FRACTION * len(order))))
    best = None
    for first in sorted({0, (len(order) - count) // 2, len(order) - count}):
        kept = np.zeros(len(starts), dtype=bool)
        kept[order[first:first + count]] = True
        for _ in range(_MAX_ROUNDS):
            low, high = _band_limits(power[kept].mean(axis=0), block, windows, bands, weights)
            r = ratios(kept)
            passed = usable & np.all((r >= low) & (r <= high), axis=1)
            if passed.sum() < 2 or np.array_equal(passed, kept):
                break
            kept = passed
        if best is None or kept.sum() > best.sum():
            best = kept
    kept = best
    return kept, power[kept].mean(axis=0)


def _bands(block):
    """Frequency bands of the half spectrum (radius in cycles per sample), and
    the weight of each half-spectrum bin in the full spectrum."""
    freqs = [np.fft.fftfreq(b) for b in block[:2]] + [np.fft.rfftfreq(block[2])]
    fz, fy, fx = np.meshgrid(*freqs, indexing="ij")
    radius = np.sqrt(fz ** 2 + fy ** 2 + fx ** 2)
    # Bins moved by the mean removal (next to zero frequency) are left out.
    near_zero = (np.abs(fz) * block[0] <= 1) & (np.abs(fy) * block[1] <= 1) & (
        np.abs(fx) * block[2] <= 1)
    edges = (0.0, 0.125, 0.25, 0.4, 1.0)
    bands = [((radius >= lo) & (radius < hi) & ~near_zero).astype(np.float64)
             for lo, hi in zip(edges[:-1], edges[1:])]
    bands = [b for b in bands if b.sum() >= 4]
    weights = np.full(fx.shape, 2.0)
    weights[..., 0] = 1.0
    if block[2] % 2 == 0:
        weights[..., -1] = 1.0
    return bands, weights


def _band_limits(reference, block, windows, bands, weights):
    """Acceptance interval of each band's power / reference power under noise.

    For Gaussian noise with a locally flat spectrum P, cov(I(k), I(k')) =
    P(k) P(k') (|G(k - k')|^2 + |G(k + k')|^2), G being the normalised
    spectrum of the squared window. The band ratio is then close to a scaled
    chi-square with 2 / variance degrees of freedom (Wilson-Hilferty).
    """
    w2 = windows[0][:, None, None] ** 2 * windows[1][None, :, None] ** 2 \
        * windows[2][None, None, :] ** 2
    g = np.abs(np.fft.fftn(w2)) ** 2 / w2.sum() ** 2
    low, high = [], []
    for band in bands:
        full = _full_spectrum(band * reference, block)
        spread = np.fft.ifftn(np.abs(np.fft.fftn(full)) ** 2).real   # autocorrelation
        var = 2.0 * np.sum(g * spread) / full.sum() ** 2
        c = var / 9.0   # 2 / (9 dof)
        low.append(max(0.0, 1.0 - c - _TEST_Z * np.sqrt(c)) ** 3)
        high.append((1.0 - c + _TEST_Z * np.sqrt(c)) ** 3)
    return np.array(low), np.array(high)


def _full_spectrum(half, block):
    """Half-spectrum array extended to the full grid by Hermitian symmetry."""
    full = np.zeros(block)
    full[..., :half.shape[2]] = half
    mirror = np.roll(np.flip(full, axis=(0, 1, 2)), 1, axis=(0, 1, 2))
    return np.maximum(full, mirror)


# ----------------------------------------------------------------------------
# Short-range fit


def _short_range(volume, grid, details=None):
    """PSD of a noise whose correlations reach at most _FIT_LAGS samples per
    axis, fitted to the high frequencies of small blocks; and a function giving
    the PSD to return when that fit is used: with _FIT_LAGS_PARTIAL lags where
    some axis tests white, else the same. -> (fit, refined)

    Structure is sparse at high frequencies but dense at low ones, so only
    frequencies of radius _FIT_RADIUS and above are read, and there a low
    quantile of the block periodograms (scaled by the exponential, or
    chi-square with one degree of freedom, law of noise alone) keeps out the
    blocks crossed by edges. The model E I(k) = sum_t R(t) rho(t) cos(2 pi k t),
    rho being the window's normalised autocorrelation, is linear in the
    autocovariance R; its relative least-squares fit sets R at every lag kept,
    and so the spectrum at low frequencies too.

    What structure leaks through still reads as positive correlation along
    every axis, so only axes on which the noise tests as correlated get lags
    (all of them white: a flat PSD), and the level is capped by the robust
    detail variances (see _Details).
    """
    block = tuple(1 if g == 1 else min(n, _FIT_BLOCK) for n, g in zip(volume.shape, grid))
    details = details or _Details.of(volume, grid)

    def reach(most):
        return [min(most, max(0, b // 2 - 1)) if a in details.correlated else 0
                for a, b in enumerate(block)]

    if not any(reach(_FIT_LAGS)):
        white = np.full(grid, details.white_variance() * np.prod(grid))
        return white, lambda: white
    windows = [_hann(b) for b in block]
    starts = _starts(volume.shape, block, [max(1, b // 2) for b in block], sparse=True)
    # Blocks reaching into noise-free padding would pull the low quantile down.
    inside = _inside(details.live, starts, block)
    if inside.sum() >= 2:
        starts = starts[inside]
    power = _periodograms(volume, starts, block, windows, np.fft.fftn)
    freqs = np.meshgrid(*[np.fft.fftfreq(b) for b in block], indexing="ij")
    used = np.sqrt(sum(f * f for f in freqs)) >= _FIT_RADIUS
    # Bins at zero or Nyquist along every axis are real: chi-square, one dof.
    real = np.all([(np.abs(f) == 0) | (np.abs(f) == 0.5) for f in freqs], axis=0)
    q = _FIT_QUANTILE
    scale = np.where(real, NormalDist().inv_cdf(0.5 + q / 2) ** 2, -np.log1p(-q))
    if len(power) < 2:
        raise ValueError(_TOO_FEW)
    target = np.quantile(power, q, axis=0)[used] / scale[used]
    if not target.max() > 0:
        raise ValueError(_TOO_FEW)
    weight = 1.0 / np.maximum(target, 1e-2 * target.mean())
    grid_freqs = np.stack([f.ravel() for f in np.meshgrid(
        *[np.fft.fftfreq(g) for g in grid], indexing="ij")], axis=1)

    used_freqs = np.stack([f[used] for f in freqs], axis=1)

    def fit(most):
        lags, mult = _half_lags(reach(most))
        if used.sum() < 4 * len(lags):
            raise ValueError(f"estimate_psd: blocks {block} are too small to fit a spectrum")
        rho = np.ones(len(lags))
        for axis, w in enumerate(windows):
            c = _lagged(w, w)
            rho *= c[lags[:, axis] % len(c)] / c[0]
        design = np.cos(2 * np.pi * used_freqs @ lags.T) * (rho * mult)
        cov, *_ = np.linalg.lstsq(design * weight[:, None], target * weight, rcond=None)
        psd = (np.cos(2 * np.pi * grid_freqs @ lags.T) @ (cov * mult)).reshape(grid) * np.prod(grid)
        psd = np.maximum(psd, 1e-3 * max(psd.mean(), 0.0) + 1e-30)
        return psd * min(1.0, details.level(psd))

    two = fit(_FIT_LAGS)
    partial = not set(details.axes) <= set(details.correlated)
    return two, (lambda: fit(_FIT_LAGS_PARTIAL)) if partial else (lambda: two)


class _Details:
    """Robust variances of the finest Haar details of the data.

    On 2x2x2 cells (2x2 on the axes given), the detail that differences every
    axis and those that average along one axis and difference the others
    cancel smooth content, and their median absolute value (/ 0.6745) skips
    edges. Under white noise they all share the noise variance; a
    correlation along an axis changes the ratio of the detail averaging
    along it to the all-difference one by (1 + r) / (1 - r), r the lag-one
    correlation coefficient, to 5 for [1, 2, 1]. Structure only raises the
    averaging details, seen as up to about 1.6 on busy volumes.
    """

    # An axis is correlated outside this ratio interval: r above 0.26 or
    # below -0.13 (structure never lowers the ratio).
    RATIOS = (1 / 1.3, 1.7)

    @classmethod
    def of(cls, volume, grid):
        """The details along the axes a grid of this shape resolves."""
        return cls(volume, [a for a, (g, n) in enumerate(zip(grid, volume.shape)) if g > 1 and n > 1])

    def __init__(self, volume, axes):
        self.axes = list(axes)
        self.filters = [tuple("L" if a == low else "H" for a in self.axes)
                        for low in [None] + self.axes]
        cells = volume[tuple(slice(0, n - n % 2) if a in self.axes else slice(None)
                             for a, n in enumerate(volume.shape))]
        # Constant cells (noise-free padding, clipping) would pull the medians to zero.
        live = ~constant_cells(cells, self.axes)
        # The medians of a large volume (or image) from evenly spaced cell
        # slices (rows) across its first axis of more than one sample.
        along = next((a for a, n in enumerate(cells.shape) if n > 1), 0)
        unit = 2 if along in self.axes else 1
        chosen, rows = spread_rows(live.shape[along], cells.size, _MAX_DETAIL_SAMPLES, unit)
        sample = np.take(cells, rows, axis=along).astype(np.float64)
        details = [np.abs(haar_level(sample, self._kinds(f, volume.ndim))) for f in self.filters]
        sample_live = np.take(live, chosen, axis=along)
        self.live = np.ones(volume.shape, dtype=bool)   # voxels of non-constant cells
        cell_live = live
        for axis in self.axes:
            cell_live = np.repeat(cell_live, 2, axis=axis)
        self.live[tuple(slice(0, n) for n in cell_live.shape)] = cell_live
        self.variances = np.array([
            (np.median(d[sample_live]) / MAD_TO_SIGMA) ** 2 if sample_live.any() else 0.0
            for d in details])
        ratios = self.variances[1:] / max(self.variances[0], 1e-300)
        lo, hi = self.RATIOS
        self.correlated = [a for a, r in zip(self.axes, ratios) if not lo <= r <= hi]

    def _kinds(self, kinds, ndim):
        """A filter over the tested axes as kinds for every axis ("-": untouched)."""
        chosen = dict(zip(self.axes, kinds))
        return "".join(chosen.get(axis, "-") for axis in range(ndim))

    def white_variance(self):
        return self.variances[0]

    def level(self, psd):
        """Smallest ratio of measured to predicted detail variance under
        ``psd`` (each detail's response averaged over the PSD grid)."""
        freqs = np.meshgrid(*[np.fft.fftfreq(n) for n in psd.shape], indexing="ij")
        noise = psd / psd.size ** 2
        ratios = []
        for kinds, measured in zip(self.filters, self.variances):
            gain = np.ones(psd.shape)
            for axis, kind in zip(self.axes, kinds):
                s = np.sin(np.pi * freqs[axis]) ** 2
                gain = gain * 2.0 * (1.0 - s if kind == "L" else s)
            ratios.append(measured / max(np.sum(noise * gain), 1e-300))
        return min(ratios) if min(ratios) > 0 else 1.0


def _half_lags(reach):
    """Lags t with |t_a| <= reach[a], one of each pair (t, -t), and how many
    of the pair each stands for."""
    axes = [np.arange(-r, r + 1) for r in reach]
    lags = np.stack([g.ravel() for g in np.meshgrid(*axes, indexing="ij")], axis=1)
    # Keep t when its first non-zero entry is positive, and the zero lag.
    sign = np.zeros(len(lags), dtype=int)
    for axis in reversed(range(lags.shape[1])):
        sign = np.where(lags[:, axis] != 0, np.sign(lags[:, axis]), sign)
    lags = lags[sign >= 0]
    return lags, np.where(np.any(lags != 0, axis=1), 2.0, 1.0)


# ----------------------------------------------------------------------------
# Correlogram


def _mean_autocorrelation(volume, starts, block, windows):
    """Mean linear autocorrelation of the tapered blocks, lags on a 2b grid
    (lag t at index t mod 2b)."""
    pad = tuple(2 * b for b in block)
    total = np.zeros(pad[:2] + (pad[2] // 2 + 1,))
    step = _batch(pad)
    for i in range(0, len(starts), step):
        spec = np.fft.rfftn(_tapered(volume, starts[i:i + step], block, windows),
                            s=pad, axes=(1, 2, 3))
        total += (np.abs(spec) ** 2).sum(axis=0)
    return np.fft.irfftn(total / len(starts), s=pad, axes=(0, 1, 2))


def _autocovariance(acf, windows, power_energy, independent):
    """Noise autocovariance from the mean windowed block autocorrelation.

    E[acf(t)] = C(t) R(t) - s0 B(t): C is the window's autocorrelation, s0 the
    spectral density at zero frequency (sum of R) and B what subtracting the
    window-weighted block mean takes away, for correlations short against the
    block: B(t) = (E(t) + E(-t)) / sum(w) - C(t) sum(w^2) / sum(w)^2 with
    E(t) = sum_n w(n)^2 w(n + t). Lags indistinguishable from zero are set to
    zero (hard threshold at Bartlett's standard error, D(t) / C(t)^2 times the
    sum of R^2, D(t) = sum_n w(n)^2 w(n + t)^2), which keeps short or
    separable correlations exact and removes most of the estimation noise.
    """
    c = _outer([_lagged(w, w) for w in windows])
    d = _outer([_lagged(w * w, w * w) for w in windows])
    e_fwd = _outer([_lagged(w * w, w) for w in windows])
    e_back = _outer([_lagged(w, w * w) for w in windows])
    s1 = np.prod([w.sum() for w in windows])
    s2 = np.prod([np.sum(w * w) for w in windows])
    bias = (e_fwd + e_back) / s1 - c * s2 / s1 ** 2
    taper = _outer([_lag_taper(len(w)) for w in windows])
    valid = taper > 0
    safe = np.where(valid, c, 1.0)
    ratio = np.where(valid, acf / safe, 0.0)
    shift = np.where(valid, bias / safe, 0.0)
    # s0 from every lag first: thresholding the raw lags would keep mostly
    # the ones the mean removal pushed down, and bias it low.
    s0 = np.sum(ratio * taper) / (1.0 - np.sum(shift * taper))
    corrected = ratio + s0 * shift
    error = np.sqrt(np.where(valid, d, 0.0) / safe ** 2 * power_energy / independent)
    error.flat[0] *= np.sqrt(2.0)
    significant = valid & (np.abs(corrected) > _LAG_Z * error)
    significant.flat[0] = True
    return np.where(significant, corrected * taper, 0.0)


def _lagged(a, b):
    """sum_n a(n) b(n + t) for every lag t, lag t at index t mod 2n."""
    n = len(a)
    return np.fft.irfft(np.conj(np.fft.rfft(a, 2 * n)) * np.fft.rfft(b, 2 * n), 2 * n)


def _outer(vectors):
    return vectors[0][:, None, None] * vectors[1][None, :, None] * vectors[2][None, None, :]


def _overlap_inflation(starts, block, windows):
    """Variance inflation of a block average from overlapping blocks: per axis,
    the summed squared window correlation at the offsets of the other blocks."""
    factor = 1.0
    for axis, w in enumerate(windows):
        if len(w) == 1:
            continue
        c = _lagged(w, w)[:len(w)]
        rho = (c / c[0]) ** 2
        positions = np.unique(starts[:, axis])
        offsets = np.abs(positions[:, None] - positions[None, :])
        near = np.where(offsets < len(w), rho[np.minimum(offsets, len(w) - 1)], 0.0)
        factor *= near.sum(axis=1).mean()
    return factor


def _lag_taper(n):
    """Lag window on the 2n lag grid: one up to 3n/8, a cosine roll-off to zero
    at n/2 (where the window overlap becomes too small to divide by)."""
    t = np.abs(np.fft.fftfreq(2 * n, 1.0 / (2 * n)))
    if n == 1:
        return (t == 0).astype(np.float64)
    lo, hi = 3 * n / 8.0, n / 2.0
    return np.where(t <= lo, 1.0, np.where(t < hi, 0.5 + 0.5 * np.cos(np.pi * (t - lo) / (hi - lo)), 0.0))


def _fold(corr, block, grid):
    """PSD on ``grid`` from the autocovariance on the 2b lag grid: lags are
    summed modulo the grid (sampling the spectral density at its frequencies)."""
    folded = np.zeros(grid)
    lags = [np.fft.fftfreq(2 * b, 1.0 / (2 * b)).astype(int) % g for b, g in zip(block, grid)]
    np.add.at(folded, np.ix_(*lags), corr)
    psd = np.fft.fftn(folded).real * np.prod(grid)
    # A tapered correlogram can dip below zero next to a steep spectral edge.
    return np.maximum(psd, 1e-3 * max(psd.mean(), 0.0) + 1e-30)
