"""Noise helpers: estimating the noise level, and building noise PSDs.

PSD convention used throughout the package: PSD = E|fftn(noise)|^2 over the
PSD's own shape, so white noise of standard deviation s on an array of N
elements has the flat PSD s*s*N, and the noise variance per element is
mean(PSD) / N.
"""

from __future__ import annotations

import functools
import math
from typing import NamedTuple

import numpy as np

__all__ = ["estimate_sigma", "estimate_sigma_map", "white_psd", "psd_from_kernel", "psd_sigma",
           "coloured_noise", "psd_concentration", "whitening_kernel", "whitening_reach", "prewhiten",
           "block_flatness", "Flatness", "flat_block_counts"]

class NonFiniteError(ValueError):
    """Data holding NaN or infinite samples: raised wherever they are found, so
    that a caller can say which file or item holds them."""


# Median of |X| for X standard normal: turns a median absolute value into a
# standard deviation.
MAD_TO_SIGMA = 0.6744897501960817
# Fewest informative cells from which a tile of estimate_sigma_map takes its own
# level (a median of 16 is within about 40 % of the truth).
_TILE_CELLS = 16
# Samples taken to float64 at a time by whole-array computations (the Haar
# detail, the noise models' transforms, normalisation): their float64
# temporaries stay at a few MiB whatever the volume.
_SLAB_SAMPLES = 1 << 20


def estimate_sigma(z):
    """Estimate the standard deviation of additive white noise in a 2-D or 3-D array.

    Uses the finest-scale diagonal Haar detail coefficients (the alternating
    sum over every 2x2 or 2x2x2 cell, normalised to preserve the noise
    variance): smooth image content cancels in them, so their median absolute
    value divided by 0.6745 is a robust estimate of the noise level. Edges and
    texture bias it upwards a little; coloured noise is underestimated where
    its power sits at low frequencies. Constant cells (a zero-filled or
    masked background, padding, saturation) hold no noise and are left out;
    constant data give 0.
    """
    detail, flat = _haar_detail(z, "estimate_sigma", flat=True)
    return _robust_sigma(detail[~flat])


def scaled_sigma(z, scale):
    """:func:`estimate_sigma` of ``z / scale`` (``scale``: a noise map of z's
    shape): each detail divided by its cell's mean of the map, the constant
    cells found in z itself (divided by a varying map they would no longer
    look constant, and pull the estimate down)."""
    detail, flat = _haar_detail(z, "estimate_sigma", flat=True)
    _, mean = _haar_detail(scale, "estimate_sigma", means=True)
    return _robust_sigma((detail / mean)[~flat])


def _robust_sigma(detail):
    return float(np.median(np.abs(detail)) / MAD_TO_SIGMA) if detail.size else 0.0


def estimate_sigma_map(z, tile=16):
    """Estimate a per-voxel noise standard deviation that varies slowly in space.

    The robust estimate of :func:`estimate_sigma` (median absolute finest
    diagonal Haar detail / 0.6745) is taken over tiles of ``tile`` samples
    per axis (about 500 detail coefficients per 3-D tile of 16, a 6 % spread)
    and interpolated linearly between tile centres to every voxel. Returns a
    float64 array of z's shape, ready for ``korvo(z, sigma=map)``. Features
    smaller than a tile are not resolved; edges raise a tile's value a little.
    Constant cells are left out as in :func:`estimate_sigma`; a tile with too
    few others (a masked background) takes the estimate of the whole array.
    ``tile`` is at least 6 for a volume and 8 for an image (smaller tiles
    hold too few detail samples; ValueError).
    """
    if _plane(np.asarray(z)).ndim < np.ndim(z):
        return estimate_sigma_map(_plane(np.asarray(z)), tile).reshape(np.shape(z))
    detail, flat = _haar_detail(z, "estimate_sigma_map", flat=True)
    detail = np.where(flat, np.nan, np.abs(detail))
    overall = _robust_sigma(detail[~flat])
    shape = np.shape(z)
    # A tile holds (tile // 2)^ndim detail samples, and needs _TILE_CELLS of them.
    least = 2 * math.ceil(_TILE_CELLS ** (1 / len(shape)) - 1e-9)
    if isinstance(tile, bool) or not isinstance(tile, (int, np.integer)) or tile < least:
        raise ValueError(f"tile must be an integer of at least {least} for a {len(shape)}-D "
                         f"array (smaller tiles hold too few samples to estimate from), "
                         f"got {tile!r}")
    half = max(2, int(tile) // 2)  # tile extent in detail samples
    counts = [max(1, n // half) for n in detail.shape]
    # Tiles of (nearly) equal size covering the detail array: medians per tile.
    edges = [np.linspace(0, n, k + 1).round().astype(int) for n, k in zip(detail.shape, counts)]
    levels = np.empty(counts)
    for index in np.ndindex(*counts):
        cell = detail[tuple(slice(e[i], e[i + 1]) for e, i in zip(edges, index))]
        cell = cell[~np.isnan(cell)]
        levels[index] = np.median(cell) / MAD_TO_SIGMA if cell.size >= _TILE_CELLS else overall
    # Tile centres in voxel coordinates (a detail sample spans two voxels).
    out = levels
    for axis, (e, n) in enumerate(zip(edges, shape)):
        centres = (e[:-1] + e[1:]) - 0.5  # 2 * (midpoint in detail samples) - 0.5
        out = np.apply_along_axis(lambda v: np.interp(np.arange(n), centres, v), axis, out)
    return out


def spread_rows(count, size, limit, unit=1):
    """(groups, rows): of ``count`` groups of ``unit`` consecutive rows,
    making ``size`` samples in all, evenly spaced groups holding at most
    about ``limit`` samples (every group where they all fit), and their rows."""
    keep = min(count, max(1, limit * count // max(size, 1)))
    chosen = np.unique(np.linspace(0, count - 1, keep).round().astype(np.intp))
    return chosen, (unit * chosen[:, None] + np.arange(unit)).ravel()


def _slabwise(function, a, *alongside, out=None):
    """``function`` (elementwise, computing in float64) over ``a``, and the
    same slices of the arrays ``alongside``, a few slices at a time along the
    first axis, into float32 ``out`` (new when None): the values of one call
    on the whole arrays, without their float64 copies."""
    a = np.asarray(a)
    if out is None:
        out = np.empty(a.shape, dtype=np.float32)
    if a.ndim == 0:
        out[...] = function(a, *alongside)
        return out
    per = max(1, _SLAB_SAMPLES // max(1, a[0].size))
    for first in range(0, a.shape[0], per):
        part = slice(first, first + per)
        out[part] = function(a[part], *(b[part] for b in alongside))
    return out


def _plane(a):
    """A volume of one slice (or one row) as the image it is, as korvo takes it."""
    if a.ndim == 3 and a.shape.count(1) == 1:
        return a.reshape([n for n in a.shape if n > 1])
    return a


def _haar_detail(z, who, flat=False, means=False, touching=()):
    """Finest diagonal Haar detail of a 2-D or 3-D array (variance-preserving),
    of the image for a volume of one slice; with ``flat``, also which cells
    are constant, with ``means`` also the cells' means, with ``touching``
    (values) also which cells hold any of them (in that order)."""
    a = _plane(np.asarray(z))
    if a.dtype.kind not in "biuf":
        raise TypeError(f"{who} needs a real array, got dtype {a.dtype}")
    if a.ndim not in (2, 3):
        raise ValueError(f"{who} needs a 2-D or 3-D array, got {a.ndim} dimensions")
    if any(n < 2 for n in a.shape):
        raise ValueError(f"{who} needs at least 2 samples along every axis, got {a.shape}")
    a = a[tuple(slice(0, n - n % 2) for n in a.shape)]
    # A few slices at a time in float64, never a float64 copy of the whole array.
    pairs = a.shape[0] // 2
    per = max(1, _SLAB_SAMPLES // (2 * a[0].size))
    detail = np.empty((pairs,) + tuple(n // 2 for n in a.shape[1:]))
    constant = np.empty(detail.shape, dtype=bool) if flat else None
    mean = np.empty(detail.shape) if means else None
    touched = np.empty(detail.shape, dtype=bool) if len(touching) else None
    for first in range(0, pairs, per):
        part = a[2 * first:2 * (first + per)].astype(np.float64)
        if not np.isfinite(part).all():
            raise NonFiniteError(f"{who}: the array contains NaN or infinite samples")
        detail[first:first + per] = haar_level(part, "H" * a.ndim)
        if flat:
            constant[first:first + per] = constant_cells(part, range(a.ndim))
        if means or touched is not None:
            grouped = part.reshape(sum(((n // 2, 2) for n in part.shape), ()))
            within = tuple(range(1, 2 * a.ndim, 2))
            if means:
                mean[first:first + per] = grouped.mean(axis=within)
            if touched is not None:
                touched[first:first + per] = np.isin(grouped, touching).any(axis=within)
    found = [x for x in (constant, mean, touched) if x is not None]
    return (detail, *found) if found else detail


def constant_cells(cells, axes):
    """Whether each cell of two samples along every axis in ``axes`` (even
    extents there) is constant: zero-filled, masked or padded background,
    saturation. Such cells hold no noise, and their details are zero."""
    axes = set(axes)
    shape, pairs = [], []
    for axis, n in enumerate(cells.shape):
        if axis in axes:
            shape += [n // 2, 2]
            pairs.append(len(shape) - 1)
        else:
            shape.append(n)
    grouped = np.reshape(cells, shape)
    return grouped.max(axis=tuple(pairs)) == grouped.min(axis=tuple(pairs))


def haar_level(cells, kinds):
    """One level of the separable Haar transform of even-sized ``cells``, per
    axis: "L" the normalised sum of neighbours, "H" their difference, "-" the
    axis left as it is. Noise variance is preserved."""
    out = cells
    for axis, kind in enumerate(kinds):
        if kind == "-":
            continue
        even = np.take(out, np.arange(0, out.shape[axis], 2), axis=axis)
        odd = np.take(out, np.arange(1, out.shape[axis], 2), axis=axis)
        out = (even + odd if kind == "L" else even - odd) / np.sqrt(2.0)
    return out


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


def psd_concentration(psd):
    """c = mean(PSD^2) / mean(PSD)^2: 1 for white noise, larger the more the
    noise power is concentrated in frequency. By Parseval it is also the sum
    of the squared normalised noise autocorrelation over all lags, i.e. the
    number of samples whose noise is effectively shared."""
    p = np.asarray(psd, dtype=np.float64)
    return float(np.mean(p * p) / np.mean(p) ** 2)


def _psd_of_rank(psd, ndim):
    """The PSD with ``ndim`` axes: a 3-D one of a plane averaged over kz, a
    2-D one of a volume flat along z (noise independent between slices)."""
    p = np.asarray(psd, dtype=np.float64)
    if p.ndim > ndim:
        p = p.reshape((-1,) + p.shape[-ndim:]).mean(axis=0)
    return p.reshape((1,) * (ndim - p.ndim) + p.shape)


def haar_detail_std(psd, ndim):
    """Standard deviation of the finest diagonal Haar detail (what
    :func:`estimate_sigma` reads) of noise with this PSD, on ``ndim``-D data:
    the detail's sign pattern over the autocovariance of a cell's samples.
    Equal to the noise std for white noise; lower where power sits at low
    frequencies (a fifth of it under 3x3x3 smoothing)."""
    autocov = _autocovariance(psd, ndim)
    corners = list(np.ndindex(*(2,) * ndim))
    total = 0.0
    for a in corners:
        for b in corners:
            # An axis the PSD does not resolve (extent 1) is white along it.
            if any(n == 1 and i != j for i, j, n in zip(a, b, autocov.shape)):
                continue
            lag = tuple((i - j) % n for i, j, n in zip(a, b, autocov.shape))
            total += (-1) ** (sum(a) + sum(b)) * autocov[lag]
    return math.sqrt(max(total, 0.0) / len(corners))


def _autocovariance(psd, ndim):
    """The noise autocovariance by lag on the PSD's grid, with ``ndim`` axes
    (:func:`_psd_of_rank`): E|fftn(noise)|^2 over the PSD's own shape, so its
    own element count normalises it, whatever the rank."""
    return np.fft.ifftn(_psd_of_rank(psd, ndim)).real / np.size(psd)


# Floor of the whitening filter's PSD, relative to its mean: no frequency is
# amplified more than twice (a lower floor lets the noise-free high
# frequencies of the signal dominate the block distances).
WHITENING_FLOOR = 0.25
# Lags the prewhitening kernel keeps on each side of an axis the PSD resolves:
# each prewhitened sample reads only this far, so a part of an array read with
# this much around it prewhitens as the whole array does.
WHITENING_REACH = 16
# Extent of the grid the filter is formed on (finer than a PSD's usual 16, so
# that its kernel is not folded onto itself within the reach).
_WHITENING_GRID = 64
# Arrays up to this many samples are prewhitened by one circular FFT; larger
# ones tile by tile (FFT extent _WHITENING_TILE per axis), since the whole
# array's transform would hold several times its size.
_WHITENING_WHOLE = 1 << 22
_WHITENING_TILE = 160


def _psd_on_grid(psd, shape):
    """The PSD resampled to ``shape`` through its autocovariance (lags within
    half the PSD grid, Nyquist lags shared between both signs), normalised to
    mean 1. A PSD of fewer dimensions than ``shape`` is flat along the leading
    axes, as the stages read it."""
    p = _psd_of_rank(psd, len(shape))
    autocov = np.fft.ifftn(p).real
    placed = np.zeros(shape)
    index, weight = [], np.ones(p.shape)
    for axis, (g, n) in enumerate(zip(p.shape, shape)):
        lags = np.fft.fftfreq(g, 1.0 / g).astype(int)
        if g % 2 == 0 and g > 1:  # lag g/2 belongs to both signs: half on each
            lags = np.append(lags, g // 2)
            half = np.ones(g + 1)
            half[[g // 2, g]] = 0.5
            autocov = np.concatenate([autocov, np.take(autocov, [g // 2], axis=axis)], axis=axis)
            weight = np.concatenate([weight, np.take(weight, [g // 2], axis=axis)], axis=axis)
            weight = weight * half.reshape([-1 if a == axis else 1 for a in range(len(shape))])
        index.append(lags % n)
    np.add.at(placed, np.ix_(*index), autocov * weight)
    spectrum = np.fft.rfftn(placed).real
    # The spectrum's mean over all frequencies is the lag-0 value.
    return spectrum / placed.flat[0]


def whitening_kernel(psd, ndim):
    """The prewhitening filter of ``psd`` for ``ndim``-D data, 1 / sqrt(max(PSD
    / mean(PSD), floor)) on a fine grid, as a kernel of lags -r .. r per axis
    (r = WHITENING_REACH, 0 along axes the PSD does not resolve), and the
    ratio of the filtered noise's standard deviation to the unfiltered one's."""
    p = _psd_of_rank(psd, ndim)
    fine = tuple(1 if g == 1 else max(g, _WHITENING_GRID) for g in p.shape)
    relative = _psd_on_grid(p, fine)
    kernel = np.fft.irfftn(1.0 / np.sqrt(np.maximum(relative, WHITENING_FLOOR)), s=fine,
                           axes=tuple(range(len(fine))))  # numpy 2 deprecates s without axes
    index = []
    for axis, g in enumerate(fine):
        lags = np.arange(-min(g // 2, WHITENING_REACH), min(g // 2, WHITENING_REACH) + 1)
        kernel = np.take(kernel, lags % g, axis=axis)
        index.append(lags % g)
    # The kept kernel's response on the fine grid, over the noise power there
    # (resampling a sharply peaked PSD rings below zero; noise power cannot).
    folded = np.zeros(fine)
    np.add.at(folded, np.ix_(*index), kernel)
    power = np.abs(np.fft.rfftn(folded)) ** 2 * np.maximum(relative, 0.0)
    weights = np.full(relative.shape, 2.0)  # the full spectrum from its half
    weights[..., 0] = 1.0
    if fine[-1] % 2 == 0:
        weights[..., -1] = 1.0
    return kernel, float(np.sqrt(np.sum(weights * power) / np.sum(weights)))


def whitening_reach(psd, ndim):
    """Samples on each side of every axis that one prewhitened sample reads."""
    return tuple(0 if g == 1 else WHITENING_REACH for g in _psd_of_rank(psd, ndim).shape)


def prewhiten(z, psd, surround=False):
    """``z`` filtered by the prewhitening filter of ``psd``
    (:func:`whitening_kernel`), circularly at the array's ends.

    The filtered noise is nearly white: block matching on it no longer
    favours blocks whose low-frequency noise agrees with the reference's.
    ``surround``: z holds :func:`whitening_reach` samples of the array
    around the part to filter (wrapped around at the array's ends), and the
    result is that part, as the whole array's would be up to rounding.
    Returns the float32 result and the standard deviation of its noise
    (``psd`` in ``z``'s units)."""
    z = np.asarray(z)
    kernel, ratio = whitening_kernel(psd, z.ndim)
    reach = [k // 2 for k in kernel.shape]
    if not surround and z.size <= _WHITENING_WHOLE:
        out = _filtered(z, kernel, z.shape).astype(np.float32)
    else:
        core = [max(_WHITENING_TILE - 2 * r, r) if r else _WHITENING_TILE for r in reach]
        # An axis one tile spans is filtered whole and circularly, unpadded: a
        # thin axis padded by the reach multiplied the work (1x2x2^21: minutes).
        whole = [not surround and n <= c for n, c in zip(z.shape, core)]
        reach = [0 if w else r for w, r in zip(whole, reach)]
        core = [n if w else c for w, n, c in zip(whole, z.shape, core)]
        padded = z if surround else np.pad(z, [(r, r) for r in reach], mode="wrap")
        out = np.empty([n - 2 * r for n, r in zip(padded.shape, reach)], dtype=np.float32)
        for tile_index in np.ndindex(*[-(-n // c) for n, c in zip(out.shape, core)]):
            start = [i * c for i, c in zip(tile_index, core)]
            stop = [min(s + c, n) for s, c, n in zip(start, core, out.shape)]
            tile = padded[tuple(slice(s, e + 2 * r) for s, e, r in zip(start, stop, reach))]
            # Zero-filled to a fast FFT length: the samples kept never read the fill.
            filtered = _filtered(tile, kernel, [n if w else _fast_length(n)
                                                for n, w in zip(tile.shape, whole)])
            out[tuple(slice(s, e) for s, e in zip(start, stop))] = filtered[
                tuple(slice(r, n - r) for r, n in zip(reach, tile.shape))]
    return out, psd_sigma(psd) * ratio


def _filtered(a, kernel, shape):
    """``a`` (zero-filled to ``shape``) convolved circularly with the kernel of
    lags -r .. r, as float64 of ``shape``."""
    placed = np.zeros(shape)
    index = [np.arange(-(k // 2), k // 2 + 1) % n for k, n in zip(kernel.shape, shape)]
    np.add.at(placed, np.ix_(*index), kernel)  # lags beyond a short axis fold onto it
    axes = tuple(range(len(shape)))
    # In float64: numpy transforms float32 in float32, whose rounding a part
    # and the whole array would not share.
    data = np.fft.rfftn(np.asarray(a, np.float64), shape, axes)
    return np.fft.irfftn(data * np.fft.rfftn(placed), shape, axes)


def _fast_length(n):
    """The smallest length of only the factors 2, 3 and 5 that is at least n."""
    best = 1 << max(0, (n - 1).bit_length())
    p5 = 1
    while p5 < best:
        p35 = p5
        while p35 < best:
            p = p35
            while p < n:
                p *= 2
            best = min(best, p)
            p35 *= 3
        p5 *= 5
    return best


# Blocks over which the flatness measures compare variances. A block is
# noise-dominated where its variance about its mean is below 1.5 times what
# the noise alone gives it (a signal variance under half the noise's), and
# flat where it is below what nine in ten noise-only blocks show (1.08 times
# for white noise in 8x8x8 blocks, 1.23 in 8x8, more for correlated noise,
# whose block variances spread wider; 1.5 at most): at high noise most
# textured blocks are noise-dominated, and only flat ones tell data with flat
# regions apart.
_FLAT_BLOCK = 8
_NOISE_DOMINATED_RATIO = 1.5
_FLAT_SPREADS = 1.28  # standard deviations of a noise-only block's variance: 9 in 10 below


class Flatness(NamedTuple):
    """Fractions of the data's blocks that are noise-dominated and flat."""
    noise_dominated: float
    flat: float


def block_flatness(z, psd):
    """:class:`Flatness` of the data's 8-sample blocks (8x8x8, or 8x8 in an
    image) under noise of this PSD: the fractions whose variance about their
    own mean is below 1.5 times what the noise alone gives them
    (noise-dominated), and below what nine in ten blocks of noise alone show
    (flat), where block matching sees mostly noise."""
    *counts, total = flat_block_counts(z, psd)
    return Flatness(*(c / total for c in counts))


def flat_block_counts(z, psd):
    """(noise-dominated blocks, flat blocks, blocks) of :func:`block_flatness`,
    to be summed over the chunks of an array too large to hold."""
    a = np.asarray(z)
    b = [min(_FLAT_BLOCK, n) for n in a.shape]
    counts = [n // e for n, e in zip(a.shape, b)]
    cut = a[tuple(slice(0, c * e) for c, e in zip(counts, b))].astype(np.float64)
    split = cut.reshape([x for c, e in zip(counts, b) for x in (c, e)])
    within = split.var(axis=tuple(range(1, 2 * a.ndim, 2)))
    noise, spread = _within_block_variance(psd, b)
    # Never looser than noise-dominated (8x8 blocks under wide kernels spread far).
    ratios = (_NOISE_DOMINATED_RATIO, min(1.0 + _FLAT_SPREADS * spread, _NOISE_DOMINATED_RATIO))
    return (*(int(np.sum(within < ratio * noise)) for ratio in ratios), within.size)


def _within_block_variance(psd, block):
    """(E, relative std) of the variance of noise alone about its block mean,
    x'Ax / n with A = I - J/n: for Gaussian noise of covariance C the mean is
    tr(D)/n and the variance 2 tr(D^2)/n^2, D = ACA. C holds the PSD's
    autocovariance at lags within half its grid (the lag of half the grid at
    half weight, as the stages resample it); farther lags, which a grid
    smaller than the block would wrap onto near ones, are uncorrelated, and an
    axis the PSD does not resolve (extent 1) is white. Cached per PSD: the
    chunks of an array each ask."""
    p = np.ascontiguousarray(psd)
    return _block_variance_of(p.tobytes(), p.shape, p.dtype.str, tuple(block))


@functools.lru_cache(maxsize=8)
def _block_variance_of(data, shape, dtype, block):
    autocov = _autocovariance(np.frombuffer(data, dtype).reshape(shape), len(block))
    where = np.indices(block).reshape(len(block), -1)
    n = where.shape[1]
    index = np.zeros((n, n), dtype=np.intp)
    weight = np.ones((n, n))
    for axis, g in enumerate(autocov.shape):
        lag = where[axis][:, None] - where[axis][None, :]
        index = index * g + lag % g
        reach = np.abs(lag) * 2
        weight *= np.where(reach < g, 1.0, np.where(reach == g, 0.5, 0.0)) if g > 1 else lag == 0
    d = autocov.ravel()[index] * weight
    del index, weight
    d -= d.mean(axis=0, keepdims=True)
    d -= d.mean(axis=1, keepdims=True)
    mean = float(np.trace(d)) / n
    if mean <= 0.0:  # noise constant over a block (all its power at zero frequency)
        return 0.0, 0.0
    return mean, math.sqrt(2.0 * float(np.vdot(d, d))) / n / mean
