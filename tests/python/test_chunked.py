"""Dask arrays: chunk by chunk, lazily, with the in-memory call's estimate."""

import numpy as np
import pytest

import korvo
from conftest import fast, noisy_pair

da = pytest.importorskip("dask.array")

# Small search windows keep the margins below the volumes, so that chunks
# really are denoised from part of the data.
W3, W2 = (2, 2, 2), (4, 4, 0)
KERNEL = np.array([[[1, 2, 1]], [[2, 4, 2]], [[1, 2, 1]]]) / np.sqrt(36.0)
PSD = korvo.psd_from_kernel(KERNEL, (16, 16, 16), 0.1)
BOX = korvo.psd_from_kernel(np.ones((3, 3, 3)) / np.sqrt(27.0), (16, 16, 16), 0.1)

# shape, chunks, stages, noise, profile settings, texture. Shapes are no
# multiples of the chunks; a chunk of 4 or 5 is thinner than the margin.
CASES = [
    ((30, 37, 41), (11, 16, 20), "both", dict(sigma=0.1), {}, 0),
    # A per-voxel noise map (broadcast along x): each region divided by its part.
    ((30, 37, 41), (11, 16, 20), "both", dict(sigma=np.linspace(0.05, 0.15, 41)), {}, 0),
    ((30, 37, 41), (26, 5, 41), "ht", dict(sigma=0.1), {}, 0),
    ((30, 37, 41), (16, 20, 20), "wiener", dict(sigma=0.1), {}, 0),  # a pilot chunked otherwise
    ((30, 37, 41), (13, 37, 4), "both", dict(psd=PSD), dict(adapt_to_psd=False), 0),
    # The whole array decides, from its chunks' flat-block counts, that textured
    # data skip the prewhitened matching: only the thresholds adapt, exactly.
    ((30, 37, 41), (13, 20, 41), "both", dict(psd=PSD), {}, 0.15),
    # Flat data are matched on a prewhitened copy, which each region takes
    # from the data around it as the whole array's copy has it.
    ((30, 37, 41), (11, 16, 20), "both", dict(psd=PSD), {}, 0),
    # Noise this concentrated takes larger blocks, and so wider margins.
    ((30, 37, 41), (11, 16, 20), "both", dict(psd=BOX), {}, 0),
    ((90, 101), (32, 40), "both", dict(psd=korvo.psd_from_kernel(KERNEL[1], (32, 32), 0.1)), {}, 0),
    ((90, 101), (32, 40), "both", dict(sigma=0.1), {}, 0),
    ((90, 101), (90, 17), "ht", dict(sigma=0.1), {}, 0),
]


@pytest.mark.parametrize("shape, chunks, stages, noise, settings, texture", CASES)
def test_chunks_give_the_in_memory_estimate(shape, chunks, stages, noise, settings, texture):
    z = noisy_pair(shape)[1] + texture * np.random.default_rng(5).standard_normal(shape)
    z = (z * 40 + 300).astype(np.float32)  # an offset the global mean must remove in every chunk
    noise = {k: v * 40 if k == "sigma" else v * 1600 for k, v in noise.items()}
    if texture:
        assert korvo.noise.block_flatness(z, noise["psd"]).flat < 0.4
    profile = fast(W3 if len(shape) == 3 else W2, **settings)
    margin, _ = korvo.chunked.chunk_margin(shape, profile, stages, noise.get("psd"))
    assert max(margin) < max(shape)  # no chunk reads the whole array
    pilot = korvo.korvo(z, profile=profile, stages="ht", **noise) if stages == "wiener" else None
    whole = korvo.korvo(z, profile=profile, stages=stages, pilot=pilot, **noise)
    lazy = korvo.korvo(da.from_array(z, chunks=chunks), profile=profile, stages=stages, **noise,
                       pilot=None if pilot is None else da.from_array(pilot, chunks=(30, 10, 41)))
    assert isinstance(lazy, da.Array) and lazy.dtype == np.float32
    assert lazy.chunks == da.from_array(z, chunks=chunks).chunks
    assert np.abs(lazy.compute() - whole).max() <= 1e-5 * np.ptp(z)


@pytest.mark.parametrize("model, params", [("poisson-gaussian", dict(gain=2.0, sigma=2.0)),
                                           ("rician", dict(sigma=0.1))])
def test_noise_models_chunk_by_chunk(model, params):
    # Photon counts: the in-memory estimate; magnitude data: the same but for
    # the background lift, which each chunk takes from its own background.
    rng = np.random.default_rng(4)
    x = korvo.phantom((30, 37, 41)).astype(np.float64)
    if model == "rician":
        z = np.abs(x + 0.1 * rng.normal(size=x.shape) + 0.1j * rng.normal(size=x.shape))
    else:
        z = 2.0 * rng.poisson(x * 20) + rng.normal(0.0, 2.0, x.shape)
    z = z.astype(np.float32)
    profile = fast(W3)
    whole = korvo.korvo(z, noise=model, profile=profile, **params)
    lazy = korvo.korvo(da.from_array(z, chunks=(11, 16, 20)), noise=model, profile=profile,
                       **params)
    assert isinstance(lazy, da.Array) and lazy.chunks == ((11, 11, 8), (16, 16, 5), (20, 20, 1))
    difference = np.abs(lazy.compute() - whole)
    if model == "rician":
        assert difference.mean() < 0.01 * np.ptp(z)
    else:
        assert difference.max() <= 1e-5 * np.ptp(z)


@pytest.mark.parametrize("shape, options, message", [
    ((20, 20, 20), dict(channel_axis=0), "one by one"),
    ((2, 20, 20, 20), dict(channel_axis=0), "one by one"),  # was: "must be 2-D or 3-D"
    ((20, 20, 20), dict(progress=True), "ProgressBar"),
    ((20, 20, 20), dict(matches=korvo.MatchStorage()), "matches"),
    ((20, 20, 20), dict(stages="wiener"), "pilot"),
    ((20, 20, 20), dict(noise="poisson-gaussian"), "central 20x20x20 block"),
    # regions 274 times the array: chunks of 1-3 voxels took minutes and tens of GB
    ((200, 200, 200), {}, "too small for the"),
])
def test_options_a_chunked_run_cannot_honour(shape, options, message):
    with pytest.raises(ValueError, match=message):
        korvo.korvo(da.zeros(shape, chunks=10), **{"sigma": 0.1, **options})


def test_only_the_central_block_is_read_until_asked_and_worker_errors_reach_the_caller():
    calls = []

    def block(b):
        calls.append(b.shape)
        return b

    # The noise level is checked on the central 64 samples of x: two of four chunks.
    z = da.from_array(noisy_pair((24, 20, 160))[1], chunks=(12, 10, 40)).map_blocks(
        block, meta=np.empty((0, 0, 0), np.float32))
    lazy = korvo.korvo(z, 0.1, profile=fast(W3))
    assert len(calls) == 2 * 2 * 2 and lazy.chunks == z.chunks
    z = noisy_pair((20, 40, 40))[1]
    z[15, 35, 35] = np.nan
    lazy = korvo.korvo(da.from_array(z, chunks=10), 0.1, profile=fast(W3), stages="ht")
    # Chunks away from the NaN read it through the whole array's mean (they
    # reported non-finite stage results).
    for part in (lazy, lazy[:10, :10, :10]):
        with pytest.raises(ValueError, match="NaN"):
            part.compute()


def test_distributed_cluster_matches_the_local_run():
    distributed = pytest.importorskip("distributed")
    z = noisy_pair((24, 30, 28), seed=2)[1]
    profile = fast(W3)
    lazy = korvo.korvo(da.from_array(z, chunks=(12, 16, 28)), 0.1, profile=profile)
    local = lazy.compute()
    with distributed.LocalCluster(processes=True, n_workers=2, threads_per_worker=1,
                                  host="127.0.0.1", dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        remote = client.compute(lazy).result(timeout=120)
    np.testing.assert_array_equal(remote, local)


def test_flat_blocks_are_counted_on_the_whole_arrays_tiling():
    # Each chunk counted the blocks of its own tiling: the whole array's
    # decision to prewhiten moved with the chunking.
    z = np.random.default_rng(2).normal(0, 0.1, (30, 37, 41)) * np.linspace(1, 3, 41)
    counts = [c.compute() for c in korvo.chunked._flat_counts(da.from_array(z, (11, 16, 20)), PSD)]
    assert tuple(map(sum, zip(*counts))) == korvo.noise.flat_block_counts(z, PSD)
