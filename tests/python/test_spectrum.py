import numpy as np
import pytest

import korvo
from korvo.noise import coloured_noise, psd_from_kernel, psd_sigma
from korvo.spectrum import estimate_psd

SHAPE = (48, 48, 48)
GRID = (16, 16, 16)


def _smooth(taps):
    t = np.asarray(taps, dtype=np.float64)
    k = t[:, None, None] * t[None, :, None] * t[None, None, :]
    return k / np.sqrt(np.sum(k ** 2))


KERNELS = {
    "white": np.ones((1, 1, 1)),
    "[1,2,1] along x": np.array([[[1.0, 2.0, 1.0]]]) / np.sqrt(6.0),
    "[1,1] along y": np.array([[[1.0], [1.0]]]) / np.sqrt(2.0),
    "3x3x3 smoothing": _smooth([0.5, 1.0, 0.5]),
}


def _relative_error(est, true):
    return np.linalg.norm(est - true) / np.linalg.norm(true)


@pytest.mark.parametrize("name", KERNELS)
def test_pure_noise_spectra(name):
    # A plain Welch average has a per-frequency relative spread of
    # sqrt(grid points / voxels) (that many independent periodogram samples
    # per frequency); the thresholded correlogram must do at least twice as well.
    kernel = KERNELS[name]
    noise = coloured_noise(kernel, SHAPE, 0.1, np.random.default_rng(3))
    est = estimate_psd(noise)
    true = psd_from_kernel(kernel, GRID, 0.1)
    assert est.shape == GRID and est.dtype == np.float32
    assert _relative_error(est, true) < 0.5 * np.sqrt(np.prod(GRID) / np.prod(SHAPE))
    assert psd_sigma(est) == pytest.approx(psd_sigma(true), rel=0.03)


def test_noise_on_phantom_and_integer_data():
    # Signal with a background: the homogeneity test has to keep edges and
    # the smooth interior out; looser tolerance, structure leaks into the
    # lowest frequencies of a few blocks. (The phantom needs whole 16^3
    # blocks of background: at 32x64x64 there are too few.)
    kernel = KERNELS["3x3x3 smoothing"]
    clean = korvo.phantom((48, 96, 96)).astype(np.float64)
    noisy = clean + coloured_noise(kernel, clean.shape, 0.1, np.random.default_rng(5))
    true = psd_from_kernel(kernel, GRID, 0.1)
    est = estimate_psd(noisy)
    assert _relative_error(est, true) < 0.2
    assert psd_sigma(est) == pytest.approx(0.1, rel=0.06)
    # Integer data: the quantisation step adds white noise of variance 1/12.
    counts = np.round(noisy * 1000).astype(np.int16)
    est_int = estimate_psd(counts)
    expected = true * 1e6 + np.prod(GRID) / 12.0
    assert _relative_error(est_int, expected) < 0.2


def test_mask_and_noise_free_padding():
    rng = np.random.default_rng(7)
    kernel = KERNELS["[1,2,1] along x"]
    noise = coloured_noise(kernel, SHAPE, 0.1, rng)
    true = psd_from_kernel(kernel, GRID, 0.1)
    # Strong texture over most of the volume, noise alone in the rest.
    texture = np.zeros(SHAPE)
    texture[:, :, 16:] = rng.standard_normal((48, 48, 32)).cumsum(axis=2) * 0.3
    mask = np.zeros(SHAPE, dtype=bool)
    mask[:, :, :16] = True
    unmasked = estimate_psd(noise + texture)
    masked = estimate_psd(noise + texture, mask=mask)
    assert _relative_error(masked, true) < 0.1
    assert _relative_error(masked, true) < _relative_error(unmasked, true)
    # Noise-free zero padding must not pull the estimate down.
    padded = np.zeros((48, 48, 96))
    padded[:, :, :48] = noise
    assert psd_sigma(estimate_psd(padded)) == pytest.approx(0.1, rel=0.03)


@pytest.mark.parametrize("data_shape, grid, kernel_shape", [
    (SHAPE, (8, 8, 8), None),                 # smaller grid, same spectrum
    (SHAPE, (32, 32), "2d"),                  # independent slices: a 2-D PSD
    ((96, 96), None, "2d"),                   # an image, default 32x32 grid
    ((10, 40, 40), (16, 16, 16), None),       # fewer slices than the grid
])
def test_shape_argument(data_shape, grid, kernel_shape):
    kernel = np.array([[1.0, 2.0, 1.0]]) / np.sqrt(6.0)
    noise_kernel = kernel if len(data_shape) == 2 else kernel[None]
    noise = coloured_noise(noise_kernel, data_shape, 0.1, np.random.default_rng(11))
    est = estimate_psd(noise, grid)
    out = grid or (32, 32)
    true = psd_from_kernel(kernel if len(out) == 2 else kernel[None], out, 0.1)
    assert est.shape == out
    assert _relative_error(est, true) < 0.1


@pytest.mark.parametrize("args, kwargs, error", [
    ((np.full((20, 20, 20), np.nan),), {}, ValueError),
    ((np.ones((20, 20, 20), dtype=complex),), {}, TypeError),
    ((np.ones(50),), {}, ValueError),
    ((np.ones((20, 20)), (8, 8, 8)), {}, ValueError),
    ((np.ones((20, 20, 3)),), {}, ValueError),
    ((np.ones((20, 20, 20)),), {"mask": np.ones((20, 20))}, ValueError),
    ((np.ones((20, 20, 20)),), {"mask": np.zeros((20, 20, 20))}, ValueError),
    ((np.ones((20, 20, 20)),), {}, ValueError),   # constant: nothing to estimate
])
def test_errors(args, kwargs, error):
    with pytest.raises(error):
        estimate_psd(*args, **kwargs)
