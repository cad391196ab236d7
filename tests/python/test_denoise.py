"""End-to-end behaviour of korvo.korvo: quality, invariances, noise models, stage control."""

import warnings

import numpy as np
import pytest

import korvo
from conftest import fast, psnr

SERIAL = korvo.KORVOProfile(num_threads=1)  # several threads vary the last bits


def test_dtype_layout_units_flat_psd_and_constant_map_change_nothing(volume, image,
                                                                     noisy_phantom, rng):
    noisy = noisy_phantom
    by_sigma = korvo.korvo(noisy, 0.1, profile=SERIAL)
    single = korvo.korvo(noisy.astype(np.float32), 0.1, profile=SERIAL)
    # float64, a non-contiguous view and integers all reach the same float32 data
    np.testing.assert_allclose(by_sigma, single, atol=1e-4)
    view = np.ascontiguousarray(noisy.astype(np.float32).transpose(2, 1, 0)).transpose(2, 1, 0)
    assert not view.flags.c_contiguous
    np.testing.assert_allclose(korvo.korvo(view, 0.1, profile=SERIAL), single, atol=1e-4)
    counts = np.round(noisy * 1000).astype(np.int16)
    out = korvo.korvo(counts, np.float64(100.0))
    assert out.dtype == np.float32 and psnr(out / 1000, volume) > psnr(counts / 1000, volume) + 6
    # a z + b with a sigma (or a^2 psd) gives a result + b
    base = by_sigma.astype(np.float64)
    for a, b in ((3.0, 7.0), (0.01, -2.5), (250.0, 1000.0)):
        scaled = korvo.korvo(a * noisy + b, a * 0.1, profile=SERIAL).astype(np.float64)
        np.testing.assert_allclose(scaled, a * base + b, rtol=0, atol=1e-5 * (a + abs(b)))
    psd = korvo.white_psd(0.1, (8, 8, 8)).astype(np.float64)
    base = korvo.korvo(noisy, psd=psd, profile=SERIAL).astype(np.float64)
    scaled = korvo.korvo(4.0 * noisy - 3.0, psd=16.0 * psd, profile=SERIAL).astype(np.float64)
    np.testing.assert_allclose(scaled, 4.0 * base - 3.0, atol=1e-4)
    # A flat PSD of any shape is sigma; so is a constant map, whole or broadcast.
    noisy_image = image + 0.1 * rng.standard_normal(image.shape)
    for z, shapes, expected in (
            (noisy, ((16, 16, 16), (5, 7, 3), (32, 32), (1, 1, 1)), by_sigma),
            (noisy_image, ((24, 24),), korvo.korvo(noisy_image, 0.1, profile=SERIAL))):
        for shape in shapes:
            psd = np.full(shape, 0.01 * np.prod(shape))
            np.testing.assert_allclose(korvo.korvo(z, psd=psd, profile=SERIAL), expected,
                                       atol=2e-4)
    for noise_map in (np.full(volume.shape, 0.1), np.full((1, 1, volume.shape[2]), 0.1)):
        np.testing.assert_allclose(korvo.korvo(noisy, sigma=noise_map, profile=SERIAL), by_sigma,
                                   atol=1e-5)


SMOOTH = np.ones((3, 3, 3)) / np.sqrt(27.0)  # strongly correlated: c = 27 * sum(r^2) / 27
X121 = np.array([[[1.0, 2.0, 1.0]]]) / np.sqrt(6.0)  # correlated along x


def test_coloured_noise_psd_beats_white_assumption_and_adaptation_beats_both(rng):
    clean = korvo.phantom((24, 48, 48)).astype(np.float64)
    scores = {}
    for name, kernel in (("x121", X121), ("smooth", SMOOTH)):
        noisy = clean + korvo.coloured_noise(kernel, clean.shape, 0.1, rng)
        psd = korvo.psd_from_kernel(kernel, (16, 16, 16), 0.1)
        assert korvo.psd_sigma(psd) == pytest.approx(0.1, rel=1e-3)
        plain = korvo.KORVOProfile(adapt_to_psd=False)
        scores[name] = [psnr(korvo.korvo(noisy, korvo.psd_sigma(psd)), clean),
                        psnr(korvo.korvo(noisy, psd=psd, profile=plain), clean),
                        psnr(korvo.korvo(noisy, psd=psd), clean)]
    white, plain, adapted = scores["x121"]
    assert plain > white + 0.5 and adapted > plain - 0.25  # mild colour: little to adapt
    white, plain, adapted = scores["smooth"]
    assert adapted > max(white, plain) + 0.5, scores


@pytest.mark.filterwarnings("error::DeprecationWarning")  # numpy's: an error in a later numpy
def test_psd_concentration_prewhitening_and_adaptation(rng):
    from korvo.noise import prewhiten, psd_concentration
    # c is the sum of the squared normalised autocorrelation: 1 + 2 (4/6)^2 + 2 (1/6)^2.
    c = psd_concentration(korvo.psd_from_kernel(X121, (16, 16, 16)))
    assert c == pytest.approx(1 + 34 / 36)
    assert psd_concentration(korvo.white_psd(1.0, (8, 8, 8))) == 1.0
    shape = (40, 36, 50)
    for kernel, psd in ((X121, korvo.psd_from_kernel(X121, (16, 16, 16), 0.2)),
                        (X121[0], korvo.psd_from_kernel(X121[0], (32, 32), 0.2)),  # per slice
                        (SMOOTH, korvo.psd_from_kernel(SMOOTH, (16, 16, 16), 0.2))):
        noise = korvo.coloured_noise(kernel.reshape((1,) * (3 - kernel.ndim) + kernel.shape),
                                     shape, 0.2, rng)
        white, std = prewhiten(noise, psd)
        assert white.dtype == np.float32 and white.shape == shape
        assert np.std(white) == pytest.approx(std, rel=0.03)
        lag = np.mean(white[..., 1:] * white[..., :-1]) / np.var(white)
        assert lag < 0.4  # 2/3 before; the gain cap keeps the rest
    # Stripes along z: resampling so peaked a PSD rings below zero, which made
    # the filtered noise's std NaN and korvo refuse the call.
    stripes = np.ones((16, 1, 1)) / 4
    white, std = prewhiten(korvo.coloured_noise(stripes, (48, 48, 48), 0.2, rng),
                           korvo.psd_from_kernel(stripes, (16, 16, 16), 0.2))
    assert np.isfinite(std) and np.isfinite(white).all()
    # Arrays beyond one transform go tile by tile, to the same result; an axis
    # one tile spans is filtered whole (padded by the reach, 1x2x2^21 took minutes).
    noise, psd = korvo.coloured_noise(SMOOTH, (3, 12, 400), 0.2, rng), korvo.psd_from_kernel(
        SMOOTH, (16, 16, 16), 0.2)
    whole, extents = prewhiten(noise, psd)[0], []
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(korvo.noise, "_WHITENING_WHOLE", 1000)
        patch.setattr(korvo.noise, "_filtered", lambda a, k, s, f=korvo.noise._filtered:
                      extents.append(tuple(s[:2])) or f(a, k, s))
        np.testing.assert_allclose(prewhiten(noise, psd)[0], whole, atol=1e-5)
    assert set(extents) == {(3, 12)}
    # A flat PSD changes nothing; a coloured one scales the thresholds by its concentration.
    shape, profile = (32, 40, 48), korvo.KORVOProfile()
    plain = profile.resolve(shape)
    flat = profile.resolve(shape, psd=korvo.white_psd(0.3, (16, 16, 16)))
    assert set(flat) == {"ht", "wiener"}
    for key in flat:
        flat[key].psd_size = plain[key].psd_size
        assert repr(flat[key]) == repr(plain[key])
    psd = korvo.psd_from_kernel(SMOOTH, (16, 16, 16))
    c = psd_concentration(psd)
    # Noise this concentrated takes 6x6x6 blocks, matched on the data, Wiener factor scaled...
    large = profile.resolve(shape, psd=psd)
    assert set(large) == {"ht", "wiener"}
    assert {(r.block_size, r.step) for r in large.values()} == {((6, 6, 6), (3, 3, 3))}
    assert large["ht"].threshold_factor == pytest.approx(2.7 ** 2, rel=1e-6)
    assert large["wiener"].wiener_factor == pytest.approx(0.75 * (1 + np.log(c) / 4), rel=1e-6)
    # Asked for on both stages, those blocks take the same factors.
    six = korvo.KORVOProfile()
    six.ht.block_size = six.wiener.block_size = (6, 6, 6)
    assert {k: repr(r) for k, r in six.resolve(shape, psd=psd).items()} == \
        {k: repr(r) for k, r in large.items()}
    # The default block stays where the data are too thin, the noise milder, or
    # groups are recorded or replayed (a replay under other noise was refused).
    assert profile.resolve(shape, psd=psd, matches=korvo.MatchStorage())["ht"].block_size == (4, 4, 4)
    small, store = np.random.default_rng(1).standard_normal((16, 20, 24)), korvo.MatchStorage()
    for noise in (dict(psd=psd), dict(sigma=1.0)):
        korvo.korvo(small, profile=fast(), matches=store, **noise)
    assert profile.resolve((5, 40, 48), psd=psd)["ht"].block_size == (4, 4, 4)
    assert profile.resolve(shape, psd=korvo.psd_from_kernel(X121, (16, 16, 16))
                           )["ht"].block_size == (4, 4, 4)
    profile.ht.block_size = profile.wiener.block_size = (4, 4, 4)
    adapted = profile.resolve(shape, psd=psd)
    assert adapted["ht"].threshold_factor == pytest.approx(2.7 ** 2 * (1 + np.log(c) / 8), rel=1e-6)
    assert adapted["wiener"].wiener_factor == pytest.approx(0.75 * (1 + np.log(c) / 2), rel=1e-6)
    assert adapted["match"].match_threshold < plain["wiener"].match_threshold  # whiter noise
    assert {r.max_group_size for r in adapted.values()} == {32}
    # Groups are matched on the prewhitened copy only where most blocks are flat.
    rng = np.random.default_rng(0)
    noise = korvo.coloured_noise(SMOOTH, shape, 1.0, rng)
    texture = noise + 3 * rng.standard_normal(shape)
    assert korvo.noise.block_flatness(noise, psd).flat > 0.8  # nine in ten, by construction
    assert korvo.noise.block_flatness(texture, psd).noise_dominated == 0
    assert "match" in profile.resolve(shape, psd=psd, z=noise)
    textured = profile.resolve(shape, psd=psd, z=texture)
    assert "match" not in textured
    # Faint texture, as at high noise: noise-dominated blocks but no flat ones.
    # It was matched on the prewhitened copy, with the threshold scales, and lost.
    x121 = korvo.psd_from_kernel(X121, (16, 16, 16))
    faint = korvo.coloured_noise(X121, shape, 1.0, rng) + 0.6 * rng.standard_normal(shape)
    assert korvo.noise.block_flatness(faint, x121).noise_dominated > 0.5
    adapted = profile.resolve(shape, psd=x121, z=faint)
    unadapted = korvo.KORVOProfile(adapt_to_psd=False).resolve(shape, psd=x121)
    assert {k: repr(r) for k, r in adapted.items()} == {k: repr(r) for k, r in unadapted.items()}
    # Without a flat block there is no selection effect: the thresholds stay as written.
    assert textured["ht"].threshold_factor == pytest.approx(2.7 ** 2, rel=1e-6)
    assert textured["wiener"].wiener_factor == pytest.approx(0.75, rel=1e-6)
    profile.adapt_to_psd = False
    assert set(profile.resolve(shape, psd=psd)) == {"ht", "wiener"}
    profile.adapt_to_psd = True
    profile.ht.step = 2  # stages that cannot share groups only scale their thresholds
    assert set(profile.resolve(shape, psd=psd)) == {"ht", "wiener"}
    # Mostly flat data: both stages replay the one set of prewhitened groups.
    volume = np.zeros((16, 32, 32))
    volume[4:12, 8:24, 8:24] = 1.0
    noisy = volume + korvo.coloured_noise(SMOOTH, volume.shape, 0.1, rng)
    psd, store = korvo.psd_from_kernel(SMOOTH, (16, 16, 16), 0.1), korvo.MatchStorage()
    serial = SERIAL.copy()
    serial.ht.block_size = serial.wiener.block_size = (4, 4, 4)
    first = korvo.korvo(noisy, psd=psd, profile=serial, matches=store)
    assert store.ht is store.wiener and store.ht.filled
    for matches in (store, None):
        np.testing.assert_array_equal(
            korvo.korvo(noisy, psd=psd, profile=serial, matches=matches), first)


def test_noise_level_estimates_and_sigma_map(volume, image, rng):
    for sigma in (0.05, 0.2):
        for clean, rel in ((np.zeros((20, 40, 40)), 0.05), (volume, 0.2), (image, 0.2)):
            noisy = clean + sigma * rng.standard_normal(clean.shape)
            assert korvo.estimate_sigma(noisy) == pytest.approx(sigma, rel=rel)
    with pytest.raises(ValueError):
        korvo.estimate_sigma(np.zeros(10))
    # A volume of one slice is the image korvo takes it for (it was refused).
    assert korvo.estimate_sigma(noisy[None]) == korvo.estimate_sigma(noisy)
    np.testing.assert_array_equal(korvo.estimate_sigma_map(noisy[None]),
                                  korvo.estimate_sigma_map(noisy)[None])
    magnitude = np.abs(noisy[None])
    assert korvo.korvo(magnitude, noise="rician", profile=fast()).shape == magnitude.shape
    # A masked MRI: noise inside, exact zeros over 60 % of the volume. The
    # zeros gave sigma 0 (and a map of zeros that korvo refuses).
    masked = np.zeros((20, 40, 40))
    masked[4:16, 8:32, 8:28] = 1 + 0.1 * rng.standard_normal((12, 24, 20))
    assert korvo.estimate_sigma(masked) == pytest.approx(0.1, rel=0.1)
    noise_map = korvo.estimate_sigma_map(masked)
    assert noise_map.min() > 0.05 and noise_map.max() < 0.15
    # Noise whose level grows fourfold across x: the map beats any one level.
    clean = korvo.phantom((24, 48, 64)).astype(np.float64)
    ramp = np.broadcast_to(np.linspace(0.05, 0.2, 64), clean.shape)
    noisy = clean + ramp * rng.standard_normal(clean.shape)
    estimated = korvo.estimate_sigma_map(noisy)
    assert estimated.shape == clean.shape
    assert np.median(np.abs(estimated / ramp - 1)) < 0.1
    # Tiles of 4 and 5 held too few samples and silently gave one constant level.
    assert np.median(np.abs(korvo.estimate_sigma_map(noisy, tile=6) / ramp - 1)) < 0.15
    for image, tile in ((False, 5), (True, 6)):
        with pytest.raises(ValueError, match="at least"):
            korvo.estimate_sigma_map(noisy[0] if image else noisy, tile=tile)
    by_map = psnr(korvo.korvo(noisy, sigma=ramp, profile=SERIAL), clean)
    assert by_map > psnr(korvo.korvo(noisy, sigma=float(np.mean(ramp)), profile=SERIAL), clean) + 2
    assert psnr(korvo.korvo(noisy, sigma=estimated, profile=SERIAL), clean) > by_map - 0.5


@pytest.mark.parametrize("data, sigma", [("volume", 0.15), ("image", 0.08)])
def test_stages_denoise_volume_and_image(data, sigma, rng, request):
    clean = request.getfixturevalue(data)
    noisy = clean + sigma * rng.standard_normal(clean.shape)
    both = korvo.korvo(noisy, sigma, profile=SERIAL)
    ht = korvo.korvo(noisy, sigma, profile=SERIAL, stages="ht")
    assert both.shape == clean.shape and both.dtype == np.float32
    assert psnr(ht, clean) > psnr(noisy, clean) + 5
    assert psnr(both, clean) > psnr(ht, clean)
    # The Wiener stage with the first stage's result as pilot is the two-stage
    # run, up to the rounding of that pilot to the data's units.
    wiener = korvo.korvo(noisy, sigma, profile=SERIAL, stages="wiener", pilot=ht)
    np.testing.assert_allclose(wiener, both, atol=2e-3)
    # A perfect pilot helps the Wiener stage more than the estimate does.
    oracle = korvo.korvo(noisy, sigma, stages="wiener", pilot=clean)
    assert psnr(oracle, clean) > psnr(both, clean)


def test_match_reuse_across_channels(volume, rng):
    sigma = 0.1
    channels = [volume + sigma * rng.standard_normal(volume.shape),
                0.5 * volume[:, ::-1] + sigma * rng.standard_normal(volume.shape)]
    store = korvo.MatchStorage()
    assert store.recorded == {"ht": False, "wiener": False}
    first = korvo.korvo(channels[0], sigma, profile=SERIAL, matches=store)
    assert store.recorded == {"ht": True, "wiener": True}
    np.testing.assert_allclose(first, korvo.korvo(channels[0], sigma, profile=SERIAL), atol=1e-5)
    assert store.ht.rows > 0 and len(store.ht.groups()) == store.ht.rows
    sizes = store.ht.counts[:store.ht.rows]
    assert sizes.max() <= 16 and ((sizes & (sizes - 1)) == 0).all()
    before = store.wiener.counts.copy(), store.wiener.positions.copy()
    # Replaying channel 0's groups on channel 0 reproduces the recording run,
    # also with room for larger groups than were recorded.
    roomy = SERIAL.copy()
    roomy.ht.max_group_size = roomy.wiener.max_group_size = 64
    for profile in (SERIAL, roomy):
        np.testing.assert_array_equal(
            korvo.korvo(channels[0], sigma, profile=profile, matches=store), first)
    # On channel 1 the groups are those of channel 0, not channel 1's own.
    replayed = korvo.korvo(channels[1], sigma, profile=SERIAL, matches=store)
    own = korvo.korvo(channels[1], sigma, profile=SERIAL)
    assert np.abs(replayed - own).max() > 1e-3
    assert psnr(replayed, 0.5 * volume[:, ::-1]) > psnr(channels[1], 0.5 * volume[:, ::-1]) + 5
    for kept, was in zip((store.wiener.counts, store.wiener.positions), before):
        np.testing.assert_array_equal(kept, was)  # replay leaves them be
    # Replay needs the same geometry, and room for the largest stored group.
    other_step, small_groups = korvo.KORVOProfile(), korvo.KORVOProfile()
    other_step.ht.step = 2
    small_groups.wiener.max_group_size = 8
    for z, profile, text in ((channels[0][:, :16], None, "shape"),
                             (channels[0], other_step, "step"),
                             (channels[0], small_groups, "max_group_size")):
        with pytest.raises(ValueError, match=text):
            korvo.korvo(z, sigma, profile=profile, matches=store)
    store.clear()
    assert store.recorded == {"ht": False, "wiener": False}


def test_channels_alone_and_with_shared_groups(volume, image, rng):
    rgb = np.stack([image, image[::-1], image.T], axis=-1)  # each channel as its own call
    noisy, sigmas = rgb + 0.1 * rng.standard_normal(rgb.shape), [0.1, 0.1, 0.12]
    out = korvo.korvo(noisy, sigmas, channel_axis=-1, profile=SERIAL)
    assert out.shape == rgb.shape and out.dtype == np.float32
    for c, sigma in enumerate(sigmas):
        np.testing.assert_array_equal(out[..., c],
                                      korvo.korvo(noisy[..., c], sigma, profile=SERIAL))
    # A clean channel and a noisy one (channels first): every channel is filtered
    # with the groups of the named channel, or of the channels' mean. False with
    # a storage: the first channel's groups serve the others, as separate calls.
    clean = np.stack([volume, 0.5 * volume])  # the same structure, fainter
    sigmas = [0.05, 0.1]
    stack = clean + np.array(sigmas)[:, None, None, None] * rng.standard_normal(clean.shape)
    independent = korvo.korvo(stack, sigmas, channel_axis=0, profile=SERIAL)
    for leader in (False, 0, -2, "mean"):
        store = korvo.MatchStorage()
        out = korvo.korvo(stack, sigmas, channel_axis=0, shared_groups=leader, profile=SERIAL,
                          matches=store)
        for c in range(2):  # every channel replays the one set of groups
            np.testing.assert_array_equal(
                out[c], korvo.korvo(stack[c], sigmas[c], profile=SERIAL, matches=store))
        if leader in (False, 0):
            np.testing.assert_array_equal(out[0], independent[0])
            # The noisy channel gains from the clean one's groups.
            assert psnr(out[1], clean[1]) > psnr(independent[1], clean[1]) + 0.5
    # Unnormalised too, each channel enters the mean in units of its noise level.
    plain, louder = (korvo.korvo(stack * [[[[1]]], [[[a]]]], [sigmas[0], a * sigmas[1]],
                                 channel_axis=0, shared_groups="mean", normalize=False,
                                 profile=SERIAL) for a in (1, 8))
    np.testing.assert_array_equal(louder[0], plain[0])
    # Wiener only: the mean's groups are matched on the mean of the pilots.
    pilot, store = korvo.korvo(stack, sigmas, channel_axis=0, stages="ht"), korvo.MatchStorage()
    out = korvo.korvo(stack, sigmas, channel_axis=0, shared_groups="mean", stages="wiener",
                      pilot=pilot, profile=SERIAL, matches=store)
    np.testing.assert_array_equal(out[1], korvo.korvo(stack[1], sigmas[1], stages="wiener",
                                                      pilot=pilot[1], profile=SERIAL,
                                                      matches=store))
    for bad, error in ((2, ValueError), ("first", ValueError), (1.0, TypeError)):
        with pytest.raises(error, match="shared_groups"):
            korvo.korvo(stack, sigmas, channel_axis=0, shared_groups=bad)
    with pytest.raises(ValueError, match="channel_axis"):
        korvo.korvo(volume, 0.1, shared_groups=True)


def test_threads_band_splitting_and_search_window_change_nothing(noisy_phantom, rng):
    results = [korvo.korvo(noisy_phantom, 0.1, profile=fast(num_threads=threads,
                                                            split_block_extraction=split))
               for threads, split in ((1, (False, False, False)), (2, (False, False, False)),
                                      (2, (False, False, True)), (2, (False, True, True)))]
    for other in results[1:]:
        # Summation order differs between thread counts: last-bit differences,
        # rarely amplified by a tie in matching.
        assert np.abs(other - results[0]).mean() < 1e-5
        np.testing.assert_allclose(other, results[0], atol=2e-3)
    # Yet two threads repeat themselves to the last bit.
    for split in ((False, False, False), (False, False, True)):
        p = korvo.KORVOProfile(num_threads=2, split_block_extraction=split)
        for stages in ("ht", "both"):
            np.testing.assert_array_equal(korvo.korvo(noisy_phantom, 0.1, profile=p, stages=stages),
                                          korvo.korvo(noisy_phantom, 0.1, profile=p, stages=stages))
    # A search window beyond the data is the whole data (12 = extent - block).
    noisy = korvo.phantom((16, 16, 16)) + 0.1 * rng.standard_normal((16, 16, 16))
    results = []
    for window in (12, 30, 1000):
        p = fast(window)
        assert p.resolve(noisy.shape)["ht"].search_window == (12, 12, 12)
        results.append(korvo.korvo(noisy, 0.1, profile=p))
    for other in results[1:]:
        np.testing.assert_array_equal(other, results[0])


def test_profile_settings_and_normalize_reach_the_library(volume, noisy_phantom):
    noisy = noisy_phantom
    base = korvo.korvo(noisy, 0.1, stages="ht")
    p = korvo.KORVOProfile(hard_threshold=0.0)  # nothing is thresholded: output ~ input
    assert np.abs(korvo.korvo(noisy, 0.1, profile=p, stages="ht") - noisy).max() < 1e-3
    p = korvo.KORVOProfile(sharpen=True, sharpen_exponent=0.7, sharpen_exponent_flat=0.7)
    assert np.abs(korvo.korvo(noisy, 0.1, profile=p, stages="ht") - base).max() > 1e-3
    p = korvo.KORVOProfile()
    p.ht.block_size = (8, 8, 1)
    assert p.resolve(volume.shape)["ht"].step == (3, 3, 1)
    assert psnr(korvo.korvo(noisy, 0.1, profile=p, stages="ht"), volume) > psnr(noisy, volume) + 4
    noisy = noisy.astype(np.float32)
    with warnings.catch_warnings():
        warnings.simplefilter("error")  # no rounding warning for data near zero
        raw = korvo.korvo(noisy, 0.1, normalize=False)
    assert psnr(raw, volume) > psnr(korvo.korvo(noisy, 0.1), volume) - 0.5
    # A large offset swamps the noise in single precision (0.7 sigma rms at 1e6
    # sigma, silently): the caller is told.
    with pytest.warns(RuntimeWarning, match="normalize=True"):
        korvo.korvo(noisy + np.float32(1e5), 0.1, normalize=False)
