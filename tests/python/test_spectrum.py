import warnings

import numpy as np
import pytest

import korvo
from korvo import spectrum
from korvo.noise import coloured_noise, estimate_sigma, haar_level, psd_from_kernel, psd_sigma
from korvo.spectrum import estimate_psd

SHAPE = (48, 48, 48)
GRID = (16, 16, 16)
BUSY = (25, 41, 33)  # a small volume with structure everywhere


KERNELS = {
    "white": np.ones((1, 1, 1)),
    "[1,2,1] along x": np.array([[[1.0, 2.0, 1.0]]]) / np.sqrt(6.0),
    "[1,1] along y": np.array([[[1.0], [1.0]]]) / np.sqrt(2.0),
    "3x3x3 smoothing": np.einsum("i,j,k->ijk", *[np.array([0.5, 1.0, 0.5])] * 3) / 1.5 ** 1.5,
}


def _relative_error(est, true):
    return np.linalg.norm(est - true) / np.linalg.norm(true)


def _texture(shape, rng, amplitude, smoothness=400.0):
    """Smooth structure filling the whole volume: no region of noise alone."""
    freqs = np.meshgrid(*[np.fft.fftfreq(n) for n in shape], indexing="ij")
    lowpass = np.exp(-smoothness * sum(f * f for f in freqs))
    field = np.fft.ifftn(np.fft.fftn(rng.standard_normal(shape)) * lowpass).real
    return amplitude * field / field.std()


def _textured(name, amplitude, shape=BUSY, seed=4, smoothness=400.0):
    """Texture plus noise of the named kernel, std 0.1; and the noise's PSD."""
    rng, kernel = np.random.default_rng(seed), KERNELS[name]
    noisy = _texture(shape, rng, amplitude, smoothness) + coloured_noise(kernel, shape, 0.1, rng)
    return noisy, psd_from_kernel(kernel, GRID, 0.1)


@pytest.mark.parametrize("name", KERNELS)
def test_pure_noise_spectra(name):
    # A plain Welch average spreads by sqrt(grid points / voxels) per frequency;
    # the thresholded correlogram must halve that. The short-range fit reads few
    # frequencies at a low quantile, but is exact for kernels two samples long.
    kernel = KERNELS[name]
    noise = coloured_noise(kernel, SHAPE, 0.1, np.random.default_rng(3))
    true = psd_from_kernel(kernel, GRID, 0.1)
    spread = np.sqrt(np.prod(GRID) / np.prod(SHAPE))
    est = estimate_psd(noise)
    assert est.shape == GRID and est.dtype == np.float32
    assert _relative_error(est, true) < 0.5 * spread
    assert psd_sigma(est) == pytest.approx(psd_sigma(true), rel=0.03)
    fit, _ = spectrum._short_range(noise, GRID)
    assert _relative_error(fit, true) < 1.5 * spread
    # Anisotropy: the fit keeps the correlation on its own axis.
    for axis in range(3):
        profile = lambda p: p.mean(axis=tuple(a for a in range(3) if a != axis))  # noqa: E731
        assert _relative_error(profile(fit), profile(true)) < 0.5 * spread


def test_haze_texture_and_brick_wall_spectra():
    # Faint smooth shading passed the homogeneity test and was read as
    # low-frequency noise on every axis (errors 0.62 and 0.33).
    for name in ("white", "[1,2,1] along x"):
        noisy, true = _textured(name, 0.05, SHAPE, seed=5, smoothness=3000.0)
        assert _relative_error(estimate_psd(noisy), true) < 0.1
    # A small volume without background: the homogeneous-block estimate alone
    # read the texture as noise, several times too strong. Rounded to integers,
    # the quantisation step adds white noise of variance 1/12.
    noisy, true = _textured("[1,2,1] along x", 0.3)
    for data, psd in ((noisy, true), (np.round(noisy * 1000).astype(np.int16),
                                      true * 1e6 + np.prod(GRID) / 12.0)):
        est = estimate_psd(data)
        assert psd_sigma(est) == pytest.approx(psd_sigma(psd), rel=0.08)
        assert _relative_error(est, psd) < 0.4
    # Zero-filled k-space along y, half the band kept: a brick-wall spectrum.
    # Regression: two lags rounded its edge off into a peak at zero (error 0.31-0.35).
    rng = np.random.default_rng(4)
    keep = np.abs(np.fft.fftfreq(BUSY[1]))[None, :, None] < 0.25
    noise = np.fft.ifft(np.fft.fft(rng.standard_normal(BUSY), axis=1) * keep, axis=1).real
    noisy = _texture(BUSY, rng, 1.0) + 0.1 * noise / np.sqrt(keep.mean())
    f = np.abs(np.fft.fftfreq(GRID[1]))
    band = np.where(f < 0.25, 1.0, np.where(f == 0.25, 0.5, 0.0))
    true = np.broadcast_to((band / band.mean())[None, :, None], GRID)
    est = estimate_psd(noisy).astype(np.float64)
    assert _relative_error(est / est.mean(), true) < 0.15
    assert psd_sigma(est) == pytest.approx(0.1, rel=0.1)


@pytest.mark.parametrize("name", KERNELS)
@pytest.mark.parametrize("padding", [0, 40])
def test_busy_volume_shape(name, padding):
    # Regression: strong texture leaked into the fit as correlation on every
    # axis. White noise must give exactly the white assumption at
    # estimate_sigma's level, also with noise-free zero padding over half the volume.
    noisy, true = _textured(name, 1.0)
    noisy = np.pad(noisy, ((0, 0), (0, 0), (0, padding)))
    est = estimate_psd(noisy).astype(np.float64)
    assert _relative_error(est / est.mean(), true / true.mean()) < 0.1
    assert psd_sigma(est) == pytest.approx(0.1, rel=0.1)
    if name == "white":
        assert np.ptp(est) == 0
        if not padding:   # the white assumption itself
            assert psd_sigma(est) == pytest.approx(estimate_sigma(noisy), rel=1e-5)


def test_small_images_and_volumes():
    # A busy 96^2 image with 3x3-smoothed noise read 2.2 to 2.4 times the std on
    # its 32^2 grid: no block of 32 or 64 was free of edges.
    kernel = np.ones((3, 3)) / 3.0
    for seed in range(2):
        noise = coloured_noise(kernel, (96, 96), 0.1, np.random.default_rng(seed))
        estimate = estimate_psd(korvo.phantom((96, 96)) + noise)
        assert psd_sigma(estimate) == pytest.approx(0.1, rel=0.15)
    # Data under two grids long miss the long-range part of correlated noise,
    # which then reads low (a third on 16^3): said, not silent.
    smooth = KERNELS["3x3x3 smoothing"]
    for n, warns in ((16, True), (48, False)):
        z = coloured_noise(smooth, (n,) * 3, 0.1, np.random.default_rng(1))
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            estimate_psd(z)
        assert any("twice the PSD grid" in str(w.message) for w in caught) == warns


def test_mask_and_noise_free_padding():
    rng = np.random.default_rng(7)
    kernel = KERNELS["[1,2,1] along x"]
    noise = coloured_noise(kernel, SHAPE, 0.1, rng)
    true = psd_from_kernel(kernel, GRID, 0.1)
    # Strong texture over most of the volume, noise alone in the rest.
    texture = np.zeros(SHAPE)
    texture[:, :, 16:] = rng.standard_normal((48, 48, 32)).cumsum(axis=2) * 0.3
    mask = np.zeros(SHAPE, dtype=np.uint8)
    mask[:, :, :16] = 1
    unmasked = estimate_psd(noise + texture)
    masked = estimate_psd(noise + texture, mask=mask)
    assert _relative_error(masked, true) < 0.1
    assert _relative_error(masked, true) < _relative_error(unmasked, true)
    # Noise-free zero padding must not pull the estimate down.
    padded = np.zeros((48, 48, 96))
    padded[:, :, :48] = noise
    assert psd_sigma(estimate_psd(padded)) == pytest.approx(0.1, rel=0.03)
    # Nor zeros outside a sphere (a masked scan): radii 20 and 14 read 0.1 as
    # 7e-4 and 0.002, and korvo(z, psd=...) then left the noise in.
    shape = (64, 64, 64)
    white = rng.normal(0, 0.1, shape) + korvo.phantom(shape)
    radius = np.sqrt(sum((g - 31.5) ** 2 for g in np.indices(shape)))
    for r in (14, 20):
        assert psd_sigma(estimate_psd(np.where(radius < r, white, 0))) == \
            pytest.approx(0.1, rel=0.1)


@pytest.mark.parametrize("data_shape, grid, expected", [
    (SHAPE, (8, 8, 8), (8, 8, 8)),             # smaller grid, same spectrum
    (SHAPE, (32, 32), (32, 32)),               # independent slices: a 2-D PSD
    ((96, 96), None, (32, 32)),                # an image: korvo's 32x32 work grid
    ((50, 60), None, (32, 32)),                # an image smaller than two grids
    ((10, 40, 40), None, (16, 16, 16)),        # fewer slices than the grid
    ((5, 120, 120), None, (16, 16, 16)),
])
def test_shape_argument(data_shape, grid, expected):
    kernel = np.array([[1.0, 2.0, 1.0]]) / np.sqrt(6.0)
    noise_kernel = kernel if len(data_shape) == 2 else kernel[None]
    noise = coloured_noise(noise_kernel, data_shape, 0.1, np.random.default_rng(11))
    est = estimate_psd(noise, grid)
    true = psd_from_kernel(kernel if len(expected) == 2 else kernel[None], expected, 0.1)
    assert est.shape == expected
    # Half the plain Welch spread (see above), or 0.15 where blocks are few.
    spread = np.sqrt(np.prod(expected) / np.prod(data_shape))
    assert _relative_error(est, true) < max(0.15, 0.5 * spread)


NOISE = np.random.default_rng(0).standard_normal((20, 20, 20))


@pytest.mark.parametrize("args, kwargs, error, words", [
    ((np.full((20, 20, 20), np.nan),), {}, ValueError, "NaN"),
    ((np.ones((20, 20, 20), dtype=complex),), {}, TypeError, "real"),
    ((np.ones(50),), {}, ValueError, "2-D or 3-D"),
    ((np.ones((20, 20)), (8, 8, 8)), {}, ValueError, "shape"),
    *[((NOISE, shape), {}, TypeError, "PSD shape") for shape in (16, (8.5, 8, 8))],
    *[((data,), {}, ValueError, "at least 4")  # the last two gave a PSD
      for data in (np.ones((20, 20, 3)), NOISE[:3, :3, :3], np.full((1, 1), 0.5))],
    ((NOISE * 1e30,), {}, ValueError, "single precision"),  # gave infinities
    ((np.ones((20, 20, 20)),), {"mask": np.ones((20, 20))}, ValueError, "mask has shape"),
    ((np.ones((20, 20, 20)),), {"mask": np.ones((20, 20, 20), complex)}, TypeError, "mask"),
    ((np.ones((20, 20, 20)),), {"mask": np.zeros((20, 20, 20))}, ValueError, "at least 128"),
    ((NOISE,), {"mask": np.pad(np.ones((3, 3, 3), bool), (0, 17))}, ValueError, "marks 27 voxels"),
    *[((np.ones(shape),), {}, ValueError, "non-constant") for shape in ((20, 20, 20), (30, 30))],
])
def test_errors(args, kwargs, error, words):
    with pytest.raises(error, match=words):
        estimate_psd(*args, **kwargs)


def test_large_volumes_are_read_from_evenly_spaced_blocks(monkeypatch):
    # With the sampling limits lowered, a 48^3 volume is read as a large one
    # is: the estimate keeps to the spread of the samples it reads.
    kernel = KERNELS["3x3x3 smoothing"]
    noise = coloured_noise(kernel, SHAPE, 0.1, np.random.default_rng(5))
    true = psd_from_kernel(kernel, GRID, 0.1)
    whole = estimate_psd(noise)
    starts = spectrum._starts(SHAPE, (16, 16, 16), (8, 8, 8))
    monkeypatch.setattr(spectrum, "_MAX_BLOCK_SAMPLES", 40 * 16 ** 3)
    monkeypatch.setattr(spectrum, "_MAX_DETAIL_SAMPLES", 12 * 48 * 48)
    sparse = spectrum._starts(SHAPE, (16, 16, 16), (8, 8, 8), sparse=True)
    assert len(sparse) <= 40 < len(starts)
    # Still a lattice (the overlap correction counts on it), spread over the volume.
    assert len(sparse) == np.prod([len(np.unique(sparse[:, a])) for a in range(3)])
    assert sparse.min() == 0 and sparse.max() >= 24
    sampled = estimate_psd(noise)
    spread = np.sqrt(np.prod(GRID) / (len(sparse) * 16 ** 3))  # of the samples read
    assert _relative_error(sampled, true) < 2 * spread
    assert psd_sigma(sampled) == pytest.approx(psd_sigma(whole), rel=0.03)
    # An image is sampled across its rows (it was read whole).
    image = coloured_noise(np.array([[1.0, 2.0, 1.0]]) / np.sqrt(6.0), (256, 256), 0.1,
                           np.random.default_rng(6))
    read = []
    monkeypatch.setattr(spectrum, "haar_level",
                        lambda a, kinds: read.append(a.size) or haar_level(a, kinds))
    details = spectrum._Details.of(image[None], (1, 32, 32))
    assert max(read) <= 12 * 48 * 48
    assert details.correlated == [2]
    assert psd_sigma(estimate_psd(image)) == pytest.approx(0.1, rel=0.05)


def test_finest_detail_and_block_variance_of_a_psd_match_simulation():
    # What a PSD implies for the data, against noise drawn from it, also across
    # ranks: a 3-D PSD on an image (it read 4x), a 2-D PSD on a volume (its
    # flat axis was taken as fully correlated rather than white).
    from korvo.noise import _within_block_variance, haar_detail_std
    rng = np.random.default_rng(12)
    for kernel in (KERNELS["[1,2,1] along x"], np.ones((3, 3, 3)) / np.sqrt(27)):
        psd = psd_from_kernel(kernel, GRID, 0.1)
        noise = coloured_noise(kernel, (64, 64, 64), 0.1, rng)
        cells = noise.reshape(8, 8, 8, 8, 8, 8).var(axis=(1, 3, 5))
        assert haar_detail_std(psd, 3) == pytest.approx(estimate_sigma(noise), rel=0.03)
        assert haar_detail_std(psd, 2) == pytest.approx(estimate_sigma(noise[7]), rel=0.03)
        mean, spread = _within_block_variance(psd, (8, 8, 8))
        assert mean == pytest.approx(cells.mean(), rel=0.03)
        # The spread of 512 blocks' variances, known to about 3 %.
        assert spread == pytest.approx(cells.std() / cells.mean(), rel=0.12)
    flat = korvo.white_psd(0.1, (16, 16))
    assert _within_block_variance(flat, (8, 8, 8)) == pytest.approx(
        (0.01 * (1 - 1 / 512), np.sqrt(2 / 511)))
    # A grid smaller than the block: its lags are not wrapped onto near ones
    # (white noise on a 4^3 grid read a spread of 0.18 for 0.063, and texture as flat).
    coarse, fine = (_within_block_variance(korvo.white_psd(0.1, (g,) * 3), (8, 8, 8))
                    for g in (4, 16))
    assert coarse == pytest.approx(fine)
    # Noise constant over every block has no spread to scale (a division by zero).
    offset = np.zeros((16, 16, 16))
    offset[0, 0, 0] = 40.96
    assert _within_block_variance(offset, (8, 8, 8)) == (0.0, 0.0)
