"""Every bad input raises ValueError or TypeError before any stage runs; nothing
reaches a native assertion; results are never non-finite."""

import warnings

import dask.array as da
import numpy as np
import pytest

import korvo
from korvo import _native
from korvo.profile import shape_xyz, stage_parameters
from conftest import run_script


@pytest.fixture
def no_native(monkeypatch):
    monkeypatch.setattr(_native, "run_stage", lambda *args: pytest.fail("a stage ran on bad input"))


GOOD = np.zeros((8, 16, 16), np.float32)


def with_value(index, value, base=GOOD):
    a = base.astype(np.float64)
    a.flat[index] = value
    return a


def call(*args, **kwargs):
    return args, kwargs


def each(error, text, *calls):
    return [(c, error, text) for c in calls]


FLAT = np.full((8, 16, 16), 0.5) + 0.1 * np.random.default_rng(0).standard_normal((8, 16, 16))
RGB = np.zeros((32, 32, 3))

REFUSED = [  # (arguments of korvo.korvo), exception, pattern of the message
    # data
    *each(ValueError, "NaN or infinite", call(with_value(5, np.nan), 1.0),
          call(with_value(100, np.inf), 1.0), call(with_value(7, -np.inf), 1.0)),
    (call(np.zeros(64), 1.0), ValueError, "2-D"),
    (call(np.zeros((2, 8, 8, 8)), 1.0), ValueError, "channel_axis"),
    *each(ValueError, "channel_axis=-1", *[call(np.zeros((64, 64, n)), 1.0) for n in (3, 4)]),
    (call(np.zeros((0, 8, 8)), 1.0), ValueError, "empty"),
    (call(np.zeros((3, 16, 16)), 1.0), ValueError, "block_size .* along z"),
    (call(np.zeros((3, 40, 40)), 1.0), ValueError,
     r"along z; for so few slices pass block_size=\(8, 8, 1\)"),
    (call(np.zeros((16, 2, 16)), 1.0), ValueError, "block_size .* along y"),
    (call(np.zeros((5, 40)), 1.0), ValueError, "block_size .* along y"),
    *each(TypeError, "real", call(np.zeros((8, 8, 8), np.complex64), 1.0),
          call(np.array([["a", "b"], ["c", "d"]]), 1.0), call(np.zeros((8, 8, 8), bool), 1.0)),
    # noise
    *each(ValueError, "positive", *[call(GOOD, sigma=s) for s in (-1.0, 0.0, np.array(0.0))]),
    *each(ValueError, "finite", *[call(GOOD, sigma=s) for s in (float("nan"), float("inf"))]),
    *each(TypeError, "number", call(GOOD, sigma=True), call(GOOD, sigma="0.1")),
    (call(GOOD), ValueError, "sigma= .* psd=.*estimate_sigma"),
    (call(GOOD, sigma=0.1, psd=np.ones((8, 8))), ValueError, "not both"),
    # An array sigma is a per-voxel map of the data's shape; a spectrum goes to psd=.
    (call(GOOD, sigma=np.full((8, 8), 0.1)), ValueError, "per-voxel .* broadcast .* psd="),
    (call(GOOD, sigma=[0.1, 0.2]), ValueError, "per-voxel"),
    (call(GOOD, sigma=np.zeros(GOOD.shape)), ValueError, "positive everywhere"),
    (call(GOOD, sigma=with_value(3, np.nan, GOOD + 0.1)), ValueError, "NaN or infinite"),
    (call(GOOD, sigma=with_value(3, 1.0, GOOD + 1e-9)), ValueError, "spans"),
    (call(GOOD, sigma=np.full(GOOD.shape, 0.1), normalize=False), ValueError, "normalize=True"),
    (call(GOOD, psd=np.full((8, 8, 8), -1.0)), ValueError, "negative"),
    *each(ValueError, "NaN or infinite", *[call(GOOD, psd=with_value(3, v))
                                           for v in (np.nan, np.inf)]),
    (call(GOOD, psd=np.zeros((8, 8))), ValueError, "zero everywhere"),
    *each(ValueError, "2-D or 3-D", call(GOOD, psd=np.ones(16)), call(GOOD, psd=np.ones((2,) * 4))),
    (call(GOOD, psd=np.ones((0, 4))), ValueError, "empty"),
    # 3-D noise's planes were read as an image's own spectrum (4 dB lost, silently)
    *each(ValueError, "an image takes a 2-D PSD", call(GOOD[0], psd=np.ones((8, 16, 16))),
          call(GOOD[:1], psd=np.ones((2, 8, 8)))),
    (call(GOOD, psd=np.ones((4, 4), complex)), TypeError, "real"),
    # channels
    (call(RGB, [0.1, 0.1], channel_axis=-1), ValueError, r"one value per channel \(3\)"),
    (call(RGB, [0.1, -0.1, 0.1], channel_axis=-1), ValueError, r"sigma\[1\] must be positive"),
    (call(np.zeros((32, 32)), 0.1, channel_axis=-1), ValueError, "3-D .* or 4-D"),
    (call(RGB, 0.1, channel_axis=3), ValueError, "out of range"),
    (call(RGB, 0.1, channel_axis=True), TypeError, "integer"),
    (call(np.zeros((2, 8, 16, 16)), [0.1, np.nan], channel_axis=0), ValueError, "finite"),
    # ranges single precision cannot carry through the stages
    (call(with_value(77, 1e30, FLAT), sigma=0.1), ValueError, "reaches the stages as"),
    (call(FLAT, sigma=1e-20), ValueError, "reaches the stages as"),
    (call(FLAT + 1e40, sigma=0.1), ValueError, "float32"),
    *each(ValueError, "single precision", *[call(FLAT, psd=np.full((8, 8, 8), v))
                                            for v in (1e300, 1e-300)]),
    (call(FLAT, sigma=0.1, stages="wiener", pilot=with_value(3, 1e30, FLAT)), ValueError,
     "pilot holds"),
    # Below 1e-2 the unnormalised result stopped scaling with the data (0.1 of
    # the range off at 1e-4, silently).
    *each(ValueError, "normalize=True", *[call(FLAT, sigma=s, normalize=False)
                                          for s in (1e-20, 1e-4, 1e13)]),
    # other arguments
    (call(GOOD, 1.0, profile={"hard_threshold": 2.0}), TypeError, "KORVOProfile"),
    (call(GOOD, 1.0, korvo.KORVOProfile()), TypeError, "positional"),
    *each(ValueError, "stages", call(GOOD, 1.0, stages="all"), call(GOOD, 1.0, stages=["ht"])),
    (call(GOOD, 1.0, stages="wiener"), ValueError, "pilot"),
    (call(GOOD, 1.0, stages="wiener", pilot=np.zeros((8, 16, 15))), ValueError, "pilot shape"),
    (call(GOOD, 1.0, stages="wiener", pilot=with_value(0, np.nan)), ValueError, "NaN"),
    (call(GOOD, 1.0, pilot=GOOD), ValueError, "only used"),
    (call(GOOD, 1.0, matches=[]), TypeError, "MatchStorage"),
    (call(GOOD, 1.0, progress="yes"), TypeError, "progress"),
    (call(GOOD, 1.0, profile=korvo.KORVOProfile(psd_work_size=(64, 64, 1))), ValueError,
     "psd_work_size .* smaller than block_size"),
]


@pytest.mark.parametrize("arguments, error, text", REFUSED)
def test_refused_before_any_stage(no_native, arguments, error, text):
    args, kwargs = arguments
    with pytest.raises(error, match=text):
        korvo.korvo(*args, **kwargs)


def test_non_finite_result_is_never_returned(monkeypatch):
    def poisoned(stage, noisy, psd, record, pilot, output, storage, monitor, transforms):
        output[...] = 0.0
        output.flat[3] = np.nan
        return _native.StageStatus.COMPLETED, 0
    monkeypatch.setattr(_native, "run_stage", poisoned)
    with pytest.raises(FloatingPointError, match="non-finite"):
        korvo.korvo(FLAT, 0.1)


@pytest.mark.parametrize("stage", ["ht", "wiener"])
@pytest.mark.parametrize("settings, text", [
    (dict(step=(5, 3, 3)), "step .* larger than block_size .* along x"),
    (dict(step=(3, 3, 9)), "step .* along z"),
    (dict(block_size=(8, 8, 1), step=(3, 9, 1)), "step .* along y"),
])
def test_profile_combinations_refused_at_resolution(no_native, stage, settings, text):
    p = korvo.KORVOProfile()
    for name, value in settings.items():
        setattr(getattr(p, stage), name, value)
    for attempt in (lambda: p.resolve((16, 32, 32)), lambda: korvo.korvo(GOOD, 1.0, profile=p)):
        with pytest.raises(ValueError, match=f"profile.{stage}: {text}"):
            attempt()


@pytest.mark.parametrize("where, name, values, error", [
    ("profile", "hard_threshold", (-1.0, 1e200, float("nan")), ValueError),
    ("profile", "hard_threshold", ("2.7",), TypeError),
    ("profile", "wiener_factor", (0.0, 1e30, 1e-300), ValueError),  # the last failed at the call
    ("profile", "match_variance_weight", (-0.5, 1e9), ValueError),
    ("profile", "psd_work_size", ((12, 16, 16), (64, 64, 64), (16, 16)), ValueError),
    ("profile", "psd_work_size", ((16.0, 16, 16),), TypeError),
    ("profile", "variance_group_limit", (-1, 65), ValueError),
    ("profile", "variance_group_limit", (1.5,), TypeError),
    ("profile", "sharpen", (1,), TypeError),
    ("profile", "sharpen_exponent", (0.0, 1e-300), ValueError),
    ("profile", "num_threads", (0,), ValueError),
    ("profile", "split_block_extraction", ((True, False),), ValueError),
    ("profile", "split_block_extraction", ((1, 0, 0), True), TypeError),
    ("profile", "ht", ({"step": 3},), TypeError),
    ("profile", "no_such_setting", (1,), AttributeError),
    ("stage", "block_size", ((5, 5, 5), (4, 4, 1)), ValueError),
    ("stage", "step", ((3, 0, 3), (3, 3)), ValueError),
    ("stage", "search_window", (-1, 2 ** 31), ValueError),  # past int32: the binding's TypeError
    ("stage", "max_group_size", (0, 12, 128), ValueError),
    ("stage", "match_threshold", (-1.0, float("inf"), 1e31), ValueError),
])
def test_bad_values_are_refused_and_leave_the_profile_unchanged(where, name, values, error):
    profile, stage = korvo.KORVOProfile(), korvo.StageProfile()
    for target in ([profile] if where == "profile" else [profile.ht, stage]):
        for value in values:
            with pytest.raises(error):
                setattr(target, name, value)
    assert profile == korvo.KORVOProfile() and stage == korvo.StageProfile()


@pytest.mark.parametrize("shape", [(20, 30, 40), (30, 40), (4, 9, 9)])
def test_profile_defaults_are_the_library_defaults(shape):
    # The default profile resolves to exactly the library's default record, and
    # so do fresh StageProfile()s (they held generic thresholds: 0.6 dB lost).
    fresh = korvo.KORVOProfile(ht=korvo.StageProfile(), wiener=korvo.StageProfile())
    for stage in (0, 1):
        native = _native.default_parameters(stage, shape_xyz(shape), 1.0)
        for profile in (korvo.KORVOProfile(), fresh):
            record = stage_parameters(profile, stage, shape)
            native.num_threads, native.split_block_extraction = (record.num_threads,
                                                                 record.split_block_extraction)
            assert record == native
    p = korvo.KORVOProfile()
    p.ht.step = 2  # an integer applies to every axis
    assert p.ht.step == (2, 2, 2) and p.resolve((20, 30, 40))["ht"].step == (2, 2, 2)
    # resolve() checks what it is given as a call would, naming the argument.
    for given, error, text in (
            (dict(shape=40), TypeError, "shape"), (dict(shape=(30.5, 40)), TypeError, "shape"),
            (dict(psd=np.ones(16)), ValueError, "2-D or 3-D"),
            (dict(psd=-np.ones((4, 4))), ValueError, "negative"),
            (dict(psd=np.zeros((4, 4))), ValueError, "zero everywhere"),
            (dict(psd=np.ones((4, 4, 4))), ValueError, "image takes a 2-D PSD"),
            (dict(z=np.zeros((10, 10))), ValueError, "z has shape"),
            (dict(channels=0), ValueError, "channels")):
        with pytest.raises(error, match=text):
            p.resolve(**{"shape": (30, 40), **given})


def test_groups_of_one_block_run_and_edited_match_storage_is_refused():
    out = run_script("""
        for shape in ((12, 24, 24), (40, 40)):
            for stages in ("ht", "both"):
                p = korvo.KORVOProfile(num_threads=2)
                p.ht.max_group_size = p.wiener.max_group_size = 1
                z = korvo.phantom(shape) + 0.1 * np.random.default_rng(0).standard_normal(shape)
                print("one", bool(np.isfinite(korvo.korvo(z, 0.1, profile=p, stages=stages)).all()))
        z = korvo.phantom((12, 24, 24))
        p = korvo.KORVOProfile(num_threads=2, split_block_extraction=(False, False, True))
        store = korvo.MatchStorage()
        korvo.korvo(z, 0.1, profile=p, matches=store)
        edits = {
            "count not a power of two": lambda s: s.counts.__setitem__(5, 3),
            "count above the rows' room": lambda s: s.counts.__setitem__(0, 64),
            "count zero": lambda s: s.counts.__setitem__(2, 0),
            "position outside the image": lambda s: s.positions.__setitem__((1, 0), 10**6),
            "position negative": lambda s: s.positions.__setitem__((0, 2), -4),
            "position beyond the band": lambda s: s.positions.__setitem__((0, 2), 8),
            "relative position": lambda s: s.relative_positions.__setitem__((0, 1), 7),
            "rows": lambda s: setattr(s, "rows", 10**6),
        }
        for name, edit in edits.items():
            for key in ("ht", "wiener"):
                stage = getattr(store, key)
                saved = [a.copy() for a in (stage.counts, stage.positions,
                                            stage.relative_positions)]
                rows = stage.rows
                edit(stage)
                try:
                    korvo.korvo(z, 0.1, profile=p, matches=store)
                    print("ACCEPTED", name, key)
                except ValueError as e:
                    print("refused", "cannot be replayed" in str(e) or "blocks" in str(e))
                stage.counts[:], stage.positions[:], stage.relative_positions[:] = saved
                stage.rows = rows
        print("done", bool(np.isfinite(korvo.korvo(z, 0.1, profile=p, matches=store)).all()))
    """).stdout
    lines = out.splitlines()
    assert lines == ["one True"] * 4 + ["refused True"] * 16 + ["done True"], out


def test_noise_level_far_from_the_datas_warns(monkeypatch, capsys, tmp_path):
    # A sigma in other units, or smooth noise passed as white, would otherwise
    # give a result smoothed far beyond the noise, or one left noisy, in silence.
    rng = np.random.default_rng(4)
    clean = korvo.phantom((40, 48, 48))
    z = clean + rng.normal(0, 0.1, clean.shape).astype(np.float32)
    k = np.array([1.0, 2.0, 1.0]) / np.sqrt(6.0)
    kernel = np.einsum("i,j,k->ijk", k, k, k)
    smooth = clean + korvo.coloured_noise(kernel, clean.shape, 0.1, rng)
    magnitude = np.hypot(clean + rng.normal(0, 0.1, clean.shape), rng.normal(0, 0.1, clean.shape))
    monkeypatch.setattr(_native, "run_stage", lambda *a: (_native.StageStatus.COMPLETED, 0))
    plane = korvo.KORVOProfile()  # one slice is checked as an image
    plane.ht.block_size = plane.wiener.block_size = (8, 8, 1)
    with warnings.catch_warnings():
        warnings.simplefilter("error", korvo.NoiseLevelWarning)
        korvo.korvo(z[:1], 0.1, profile=plane)
        for sigma in (0.1, 0.05, 0.25):  # within a factor of three: silent
            korvo.korvo(z, sigma)
        korvo.korvo(z, psd=korvo.white_psd(0.1, (4, 4, 4)))
        korvo.korvo(smooth, psd=korvo.psd_from_kernel(kernel, (16, 16, 16), 0.1))
        korvo.korvo(z, sigma=np.linspace(0.05, 0.2, z.shape[-1]))  # a map within a factor 3
        # The true map beside a constant fill (read as noise 0 once divided by
        # a varying map), and on integer data with noise below one unit.
        ramp = 1 + np.linspace(0, 1, 48)[:, None] * np.linspace(0, 1, 48)
        filled = 500 + rng.standard_normal((48, 48)) * ramp
        filled[:, :29] = 100.0
        korvo.korvo(filled, sigma=ramp, profile=plane)
        korvo.korvo(np.rint(1000 + rng.normal(0, 0.15, z.shape)).astype(np.uint16),
                    sigma=np.full(z.shape, 0.15))
        korvo.korvo(magnitude, noise="rician", sigma=0.1)
        korvo.korvo(magnitude, noise="rician")
        korvo.korvo(da.from_array(z, chunks=24), 0.1)  # dask: checked on the central block
        korvo.korvo(da.from_array(magnitude, chunks=24), noise="rician", sigma=0.1)
        # Pure photon counts on a dark background: their stabilised noise is
        # far below 1 wherever the counts are near zero, which is no error.
        counts = 2.0 * rng.poisson(clean * 10) + rng.normal(0, 2, clean.shape)
        korvo.korvo(counts, noise="poisson-gaussian", gain=2.0, sigma=2.0, offset=0.0)
        korvo.korvo(rng.poisson(clean * 20).astype(float), noise="poisson-gaussian", gain=1.0,
                    sigma=1e-4, offset=0.0)
        # Integer data with noise below one unit: the estimate reads steps of half a unit.
        korvo.korvo(np.rint(100 * clean + rng.normal(0, 0.1, clean.shape)).astype(np.uint8), 0.1)
    for data, sigma, text in ((z, 1.0, r"sigma=1 is 9.\d+ times the noise .* beyond"),
                              # a dask array's chunks were never checked
                              (da.from_array(z, chunks=24), 0.01, r"sigma=0.01 is 1/10.\d+"),
                              (da.from_array(z, chunks=24), {"sigma": da.full(z.shape, 1.0)},
                               r"sigma map, .* 9.\d+ times"),
                              (z, 0.01, r"sigma=0.01 is 1/10.\d+ of the noise .* most of"),
                              (smooth, 0.1, "correlated"),
                              # a map in other units (it was not checked)
                              (z, np.full(z.shape, 1.0), r"sigma map, .* 9.\d+ times"),
                              # a PSD per element instead of over its shape (E|fftn|^2)
                              (z, {"psd": np.full((16, 16, 16), 0.01)}, "PSD's convention"),
                              # none of it at the finest scale (a crash before)
                              (z, {"psd": korvo.psd_from_kernel(np.ones((3, 3, 3)), (3, 16, 16),
                                                                0.1)}, "0, is none of")):
        with pytest.warns(korvo.NoiseLevelWarning, match=text) as caught:
            korvo.korvo(data, **(sigma if isinstance(sigma, dict) else {"sigma": sigma}))
        assert caught[0].filename == __file__  # points at the caller's line
    # An offset above the dark level sends every sample to the transform's zero:
    # the result was flat, in silence.
    for data, options, text in (
            (np.stack([z[0], 10 * z[0], z[0]], axis=-1), dict(sigma=[0.1] * 3, channel_axis=-1),
             r"\(channel 1\)"),
            (magnitude, dict(noise="rician", sigma=1.0), "rician with sigma given"),
            (counts - 150, dict(noise="poisson-gaussian", gain=2.0, sigma=2.0, offset=0.0),
             "100 % of the data lie at or below"),
            # a gain or sigma far beyond the data's units: flat, in silence before
            (counts, dict(noise="poisson-gaussian", gain=1e6), r"span only \d.*e-05"),
            (counts, dict(noise="poisson-gaussian", gain=2.0, sigma=1e6), "span only 0 ")):
        with pytest.warns(korvo.NoiseLevelWarning, match=text) as caught:
            korvo.korvo(data, **options)
        # At the caller's line (the photon checks named korvo's own).
        assert {w.filename for w in caught} == {__file__}, text
    with pytest.warns(korvo.NoiseLevelWarning, match="span only") as caught:
        korvo.noise_models.stabilise(counts, "poisson-gaussian", gain=1e6)
    assert caught[0].filename == __file__
    # The command line prints it on one line, -q or not.
    np.save(tmp_path / "z.npy", z)
    from korvo import cli
    with warnings.catch_warnings():
        warnings.simplefilter("default")
        assert cli.main(["denoise", "-q", str(tmp_path / "z.npy"), str(tmp_path / "out.npy"),
                         "--sigma", "1"]) == 0
    err = capsys.readouterr().err.strip()
    assert err.startswith("korvo: warning: sigma=1 is") and "\n" not in err


def test_pilot_and_memory_limit_mismatches_warn(monkeypatch):
    # A pilot in other units, or the noisy data as the pilot, gave a wrong
    # Wiener result; a memory_limit no band choice meets was passed in silence.
    clean = korvo.phantom((40, 48, 48))
    z = clean + np.random.default_rng(5).normal(0, 0.1, clean.shape).astype(np.float32)
    monkeypatch.setattr(_native, "run_stage", lambda *a: (_native.StageStatus.COMPLETED, 0))
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        korvo.korvo(z, 0.1, stages="wiener", pilot=clean)
        korvo.korvo(z, psd=korvo.white_psd(0.1, (8, 8, 8)), stages="wiener", pilot=clean)
        korvo.korvo(z, 0.1, profile=korvo.KORVOProfile(memory_limit=10**8))
    for pilot, words in ((255 * clean, "differs from z by"), (z, "still holds the noise")):
        with pytest.warns(korvo.NoiseLevelWarning, match=words):
            korvo.korvo(z, 0.1, stages="wiener", pilot=pilot)
    # Groups matched on a prewhitened copy are held for both stages (about nine
    # times the volume here); a limit the bands alone met passed in silence.
    x121 = korvo.psd_from_kernel(np.array([[[1.0, 2.0, 1.0]]]) / np.sqrt(6.0), (8, 8, 8), 0.1)
    assert "match" in korvo.KORVOProfile().resolve(z.shape, x121, z)
    with pytest.warns(RuntimeWarning, match="memory_limit="):
        korvo.korvo(z, psd=x121, profile=korvo.KORVOProfile(memory_limit=8 * z.nbytes))
    # ...and come out of the stages' budget: finer bands met this limit, yet
    # the bands chosen as if the groups took nothing passed it.
    with warnings.catch_warnings(record=True) as seen:
        warnings.simplefilter("always")
        korvo.korvo(z, psd=x121, profile=korvo.KORVOProfile(memory_limit=16 * z.nbytes,
                                                             num_threads=2))
    assert not [w for w in seen if "memory_limit" in str(w.message)]
    record = korvo.KORVOProfile().resolve(z.shape, x121, z)["match"]
    assert korvo.StageMatches(z.shape, record).nbytes == korvo.StageMatches.storage_bytes(record)
    tight = korvo.KORVOProfile(memory_limit=10**6)
    for data in (z, pytest.importorskip("dask.array").from_array(z, chunks=24)):  # lazily too
        with pytest.warns(RuntimeWarning, match=r"memory_limit=1e\+06 bytes is below") as seen:
            korvo.korvo(data, 0.1, profile=tight)
        assert seen[0].filename == __file__
