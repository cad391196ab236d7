"""Signal-dependent noise: photon counts and magnitude MRI made Gaussian.

korvo filters additive Gaussian noise of known level. Two common instruments
produce something else:

* photon counting (fluorescence and electron microscopy, low-dose CT
  projections): z = gain * Poisson(x / gain) + N(offset, sigma^2), whose
  variance grows with the signal;
* magnitude MRI: z = |x + complex Gaussian noise| (Rician, one coil) or the
  root sum of squares over L coils (non-central chi), biased upwards where
  the signal is weak.

A variance-stabilising transform f turns such data into y = f(z) whose noise
is close to Gaussian of unit variance, korvo denoises y with sigma=1, and an
*unbiased* inverse maps the result back: it inverts E[f(z) | x] rather than f
itself, since f is non-linear and E[f(z)] != f(E[z]) where counts or SNR are
low.

    y, inverse = stabilise(z, "poisson-gaussian", gain=g, sigma=s)
    x = inverse(korvo.korvo(y, sigma=1.0))

Everything here needs numpy only; the MRI tables are computed on first use
(about a second per number of coils) and cached.
"""

from __future__ import annotations

import functools
import logging
import math

import numpy as np

from .noise import NonFiniteError, _haar_detail, _slabwise, constant_cells, estimate_sigma
from .validation import NoiseLevelWarning, warn_caller

# Parameters estimated for a call are reported here (INFO); the command line
# prints them.
_log = logging.getLogger("korvo")

__all__ = ["stabilise", "Inverse", "MODELS", "MODEL_PARAMETERS",
           "anscombe", "inverse_anscombe", "inverse_anscombe_algebraic",
           "estimate_poisson_gaussian",
           "rician_vst", "inverse_rician_vst", "rician_moments", "estimate_rician_sigma"]

# Each noise model and the keyword parameters that belong to it.
MODEL_PARAMETERS = {"gaussian": (), "poisson-gaussian": ("gain", "offset"), "rician": ("coils",)}
MODELS = tuple(MODEL_PARAMETERS)


# --------------------------------------------------------------------------- checks

def _float(name, value):
    # float() would take "2" or True: a flag or text where a number belongs.
    if isinstance(value, (str, bytes, bool, np.bool_)):
        raise TypeError(f"{name} must be a number, got {value!r}")
    try:
        return float(value)
    except (TypeError, ValueError):
        raise TypeError(f"{name} must be a number, got {value!r}") from None


def _positive(name, value, allow_zero=False):
    v = _float(name, value)
    if not math.isfinite(v) or v < 0 or (v == 0 and not allow_zero):
        bound = ">= 0" if allow_zero else "> 0"
        raise ValueError(f"{name} must be finite and {bound}, got {value!r}")
    return v


def _coils(coils):
    if isinstance(coils, bool) or not isinstance(coils, (int, np.integer)) or not 1 <= coils <= 16:
        raise ValueError(f"coils must be an integer from 1 to 16, got {coils!r}")
    return int(coils)


def _real(z, who, convert=True):
    """z checked as real and finite; in float64 (``convert``) or as it is."""
    a = np.asarray(z)
    if a.dtype.kind not in "biuf":
        raise TypeError(f"{who} needs real data, got dtype {a.dtype}")
    if convert:
        a = a.astype(np.float64)
    if a.dtype.kind == "f" and not np.isfinite(a).all():
        raise NonFiniteError(f"{who}: the data contain NaN or infinite samples")
    return a


# ------------------------------------------------------------------ photon counts

_SQRT_3_2 = math.sqrt(1.5)
_ANSCOMBE_ZERO = 2.0 * math.sqrt(3.0 / 8.0)  # E[f(z)] at zero counts: the inverse's floor


def anscombe(z, gain=1.0, sigma=0.0, offset=0.0):
    """Generalized Anscombe transform of Poisson-Gaussian data.

    For z = gain * p + n, p ~ Poisson(x / gain), n ~ N(offset, sigma^2):
    f(z) = (2 / gain) * sqrt(gain * z + 3/8 gain^2 + sigma^2 - gain * offset),
    0 where the root's argument is negative. f(z) has nearly unit variance
    once x / gain exceeds a few counts.

    F. Murtagh, J.-L. Starck, A. Bijaoui, "Image restoration with noise
    suppression using a multiresolution support", Astronomy and Astrophysics
    Supplement Series 112, 179-189 (1995); J.-L. Starck, F. Murtagh,
    A. Bijaoui, "Image Processing and Data Analysis: The Multiscale Approach",
    Cambridge University Press (1998).
    """
    gain, sigma, offset = _pg_params(gain, sigma, offset)
    return 2.0 / gain * np.sqrt(np.maximum(_anscombe_root(_real(z, "anscombe"), gain, sigma,
                                                          offset), 0.0))


def _anscombe_root(z, gain, sigma, offset):
    """The argument of the generalized Anscombe transform's square root."""
    return gain * z + 0.375 * gain * gain + sigma * sigma - gain * offset


def inverse_anscombe(d, gain=1.0, sigma=0.0, offset=0.0, clip=False):
    """Unbiased inverse of :func:`anscombe`: from D = E[f(z)] to E[z] = x + offset.

    Closed-form approximation of the exact unbiased inverse, in counts
    (sigma' = sigma / gain):

        I(D) = D^2/4 + sqrt(3/2)/4 D^-1 - 11/8 D^-2 + 5/8 sqrt(3/2) D^-3 - 1/8 - sigma'^2,

    then scaled by the gain and shifted by the offset. Below D0, where I
    reaches zero counts, the curve continues by odd reflection,
    I(D) = -I(2 D0 - D): denoised values scatter about D0 where there is no
    signal, and clipping them at zero (``clip=True``) lifts the mean of dark
    regions, though it lowers their squared error.

    "A closed-form approximation of the exact unbiased inverse of the
    Anscombe variance-stabilizing transformation", IEEE Transactions on Image
    Processing 20(9), 2697-2698 (2011); "Optimal inversion of the generalized
    Anscombe transformation for Poisson-Gaussian noise", IEEE Transactions on
    Image Processing 22(1), 91-103 (2013).
    """
    gain, sigma, offset = _pg_params(gain, sigma, offset)
    s2 = (sigma / gain) ** 2
    # D0: the closed form is increasing from 2 sqrt(3/8), where it is zero.
    lo, hi = _ANSCOMBE_ZERO, _ANSCOMBE_ZERO + 2.0 * math.sqrt(s2) + 2.0
    for _ in range(60):
        mid = 0.5 * (lo + hi)
        lo, hi = (mid, hi) if _closed_form(mid) < s2 else (lo, mid)
    return gain * _odd_about(_real(d, "inverse_anscombe"), lo,
                             lambda u: np.maximum(_closed_form(u) - s2, 0.0), clip) + offset


def _closed_form(d):
    return (0.25 * d * d + 0.25 * _SQRT_3_2 / d - 1.375 / (d * d)
            + 0.625 * _SQRT_3_2 / d ** 3 - 0.125)


def _odd_about(d, floor, inverse, clip):
    """inverse(d) for d >= floor, -inverse(2 floor - d) below (0 with clip)."""
    above = inverse(floor + np.abs(d - floor))
    return np.where(d >= floor, above, 0.0 if clip else -above)


def inverse_anscombe_algebraic(d, gain=1.0, sigma=0.0, offset=0.0):
    """The transform's plain inverse f^-1(D): biased low at a few counts; for comparison."""
    gain, sigma, offset = _pg_params(gain, sigma, offset)
    d = np.maximum(_real(d, "inverse_anscombe_algebraic"), 0.0)
    counts = 0.25 * d * d - 0.375 - (sigma / gain) ** 2
    return gain * np.maximum(counts, 0.0) + offset


def _pg_params(gain, sigma, offset):
    gain = _positive("gain", gain)
    sigma = _positive("sigma", sigma, allow_zero=True)
    offset = _float("offset", offset)
    if not math.isfinite(offset):
        raise ValueError(f"offset must be finite, got {offset!r}")
    return gain, sigma, offset


def estimate_poisson_gaussian(z):
    """Estimate (gain, sigma, offset) of Poisson-Gaussian noise from one 2-D or 3-D array.

    Fits var(z) = gain * E[z] + b to local statistics, in the manner of
    "Practical Poissonian-Gaussian noise modeling and fitting for single-image
    raw-data", IEEE Transactions on Image Processing 17(10), 1737-1754
    (2008): every
    2x2(x2) cell gives a finest diagonal Haar detail whose variance is the
    cell's mean noise variance (smooth content cancels in it); cells are
    binned by the mean of their neighbours, cells whose neighbours differ
    more than noise alone makes them differ (edges, texture) are left out,
    each bin stands at its cells' own mean, and a weighted least-squares
    line (weights from the spread of both a bin's variance and its level) is
    fitted through the bins' detail variances, leaving out bins far off it
    and fitting again.

    One image identifies only b = sigma^2 - gain * offset, which is all the
    transform and its inverse use: the result is (gain, sqrt(b), 0.0) when
    b >= 0, else (gain, 0.0, -b / gain).

    Raises ValueError when the data show no signal-dependent noise (a fitted
    gain within three standard errors of zero), e.g. Gaussian noise or too
    little signal range.
    """
    def fit(levels, variances, counts):
        design = np.stack([levels, np.ones_like(levels)], axis=1)
        # Unweighted first: the many bins of a flat background, whose tiny
        # variances would weigh most, cannot tip its slope.
        (gain, b), *_ = np.linalg.lstsq(design, variances, rcond=None)
        floor = (1e-6 * variances.max()) ** 2 + 1e-300
        for _ in range(4):
            predicted = np.abs(design @ (gain, b))
            # Without the spread of its levels a flat background's bins,
            # whose levels differ by their noise alone, set the slope.
            sw = 1 / np.sqrt(np.maximum(_bin_spread(predicted, counts, gain), floor))
            (gain, b), *_ = np.linalg.lstsq(design * sw[:, None], variances * sw, rcond=None)
        predicted = np.abs(design @ (gain, b))
        weighted = design * sw[:, None]
        covariance = np.linalg.pinv(weighted.T @ weighted)
        return (gain, b, math.sqrt(max(covariance[0, 0], 0.0)), covariance), predicted

    # Cells at a frequent lowest or highest value (zero-filled, masked or
    # saturated parts, or counts of zero) join the fit only where they agree
    # with the line of the others: a clipped cell's variance is too low.
    regular, aside, ceiling = _unclipped_noise(z, "estimate_poisson_gaussian")
    if ceiling is not None:
        if len(regular[0]) < 3 or not np.ptp(regular[0]) > 4 * np.sqrt(np.median(regular[1])):
            raise ValueError("estimate_poisson_gaussian: below the data's ceiling (saturation) "
                             "too little signal range is left to tell photon noise from read "
                             "noise; give gain, sigma and offset")
    if len(regular[0]) < 3:
        regular, aside = tuple(np.concatenate(pair) for pair in zip(regular, aside)), ()
    if len(regular[0]) < 3:  # no line to fit (data without noise, such as repeated slices)
        raise ValueError("estimate_poisson_gaussian: too few parts of the data show noise to "
                         "fit its level against the signal; give gain, sigma and offset")
    gain, b, error, covariance = _robust_fit(fit, *regular)
    if len(aside) and len(aside[0]):
        levels, variances, counts = aside
        design = np.stack([levels, np.ones_like(levels)], axis=1)
        predicted = design @ (gain, b)
        known = np.einsum("ij,jk,ik->i", design, covariance, design)  # the line's own spread
        spread = np.sqrt(_bin_spread(np.abs(predicted), counts, gain) + np.abs(known))
        # Far from every other level (a floor well below the data, as zero
        # filling leaves) the line would only be extrapolated: kept out.
        nearest = np.abs(levels[:, None] - regular[0][None, :]).argmin(axis=1)
        close = np.abs(levels - regular[0][nearest]) <= 5 * np.sqrt(regular[1][nearest])
        agree = close & (np.abs(variances - predicted) <= 4 * spread)
        if agree.any():
            gain, b, error, _ = _robust_fit(fit, *(np.concatenate([r, a[agree]])
                                                   for r, a in zip(regular, aside)))
    if not gain > 3 * error:
        raise ValueError(f"estimate_poisson_gaussian: no signal-dependent noise found (gain "
                         f"{gain:.3g} +- {error:.2g}); the data look Gaussian (use "
                         f"estimate_sigma), or hold too narrow a range of signal (give gain, "
                         f"sigma and offset)")
    if b >= 0:
        return float(gain), float(math.sqrt(b)), 0.0
    return float(gain), 0.0, float(-b / gain)


# ------------------------------------------------------- local noise statistics

_BINS = 24
# A cell is noise-dominated while its neighbours' means spread at most this
# many times what noise alone gives (their sample variance over 26 or 24
# neighbours has a relative spread of about 0.28, so noise alone stays under
# it). Measured against keeping the smoother half of each bin, on phantoms of
# 32^3 to 96^3 and 96^2 to 256^2 and on MRI, CT and microscopy crops at 5, 20
# and 100 photons: no refusals (the smoother half refused 96^3 and 40^3
# phantoms at 100 photons), the gain's rms log error 0.32 -> 0.26.
_ROUGH_LIMIT = 3.0
# An extreme value held by more samples than this is a floor or a ceiling.
_EXTREME_SHARE = 0.01
_KEEP_FRACTION = 0.1
_CHI2_1_MEDIAN = 0.4549364231195724


def _binned_noise(z, who, apart=None):
    """(level, detail variance, cell count) per bin of local mean; with
    ``apart`` (values, such as a frequent lowest or highest one: zero-filled,
    masked or saturated parts, or photon counts of zero), those of the other
    cells and those of the cells holding one of them, binned apart.

    Cells are sorted by the mean of the cells around them (3^3 or 5^2 cells,
    own cell left out: its noise is then independent of the cell's detail, so
    binning by it cannot bias the variances); a bin's level is its cells' own
    mean, which that sorting cannot bias either. Cells whose neighbours' means
    spread more than noise alone would spread them are left out (edges and
    texture); a bin that keeps too few cells (all edges, as in small volumes)
    is left out.
    """
    detail, means, *touched = _haar_detail(z, who, means=True, touching=apart or ())
    width = 3 if means.ndim == 3 else 5
    size = width ** means.ndim
    level = (_box(means, width) * size - means) / (size - 1)
    rough = (_box(means * means, width) * size - means * means) / (size - 1) - level * level
    d2, level, rough, own = detail.ravel() ** 2, level.ravel(), rough.ravel(), means.ravel()
    if d2.size < 8 * _BINS:
        raise ValueError(f"{who} needs at least {8 * _BINS} cells of 2 samples per axis, "
                         f"got {d2.size}")
    if apart is None:
        return _bins(np.argsort(level, kind="stable"), d2, rough, own, means.ndim)
    apart = touched[0].ravel() if touched else np.zeros(d2.size, dtype=bool)
    return tuple(_bins(np.flatnonzero(side)[np.argsort(level[side], kind="stable")], d2, rough,
                       own, means.ndim) for side in (~apart, apart))


def _unclipped_noise(z, who):
    """(regular, aside, ceiling): :func:`_binned_noise` of the cells away from a
    frequent lowest or highest value, less the bins near such a ceiling (their
    cells keep only the samples below it: too little variance), and of the
    cells holding one; the ceiling (None: none)."""
    floor, ceiling = _frequent_extremes(z)
    regular, aside = _binned_noise(z, who, apart=tuple(v for v in (floor, ceiling)
                                                        if v is not None))
    if ceiling is not None:
        near = regular[0] + 3 * np.sqrt(regular[1]) > float(ceiling)
        regular = tuple(r[~near] for r in regular)
    return regular, aside, ceiling


def _frequent_extremes(z):
    """(floor, ceiling): the data's lowest and highest values, each where over
    _EXTREME_SHARE of the samples hold it exactly, else None."""
    a = np.asarray(z)
    return tuple(value if np.count_nonzero(a == value) > _EXTREME_SHARE * a.size else None
                 for value in (a.min(), a.max()))


def _bin_spread(variance, counts, gain):
    """Variance of a bin's mean detail variance about the line: the sample
    variance of n cells scatters by 2 var^2 / n, and the bin's level (the mean
    of n cells of at least 4 samples) by var / 4n, which the slope turns into
    variance."""
    return 2 * variance ** 2 / counts + gain ** 2 * variance / (4 * counts)


def _bins(order, d2, rough, own, ndim):
    """The bins of the cells in ``order`` (sorted by their neighbours' mean)."""
    out = []
    for part in np.array_split(order, _BINS) if order.size >= 8 * _BINS else []:
        # A neighbour's mean carries its cell's noise variance over the cell's
        # samples; the bin's noise variance is read from its median detail
        # (a chi-square of one degree, whose median is 0.455 of its mean), which
        # edges cannot pull up.
        noise = np.median(d2[part]) / _CHI2_1_MEDIAN
        keep = part[rough[part] <= _ROUGH_LIMIT * noise / 2 ** ndim]
        if keep.size < _KEEP_FRACTION * part.size:
            continue
        keep = keep[d2[keep] <= 30.0 * d2[keep].mean()]  # isolated outliers (hot pixels)
        if keep.size:
            # The bin's level is its cells' own mean: the neighbours' means
            # that sorted them spread by their noise alone where the signal is
            # flat, and as levels those spreads would flatten the fitted line.
            out.append((own[keep].mean(), d2[keep].mean(), keep.size))
    levels, variances, counts = (np.array(c, dtype=np.float64) for c in zip(*out)) if out \
        else (np.empty(0),) * 3
    return levels, variances, counts


def _robust_fit(fit, levels, variances, counts):
    """fit(levels, variances, counts) -> (params, predicted variances), run again
    without the bins more than 4 standard errors off the first fit (edges: above
    it inside a bin, below it where a cell's neighbours are brighter than it)."""
    params, predicted = fit(levels, variances, counts)
    # Bins without noise (pure counts on a dark background: variance 0) stay.
    spread = np.maximum(predicted * np.sqrt(2.0 / counts), 1e-4 * variances.max() + 1e-300)
    excess = (variances - predicted) / spread
    keep = np.abs(excess) < 4.0
    if 3 <= keep.sum() < len(keep):
        params, _ = fit(levels[keep], variances[keep], counts[keep])
    return params


def _box(a, width):
    """Mean over a width^ndim window, edges replicated."""
    pad = width // 2
    p = np.pad(a, pad, mode="edge")
    for axis in range(a.ndim):
        c = np.cumsum(p, axis=axis, out=p)  # in place: two arrays live, not three

        def along(start, stop):
            return tuple(slice(start, stop) if k == axis else slice(None) for k in range(c.ndim))

        # Window i sums c[i + width - 1] - c[i - 1], the first one c[width - 1] alone.
        p = c[along(width - 1, None)].copy()
        p[along(1, None)] -= c[along(None, -width)]
        p /= width
    return p


def _all_around(mask, width):
    """Whether every voxel of the width^ndim window around each is set, edges
    replicated (an erosion): exact, and in booleans, a quarter of a float32
    copy's memory."""
    pad = width // 2
    out = np.pad(mask, pad, mode="edge")
    for axis in range(mask.ndim):
        n = out.shape[axis] - 2 * pad

        def shifted(k):
            return out[tuple(slice(k, k + n) if a == axis else slice(None)
                             for a in range(out.ndim))]

        both = shifted(0).copy()
        for k in range(1, width):
            both &= shifted(k)
        out = both
    return out


# -------------------------------------------------------------- magnitude MRI

_Z_STEP = 0.02
_Z_END = 70.0           # table of f over [0, 70] sigma; slope 1 beyond
_NU_END = 50.0          # table of E[f(z) | nu] up to SNR 50; asymptotic beyond
# Weight of skewness against log variance in the fit. korvo's adaptive
# aggregation shifts the mean of skewed noise, which the inverse, steep near
# zero signal, magnifies; 0.5 trades 6 % of std in the background for that.
_SKEW_WEIGHT = 0.5


def _ive(n, x):
    """exp(-x) I_n(x) for integer 0 <= n <= 15 and x >= 0 (modified Bessel function,
    scaled): power series up to 10; a 160-point midpoint rule of (1/pi) int_0^pi
    exp(x (cos t - 1)) cos(n t) dt up to max(100, 2 n^2), spectrally accurate there;
    beyond, the asymptotic series, whose terms then fall by 4 or more each."""
    x = np.asarray(x, dtype=np.float64)
    out = np.empty_like(x)
    small, big = x <= 10.0, x > max(100.0, 2.0 * n * n)
    mid = ~small & ~big
    k = np.arange(48)[:, None]
    lognorm = np.array([math.lgamma(i + 1) + math.lgamma(i + n + 1) for i in range(48)])[:, None]
    xs = x[small]
    terms = np.exp((2 * k + n) * np.log(np.maximum(xs / 2, 1e-300)) - lognorm)
    out[small] = terms.sum(axis=0) * np.exp(-xs)
    if n == 0:
        out[small & (x == 0)] = 1.0
    theta = (np.arange(160) + 0.5) * np.pi / 160
    out[mid] = (np.exp(x[mid, None] * (np.cos(theta) - 1.0)) * np.cos(n * theta)).mean(axis=1)
    xb, mu = x[big], 4.0 * n * n
    term, total = np.ones_like(xb), np.ones_like(xb)
    for j in range(1, 12):
        term = -term * (mu - (2 * j - 1) ** 2) / (8.0 * j * xb)
        total += term
    out[big] = total / np.sqrt(2 * np.pi * xb)
    return out


def _chi_density(coils, nus, z):
    """Rows: the density of the L-coil magnitude at z for each true magnitude nu (sigma 1),
    p(z | nu) = z (z / nu)^(L-1) exp(-(z^2 + nu^2) / 2) I_(L-1)(z nu), normalised to sum 1."""
    n = coils - 1
    rows = np.empty((len(nus), len(z)))
    logz = np.log(np.maximum(z, 1e-300))
    for i, nu in enumerate(nus):
        if nu == 0:
            rows[i] = np.exp((2 * n + 1) * logz - z * z / 2)
        else:
            rows[i] = np.exp(logz + n * (logz - math.log(nu)) - (z - nu) ** 2 / 2) * _ive(n, z * nu)
    return rows / rows.sum(axis=1, keepdims=True)


class _RicianTable:
    """The stabilising transform and its unbiased inverse for L coils, sigma 1.

    f is built on a grid over [0, 70]: its slope is exp(g) with g the
    delta-method value -log std(z | nu(z)) (nu(z) solving E[z | nu] = z) plus
    a smooth correction on knots every 0.5 up to a few noise levels past the
    central-chi mean, fitted by Levenberg-Marquardt so that on a grid of nu in
    [0, 50] log Var[f(z) | nu] is zero and the skewness of f(z) small;
    expectations are sums over the exact density on the z grid. The std of
    f(z) is within 2 % of 1 for nu >= 1 and 0.94 to 0.97 at nu = 0, where the
    skewness is below 0.05 (-1.3 for one coil when only the variance is
    fitted). Beyond the grid f continues with slope 1, and E[z | nu] with its
    expansion nu + (2L - 1) / (2 nu). "Noise estimation and removal in MR
    imaging: the variance-stabilization approach", IEEE International
    Symposium on Biomedical Imaging, 1809-1814 (2011), optimises such a
    transform; this is our own construction of one.
    """

    def __init__(self, coils):
        self.coils = coils
        z = np.arange(0.0, _Z_END + _Z_STEP / 2, _Z_STEP)
        nus = np.concatenate([np.arange(0.0, 8.0, 0.1), np.arange(8.0, _NU_END + 0.25, 0.5)])
        p = _chi_density(coils, nus, z)
        mean = p @ z
        var = p @ (z * z) - mean * mean
        base = -0.5 * np.log(np.interp(z, mean, var))
        knots = np.arange(0.0, mean[0] + 3.0 * math.sqrt(coils) + 6.0, 0.5)
        basis = np.stack([np.interp(z, knots, e) for e in np.eye(len(knots))[:-1]], axis=1)
        self.z, self.nus, self.mean, self.std = z, nus, mean, np.sqrt(var)
        self.f, self.ef, self.var, self.skew = self._fit(p, base, basis)

    @staticmethod
    def _fit(p, base, basis):
        def cumulative(a):
            head = np.zeros((1,) + a.shape[1:])
            return np.concatenate([head, np.cumsum(a[1:] + a[:-1], axis=0) * (_Z_STEP / 2)])

        smooth = 0.03 * np.diff(np.eye(basis.shape[1]), 2, axis=0)

        def evaluate(c):
            slope = np.exp(base + basis @ c)
            f = cumulative(slope)
            # Central moments from raw ones: |f| < 100, so the cancellation costs
            # no more than 1e-10 of the third moment.
            ef, ef2, ef3 = p @ f, p @ (f * f), p @ (f * f * f)
            var = ef2 - ef * ef
            mu3 = ef3 - 3 * ef * ef2 + 2 * ef ** 3
            skew = mu3 / var ** 1.5
            r = np.concatenate([np.log(var), _SKEW_WEIGHT * skew, smooth @ c])
            return slope, f, ef, var, mu3, skew, r

        c = np.zeros(basis.shape[1])
        state = evaluate(c)
        damping = 1e-2
        for _ in range(25):
            slope, f, ef, var, mu3, skew, r = state
            df = cumulative(slope[:, None] * basis)
            m1, m2, m3 = p @ df, p @ (f[:, None] * df), p @ ((f * f)[:, None] * df)
            dvar = 2 * (m2 - ef[:, None] * m1)
            dmu3 = 3 * (m3 - 2 * ef[:, None] * m2 + (ef * ef)[:, None] * m1) - 3 * var[:, None] * m1
            dskew = dmu3 / var[:, None] ** 1.5 - 1.5 * mu3[:, None] * dvar / var[:, None] ** 2.5
            jac = np.concatenate([dvar / var[:, None], _SKEW_WEIGHT * dskew, smooth])
            while damping < 1e8:
                step = np.linalg.solve(jac.T @ jac + damping * np.eye(len(c)), -jac.T @ r)
                trial = evaluate(c + step)
                if trial[-1] @ trial[-1] < r @ r:
                    c = c + step
                    state = trial
                    damping = max(damping / 3, 1e-9)
                    break
                damping *= 4
            else:
                break
        return state[1], state[2], state[3], state[5]

    def forward(self, t):
        end = self.z[-1]
        return np.where(t <= end, np.interp(t, self.z, self.f), self.f[-1] + (t - end))

    def inverse(self, d, clip):
        return _odd_about(d, self.ef[0], self._inverse, clip)

    def _inverse(self, d):
        nu = np.interp(d, self.ef, self.nus)
        # Past the table f has slope 1 and E[z | nu] ~ nu + (2L - 1) / (2 nu).
        shifted = d - (self.ef[-1] - self.mean[-1])
        far = shifted * shifted - 2.0 * (2 * self.coils - 1)
        tail = 0.5 * (shifted + np.sqrt(np.maximum(far, 0.0)))
        return np.where(d > self.ef[-1], tail, nu)


@functools.lru_cache(maxsize=None)
def _rician_table(coils):
    return _RicianTable(coils)


def rician_moments(nu, coils=1):
    """(E[z], std[z]) of the L-coil magnitude z at true magnitude ``nu``, in units of sigma."""
    t = _rician_table(_coils(coils))
    nu = np.asarray(nu, dtype=np.float64)
    return np.interp(nu, t.nus, t.mean), np.interp(nu, t.nus, t.std)


def rician_vst(z, sigma, coils=1):
    """Variance-stabilising transform of magnitude MRI data with noise std ``sigma``
    per real channel and ``coils`` coils combined by root sum of squares:
    y = f(z / sigma) has nearly unit noise variance at every true magnitude."""
    sigma, coils = _positive("sigma", sigma), _coils(coils)
    return _rician_table(coils).forward(_magnitudes(z, "rician_vst") / sigma)


def _magnitudes(z, who, convert=True):
    a = _real(z, who, convert)
    if a.size and a.min() < 0:
        raise ValueError(f"{who}: magnitude data cannot be negative (minimum {a.min():.4g}); the "
                         f"Rician model is for magnitude MRI (real, phase or offset images are "
                         f"not magnitudes)")
    return a


def inverse_rician_vst(d, sigma, coils=1, clip=False):
    """Unbiased inverse of :func:`rician_vst`: the true magnitude nu with
    E[f(z / sigma) | nu] = D, in data units. Below D0 = E[f | nu = 0] it
    continues by odd reflection, -nu(2 D0 - D), so that denoised values
    scattered about D0 in the background average to zero; ``clip=True``
    gives 0 there instead (non-negative, lower squared error, biased up)."""
    sigma, coils = _positive("sigma", sigma), _coils(coils)
    return sigma * _rician_table(coils).inverse(_real(d, "inverse_rician_vst"), bool(clip))


def _chi_median(coils):
    """Median of the central chi distribution with 2L degrees of freedom (sigma 1):
    solves P(L, m^2 / 2) = 1/2 with P the regularised lower incomplete gamma function."""
    lo, hi = 0.0, 10.0 + 2.0 * coils
    for _ in range(80):
        m = 0.5 * (lo + hi)
        s = m * m / 2
        cdf = 1.0 - math.exp(-s) * sum(s ** k / math.factorial(k) for k in range(coils))
        lo, hi = (m, hi) if cdf < 0.5 else (lo, m)
    return 0.5 * (lo + hi)


def estimate_rician_sigma(z, coils=1, mask=None):
    """Noise std per real channel of magnitude MRI data (``coils`` coils, root sum of squares).

    With ``mask`` (True on background, where the true magnitude is 0): the
    background's magnitude follows a central chi distribution with 2L degrees
    of freedom, so sigma = median(z[mask]) / median of that distribution
    (sqrt(2 ln 2) for one coil). Without a mask the estimate needs no
    background: local means and finest Haar detail variances of 2x2(x2)
    cells, binned by local level as for :func:`estimate_poisson_gaussian`,
    are fitted with the exact relation Var[z] = sigma^2 s(m / sigma)^2, where
    s(m) is the magnitude's standard deviation at mean m for sigma 1 (0.655
    in a one-coil background, 1 at high SNR). Where the data then shows a
    background (windows of 5^ndim voxels whose mean is that of noise alone,
    at least 2 % of the data), sigma is re-estimated there by maximum
    likelihood, sigma^2 = mean(z^2) / 2L: about four times more precise.
    """
    return _rician_sigma_and_background(z, _coils(coils), mask)[0]


def _rician_sigma_and_background(z, coils, mask, check=True):
    """(sigma, background): :func:`estimate_rician_sigma`, and the voxels it
    took for noise alone (``mask``, or those it found; None without);
    ``check``: whether to check the coil count on them."""
    a = _magnitudes(z, "estimate_rician_sigma", convert=False)
    if mask is not None:
        mask = np.asarray(mask)
        if mask.dtype != bool or mask.shape != a.shape:
            raise ValueError(f"mask must be a boolean array of the data's shape {a.shape}")
        if mask.sum() < 10:
            raise ValueError("estimate_rician_sigma: the mask selects fewer than 10 samples")
        sigma = float(np.median(a[mask].astype(np.float64))) / _chi_median(coils)
        if not sigma > 0:
            raise ValueError("estimate_rician_sigma: the masked background is zero")
        if check:
            _check_coils(a, coils, mask, search=False)
        return sigma, mask
    table = _rician_table(coils)
    # The Gaussian estimate sits within a factor 0.5..2 of the answer (one-coil
    # background: 0.655): a log grid there, then golden-section refinement.
    z_max = float(a.max()) if a.size else 0.0  # magnitudes: no negatives
    centre = math.log(max(estimate_sigma(z), 1e-12 * z_max, 1e-300))

    def fit(levels, variances, counts):
        lv = np.log(np.maximum(variances, 1e-300))

        def misfit(log_sigma):
            s = math.exp(log_sigma)
            std = np.interp(levels / s, table.mean, table.std, left=table.std[0])
            return float(np.sum(counts * (lv - 2 * log_sigma - 2 * np.log(std)) ** 2))

        grid = centre + np.linspace(-0.8, 1.0, 61)
        best = int(np.argmin([misfit(g) for g in grid]))
        lo, hi = grid[max(best - 1, 0)], grid[min(best + 1, len(grid) - 1)]
        ratio = (math.sqrt(5) - 1) / 2
        for _ in range(40):
            a, b = hi - ratio * (hi - lo), lo + ratio * (hi - lo)
            lo, hi = (lo, b) if misfit(a) < misfit(b) else (a, hi)
        s = math.exp(0.5 * (lo + hi))
        return s, (s * np.interp(levels / s, table.mean, table.std, left=table.std[0])) ** 2

    binned = _binned_noise(z, "estimate_rician_sigma")
    if not (binned[1] > 0).all():
        raise ValueError("estimate_rician_sigma: parts of the data hold no noise "
                         "(constant or clipped); give sigma or a background mask")
    sigma, background = _background(np.asarray(z, dtype=np.float32), coils,
                                    float(_robust_fit(fit, *binned)))
    if check:
        _check_coils(a, coils, background)
    return sigma, background


# How far a background's moment ratio may lie from its coil count's before a
# warning: standard errors of the ratio, plus a margin for the search's own
# pick (it chooses windows by their mean; measured within 0.001 on heads).
_COILS_ERRORS, _COILS_MARGIN = 6.0, 0.002
# The coil counts tried where the one given finds no background.
_COILS_TRIED, _COILS_SAMPLES = (1, 2, 4, 8), 1 << 21


def _check_coils(a, coils, background, search=True):
    """Warns (NoiseLevelWarning) when the magnitude data's background reads as
    noise of another coil count: mean(z)^2 / mean(z^2) there is
    Gamma(L + 1/2)^2 / (L Gamma(L)^2) for L coils (0.785 for one, 0.940 for
    four) whatever sigma, so it tells L apart where a background exists. A
    wrong count biases the whole result (1 coil on 4-coil data gave 14.5 dB
    against 26.6). Where the count given finds no background that reads as
    its own, the others of _COILS_TRIED are searched (``search``), each a
    fit of sigma on at most _COILS_SAMPLES voxels."""
    read = None if background is None else _coils_read(a, background, coils, search)
    if read == coils:
        return
    if read is not None:
        _warn_coils(f"the data's background reads as {read}-coil noise, not {coils}-coil", read)
        return
    # A masked (zero-filled) background leaves no noise to read: even tissue
    # passes for noise of more coils there.
    if not search or _zero_cells(a) >= _BG_MIN_FRACTION:
        return
    step = max(1, math.ceil((a.size / _COILS_SAMPLES) ** (1 / a.ndim)))
    part = a[(slice(None, None, step),) * a.ndim]
    for other in _COILS_TRIED:
        if other != coils:
            found = _rician_sigma_and_background(part, other, None, check=False)[1]
            if found is not None and _coils_read(part, found, other) == other:
                _warn_coils(f"no background of {coils}-coil noise was found, but one of "
                            f"{other}-coil noise was", other)
                return


def _coils_read(a, background, coils, darkest=True):
    """The coil count whose moment ratio the background's matches, within
    its standard error: ``coils`` where that one does, else the nearest (None:
    none does, as for a zero-filled background). With ``darkest``, a
    background with a sizeable region of darker noise beside it reads None:
    it is tissue of even signal, which passes for noise of more coils."""
    x = a[background].astype(np.float64)[:: max(1, int(np.count_nonzero(background)) // 10 ** 6)]
    m1, m2 = float(x.mean()), float(np.mean(x * x))
    if not m2 > 0:
        return None
    ratio = m1 * m1 / m2
    # Delta method over the sample moments of z and z^2.
    g1, g2 = 2 * m1 / m2, -m1 * m1 / (m2 * m2)
    spread = float(np.std(g1 * x + g2 * x * x)) / math.sqrt(x.size)
    tolerance = _COILS_ERRORS * spread + _COILS_MARGIN
    fits = [c for c in range(1, 17) if abs(ratio - _chi_ratio(c)) <= tolerance]
    if not fits or darkest and _darker_beside(a, background, m1, float(np.std(x))):
        return None
    return coils if coils in fits else min(fits, key=lambda c: abs(ratio - _chi_ratio(c)))


def _zero_cells(a):
    """The fraction of the data's cells of 2 samples per axis that are all zero."""
    even = a[tuple(slice(0, n - n % 2) for n in a.shape)]
    if not even.size:
        return 0.0
    corner = even[(slice(None, None, 2),) * even.ndim]
    return float(np.mean(constant_cells(even, range(even.ndim)) & (corner == 0)))


# Windows darker than a background by this many standard errors of their
# mean, over this fraction of its size, make it no background.
_DARKER_ERRORS, _DARKER_FRACTION = 4.0, 0.1


def _darker_beside(a, background, mean, std):
    """Whether windows far darker than the background's mean, touching no
    zero (masked, zero-filled), cover a sizeable part of the data."""
    level = mean - _DARKER_ERRORS * std / math.sqrt(_BG_WIDTH ** a.ndim)
    darker = _box(np.asarray(a, dtype=np.float32), _BG_WIDTH) < level
    darker &= _box((a == 0).astype(np.float32), _BG_WIDTH) == 0
    edge = _BG_WIDTH // 2
    inner = darker[tuple(slice(edge, n - edge) for n in a.shape)]
    return np.count_nonzero(inner) > _DARKER_FRACTION * np.count_nonzero(background)


@functools.lru_cache(maxsize=None)
def _chi_ratio(coils):
    return math.exp(2 * (math.lgamma(coils + 0.5) - math.lgamma(coils))) / coils


def _warn_coils(finding, read):
    warn_caller(f"{finding}: a wrong coil count biases the whole result; pass coils={read} "
                f"(--coils {read}) if the data combine {read} coils by root sum of squares",
                NoiseLevelWarning)


# Background search: windows of _BG_WIDTH^ndim voxels whose mean magnitude
# is within _BG_ERRORS standard errors of the noise-only mean, shrunk by
# _BG_SHRINK voxels away from tissue. Tighter windows pick voxels for being
# low (the estimate drops); looser ones let dark tissue in.
_BG_WIDTH, _BG_ERRORS, _BG_SHRINK, _BG_ROUNDS = 5, 4.0, 2, 3
# How far from the fit's noise-only level a background may lie, relative.
_BG_LEVEL = 0.1
# Least background worth using: voxels, and fraction of the data.
_BG_MIN_VOXELS, _BG_MIN_FRACTION = 1000, 0.02


def _background(a, coils, sigma, refine=True):
    """(sigma, background): the data's background where it has one (air
    around the head; None without), and ``sigma`` refined there (unless not
    ``refine``) by the maximum-likelihood estimate of a central chi
    distribution, sigma^2 = mean(z^2) / 2L: within about 0.4 % on a 64^3
    head with a quarter of background, where the fit over all intensities
    reads 1-2 % low. The dark-region estimate of the unbiased inverse moves
    with the square root of the sigma error, so that difference shows
    there."""
    table = _rician_table(coils)
    spread = _BG_ERRORS * table.std[0] / math.sqrt(_BG_WIDTH ** a.ndim)
    window = _box(a, _BG_WIDTH)
    # Windows reaching past the border repeat its voxels, which would then
    # pick themselves for being low.
    inner = np.zeros(a.shape, dtype=bool)
    inner[tuple(slice(_BG_WIDTH // 2, n - _BG_WIDTH // 2) for n in a.shape)] = True
    need = max(_BG_MIN_VOXELS, _BG_MIN_FRACTION * a.size)

    def found(sigma):
        # Both sides: regions quieter than noise (zero-filled, masked) are no background.
        off = window - table.mean[0] * sigma
        quiet = np.abs(off, out=off) <= spread * sigma
        del off
        quiet &= inner
        return _all_around(quiet, 2 * _BG_SHRINK + 1)

    for round_ in range(_BG_ROUNDS):
        background = found(sigma)
        if background.sum() < need and round_ == 0 and refine and spread < _BG_LEVEL * table.mean[0]:
            # The fit can be further off than 4 standard errors (6 % with four
            # coils, where those are 9 % of the mean): look where the window
            # means crowd within its error, and try again there.
            sigma = _densest_noise_level(window[inner], table.mean[0], spread, sigma)
            background = found(sigma)
        if background.sum() < need:
            return sigma, None
        if not refine:
            return sigma, background
        sigma = math.sqrt(float(np.mean(np.square(a[background], dtype=np.float64))) / (2 * coils))
    return sigma, background


def _densest_noise_level(windows, mean, spread, sigma):
    """``sigma`` moved to where window means near the noise-only level
    ``mean * sigma`` crowd most: noise-only windows share one mean to within
    a standard error (``spread`` / 4 of sigma), tissue spreads out."""
    step = spread / _BG_ERRORS / mean
    relative = windows.ravel() / (mean * sigma)
    counts, edges = np.histogram(relative, bins=np.arange(1 - _BG_LEVEL, 1 + _BG_LEVEL + step, step))
    if not counts.any():
        return sigma
    peak = int(np.argmax(counts))
    return sigma * 0.5 * float(edges[peak] + edges[peak + 1])


# ---------------------------------------------------------------- one interface

class Inverse:
    """Maps denoised stabilised data back to data units; ``model`` and ``params``
    (every parameter used, estimated ones included) describe the transform."""

    def __init__(self, model, params, function, lift=None):
        # function(d, clip): elementwise; lift(y): what to take off all of y first.
        self.model, self.params, self._function, self._lift = model, dict(params), function, lift

    def __call__(self, y, clip=False, out=None):
        """The estimate in data units, float32 (into ``out`` when given, which
        may be ``y`` itself); ``clip=True`` keeps it at or above the signal's
        floor (zero signal), which lowers dark regions' squared error but
        biases their mean upwards."""
        y = np.asarray(y)
        lift = self._lift(y) if self._lift is not None else 0.0
        clip = bool(clip)
        return _slabwise(lambda d: self._function(d - lift if lift else d, clip), y, out=out)

    def __repr__(self):
        args = ", ".join(f"{k}={v!r}" for k, v in self.params.items())
        return f"Inverse({self.model!r}, {args})"


# Over this fraction of samples at the transform's zero, the parameters do not
# describe the data: with the true ones, a dark background with read noise
# sends at most 11 % of its samples there (8 % when sigma = gain), pure counts none.
_FLOOR_FRACTION = 0.25


def _check_floor(y, gain, sigma, offset):
    """Warns (NoiseLevelWarning) when much of the data sits at or below the
    photon model's zero, where the transform maps it all to 0: an offset
    above the dark level (or a gain or sigma far off) would otherwise give a
    flat result without a word."""
    share = np.count_nonzero(y == 0) / max(y.size, 1)
    if share > _FLOOR_FRACTION:
        zero = -_anscombe_root(0.0, gain, sigma, offset) / gain
        warn_caller(f"{100 * share:.0f} % of the data lie at or below the photon model's zero "
                    f"(samples <= {zero:.4g} with gain "
                    f"{gain:.4g}, sigma {sigma:.4g}, offset {offset:.4g}), where every sample "
                    f"stabilises to 0 and the result is flat: check the offset (dark level), "
                    f"or leave the parameters out to estimate them", NoiseLevelWarning)


# Stabilised data spanning less than this (between the 0.1th and 99.9th
# percentiles) lie within the noise: real counts of a tenth of a photon
# already span more than 1.
_SPAN_LEAST = 1.0


def _check_span(y, gain, sigma):
    """Warns (NoiseLevelWarning) when the stabilised photon data lie within
    one noise std: a gain or sigma far too large for the data's units (1e6 for
    a gain of 2 gave a flat result) leaves nothing to tell from the noise."""
    sample = y.reshape(-1)[:: max(1, y.size // 10 ** 6)]
    span = float(np.diff(np.percentile(sample, [0.1, 99.9]))[0]) if sample.size else 0.0
    if span < _SPAN_LEAST:
        warn_caller(f"the data span only {span:.3g} once stabilised with gain {gain:.4g} and "
                    f"sigma {sigma:.4g} (its noise std is 1 there): the result would be flat; "
                    f"check that gain and sigma are in the data's units, or leave them out to "
                    f"estimate them", NoiseLevelWarning)


# The data's noise variance over the model's in the brighter half of the
# data: 0.94-1.0 with the right parameters on a confocal stack (binned 2x2,
# peaks of 2 to 20 photons; 1.3 at 100, where its own noise adds) and the
# phantom; 0.5-0.74 for a gain twice too large, 0.1-0.24 ten times too large,
# 0.11 for an offset of 100 left out, 1.5-10 for a gain ten times too small
# (the low end where read noise dominates).
_GAIN_RATIO = (0.4, 3.0)
# Samples the check reads (a central block of a larger array).
_GAIN_SAMPLES = 2 ** 21


def _check_gain(z, gain, sigma, offset):
    """Warns (NoiseLevelWarning) when the data's noise in their brighter half
    (saturated cells left out) is far from what the parameters given predict:
    a gain in other units, or the dark level left out, gave a result left with
    the noise, or smoothed beyond it, without a word."""
    a = np.asarray(z)
    a = a.reshape([n for n in a.shape if n > 1])  # a single slice is an image
    extent = list(a.shape)
    while math.prod(extent) > _GAIN_SAMPLES:  # the middle block, longest axes cut first
        longest = int(np.argmax(extent))
        extent[longest] = max(8, extent[longest] * 3 // 4)
    a = a[tuple(slice((n - e) // 2, (n - e) // 2 + e) for n, e in zip(a.shape, extent))]
    try:
        levels, variances, counts = _unclipped_noise(a, "the gain check")[0]
    except ValueError:  # too small to tell
        return
    # The brighter half of the bins: there the gain matters most, and dark,
    # read-noise bins cannot hide it.
    bright = np.argsort(levels)[len(levels) // 2:]
    predicted = np.maximum(gain * (levels[bright] - offset), 0.0) + sigma * sigma
    if len(bright) < 3 or counts[bright].sum() < 200 or not predicted.max() > 0:
        return
    ratio = float(np.sum(counts[bright] * variances[bright]) /
                  np.sum(counts[bright] * predicted))
    if not _GAIN_RATIO[0] <= ratio <= _GAIN_RATIO[1]:
        warn_caller(f"the data's noise variance is {ratio:.2g} times what photon noise of gain "
                    f"{gain:.4g}, sigma {sigma:.4g} and offset (dark level) {offset:.4g} "
                    f"predicts: one of them is likely off (a gain by about that factor); "
                    f"korvo.estimate_poisson_gaussian(z) estimates all three, as leaving gain "
                    f"out does", NoiseLevelWarning)


_ALLOWED = {"gaussian": {"sigma"},
            "poisson-gaussian": {"gain", "sigma", "offset"},
            "rician": {"sigma", "coils", "mask"}}


def stabilise(z, model="gaussian", *, check=True, **params):
    """Make noise unit-variance Gaussian: returns (y, inverse), y float32.

    Denoise y as white noise of std 1 and call ``inverse`` on the result for
    the estimate in data units (float32):

    * "gaussian": sigma (None: estimate_sigma); y = z / sigma.
    * "poisson-gaussian": gain, sigma, offset for z = gain * Poisson(x / gain)
      + N(offset, sigma^2); gain None estimates all three with
      :func:`estimate_poisson_gaussian`. y = anscombe(z, ...); the inverse is
      :func:`inverse_anscombe` and estimates E[z] = x + offset.
    * "rician": sigma (None: :func:`estimate_rician_sigma`), coils (1),
      mask (background, for the estimate); y = rician_vst(z, sigma, coils);
      the inverse estimates the true magnitude. Where a background is known
      (the mask, or found in the data), the inverse first takes off the
      mean lift denoising gave it, so that it comes back at zero.

    ``check``: warn (NoiseLevelWarning) where the parameters given do not
    fit the data (False where they were checked on other data already, such
    as a dask array's central block).

    Raises ValueError for an unknown model, a parameter the model does not
    take, gain or sigma <= 0 (sigma may be 0 for photon counts), coils < 1,
    or negative magnitudes; TypeError for non-real data.
    """
    if model not in MODELS:
        raise ValueError(f"model must be one of {MODELS}, got {model!r}")
    unknown = set(params) - _ALLOWED[model]
    if unknown:
        raise ValueError(f"model {model!r} takes {sorted(_ALLOWED[model])}, not {sorted(unknown)}")
    if model == "gaussian":
        sigma = params.get("sigma")
        sigma = estimate_sigma(z) if sigma is None else _positive("sigma", sigma)
        y = _slabwise(lambda part: _real(part, "stabilise") / sigma, _real(z, "stabilise", False))

        def scale_back(d, clip):
            return _odd_about(np.asarray(d, np.float64) * sigma, 0.0, np.asarray, clip)

        return y, Inverse(model, {"sigma": sigma}, scale_back)
    if model == "poisson-gaussian":
        if params.get("gain") is None:
            if params.get("sigma") is not None or params.get("offset") is not None:
                raise ValueError("sigma and offset need the gain; give all or estimate all")
            gain, sigma, offset = estimate_poisson_gaussian(z)
            _log.info("estimated photon noise: gain %.6g, sigma %.6g, offset %.6g",
                      gain, sigma, offset)
        else:
            gain, sigma, offset = _pg_params(params["gain"], params.get("sigma") or 0.0,
                                             params.get("offset") or 0.0)
        y = _slabwise(lambda part: anscombe(part, gain, sigma, offset), _real(z, "anscombe", False))
        if check:
            _check_floor(y, gain, sigma, offset)
            _check_span(y, gain, sigma)
            if params.get("gain") is not None:  # estimated parameters agree with the data
                _check_gain(z, gain, sigma, offset)
        return y, Inverse(
            model, {"gain": gain, "sigma": sigma, "offset": offset},
            lambda d, clip: inverse_anscombe(d, gain, sigma, offset, clip))
    coils = _coils(params.get("coils", 1))
    sigma = params.get("sigma")
    if sigma is None:
        sigma, background = _rician_sigma_and_background(z, coils, params.get("mask"))
        _log.info("estimated magnitude noise: sigma %.6g per channel, %d coil%s", sigma, coils,
                  "s" * (coils > 1))
    elif params.get("mask") is not None:
        raise ValueError("a mask is only used to estimate sigma; give one or the other")
    sigma, coils = _positive("sigma", sigma), _coils(coils)
    a = _magnitudes(z, "rician_vst", False)
    y = _slabwise(lambda part: rician_vst(part, sigma, coils), a)
    if params.get("sigma") is not None:
        background = _given_background(a, sigma, coils)
        if check:
            _check_coils(a, coils, background, search=False)
    return y, _magnitude_inverse(sigma, coils, background)


def _given_background(a, sigma, coils):
    """The background of magnitudes ``a`` under a sigma given (None: none)."""
    return _background(np.asarray(a, dtype=np.float32), coils, sigma, refine=False)[1]


def _magnitude_inverse(sigma, coils, background):
    floor = _FloorShift(background, _rician_table(coils).ef[0])
    return Inverse("rician", {"sigma": sigma, "coils": coils},
                   lambda d, clip: inverse_rician_vst(d, sigma, coils, clip), floor.lift)


def _block_inverse(block, inverse):
    """``inverse`` (of :func:`stabilise`, all parameters settled) as
    stabilise(block, ...) would give it for a part of the data, without
    stabilising that part again: magnitude data take the part's own
    background lift; the other models' inverses do not depend on the data."""
    if inverse.model != "rician":
        return inverse
    a = _magnitudes(block, "rician_vst", False)
    params = inverse.params
    return _magnitude_inverse(params["sigma"], params["coils"],
                              _given_background(a, params["sigma"], params["coils"]))


class _FloorShift:
    """Denoised stabilised data less the lift the denoiser gave the
    background. Groups near tissue carry a little of its brightness into
    background blocks several voxels away (+0.005 on average in the
    stabilised units of a 64^3 head at SNR 3, away from all tissue); the
    inverse, steepest at the noise floor, turns such offsets into a dark
    bias of the order of 1 % of the range. The lift itself scatters by about
    0.005 from one noise draw to the next (the denoised background's mean
    is not the noise's), so it steadies the dark bias more than it lowers
    it: over six draws at SNR 3, +1.81 +- 0.55 % against +1.83 +- 0.72 %
    without it (one coil), +2.33 +- 0.36 % against +2.74 +- 1.88 % (four
    coils). Data of another shape, or without a background, pass unchanged."""

    # Strided samples of the background: subsampling adds an error near 1e-4
    # to the lift, and each channel's inverse keeps under a MiB.
    _SAMPLES = 100_000
    _LARGEST = 0.1  # more is no lift by blur: the background was misjudged

    def __init__(self, background, floor):
        self.shape, self.floor = None, floor
        if background is not None and background.any():
            index = np.flatnonzero(background)
            self.shape = background.shape
            self.index = index[::max(1, index.size // self._SAMPLES)]

    def lift(self, d):
        """What to take off ``d``: 0.0 unless it is of the background's shape."""
        if self.shape is None or d.shape != self.shape:
            return 0.0
        lift = float(np.mean(d.reshape(-1)[self.index], dtype=np.float64)) - self.floor
        return lift if abs(lift) <= self._LARGEST else 0.0
