"""The command line on chunked stores: Zarr, OME-Zarr, HDF5 and memory-mapped .npy."""

import json
import os

import numpy as np
import pytest

import korvo
from korvo import chunked
from korvo.io import read_volume
from korvo.memory import measure_peak
from conftest import FAST_ARGS as FAST, denoise, fast, noisy_pair, refused

da = pytest.importorskip("dask.array")
zarr = pytest.importorskip("zarr")
h5py = pytest.importorskip("h5py")


@pytest.fixture(scope="module")
def noisy():
    return noisy_pair((20, 36, 32), seed=5)[1]


def close(result, expected):
    np.testing.assert_allclose(result, expected, atol=1e-5 * float(np.ptp(expected)))


def test_round_trips_equal_the_in_memory_call(tmp_path, noisy):
    tifffile = pytest.importorskip("tifffile")
    zarr.open_array(str(tmp_path / "in.zarr"), mode="w", shape=noisy.shape, chunks=(10, 18, 16),
                    dtype="f4")[:] = noisy
    with h5py.File(tmp_path / "in.h5", "w") as f:
        f.create_dataset("raw/vol", data=noisy, chunks=(10, 18, 16), compression="gzip",
                         compression_opts=3, shuffle=True).attrs.update(
            {"unit": "um", "spacing": [2.0, 0.5, 0.5]})
    np.save(tmp_path / "in.npy", noisy)
    tifffile.imwrite(tmp_path / "in.tif", noisy)
    tifffile.imwrite(tmp_path / "packed.tif", noisy, compression="zlib")
    for name, mapped in (("in.npy", True), ("in.tif", True), ("packed.tif", False)):
        data, _ = read_volume(str(tmp_path / name))  # memory-mapped where stored plainly
        assert isinstance(data, np.memmap) == mapped and np.array_equal(data, noisy)
    # A sigma map file and photon counts chunk by chunk (both were refused), as in memory.
    noise_map = np.linspace(0.05, 0.15, noisy.shape[2], dtype=np.float32) * np.ones_like(noisy)
    np.save(tmp_path / "map.npy", noise_map)
    counts = 2.0 * np.random.default_rng(5).poisson(np.clip(noisy, 0, None) * 20)
    np.save(tmp_path / "counts.npy", counts.astype(np.float32))
    expected = korvo.korvo(noisy, sigma=0.1, profile=fast())
    sigma = ["--sigma", "0.1"]
    cases = [  # IN, OUT, options, the in-memory result
        ("in.zarr", "out.zarr", sigma, expected),
        ("in.h5:/raw/vol", "new.h5:/den", sigma + ["--chunks", "10,18,16"], expected),
        ("in.h5:/raw/vol", "in.h5:/raw/den", sigma, expected),  # beside the input, same file
        ("in.npy", "out.npy", sigma + ["--chunks", "12"], expected),
        ("in.npy", "out-z.zarr", sigma, expected),
        ("in.tif", "out-t.zarr", sigma + ["--chunks", "12"], expected),
        ("in.npy", "m.zarr", ["--sigma-map", tmp_path / "map.npy", "--chunks", "12"],
         korvo.korvo(noisy, sigma=noise_map, profile=fast())),
        ("counts.npy", "c.npy", ["--noise", "poisson-gaussian", "--gain", "2", "--chunks", "12"],
         korvo.korvo(counts.astype(np.float32), noise="poisson-gaussian", gain=2.0,
                     profile=fast())),
    ]
    for source, out, extra, result in cases:
        assert denoise(tmp_path / source, tmp_path / out, *extra, *FAST) == 0, out
        if ".h5:" in out:
            file, name = out.split(":")
            with h5py.File(tmp_path / file, "r") as f:
                written, attrs = f[name][:], dict(f[name].attrs)
                # written compressed as read (it was written plain)
                assert (f[name].compression, f[name].compression_opts) == ("gzip", 3)
                assert sorted(f[os.path.dirname(name) or "/"]) == sorted(
                    {"/den": ["den"], "/raw/den": ["den", "vol"]}[name])  # nothing left behind
            assert attrs["unit"] == "um" and list(attrs["spacing"]) == [2.0, 0.5, 0.5]
        elif out.endswith(".npy"):
            written = np.load(tmp_path / out)
        else:
            written = zarr.open_array(str(tmp_path / out), mode="r")[:]
        close(written, result)
    assert not [n for n in os.listdir(tmp_path) if n.startswith(".")]  # no temporaries left


@pytest.mark.parametrize("fmt", [2, 3])
def test_ome_zarr_keeps_axes_and_scale_of_level_zero(tmp_path, noisy, fmt):
    series = np.stack([noisy, noisy[:, ::-1]])[:, None]  # t, c, z, y, x
    axes = [{"name": "t", "type": "time", "unit": "second"}, {"name": "c", "type": "channel"}] \
        + [{"name": a, "type": "space", "unit": "micrometer"} for a in "zyx"]
    levels = [{"path": "s0", "coordinateTransformations": [
        {"type": "scale", "scale": [1.0, 1.0, 2.0, 0.5, 0.5]},
        {"type": "translation", "translation": [0.0, 0.0, 3.0, 0.0, 0.0]}]},
              {"path": "s1", "coordinateTransformations": [
                  {"type": "scale", "scale": [1.0, 1.0, 4.0, 1.0, 1.0]}]}]
    image = {"axes": axes, "datasets": levels, "name": "cells"}
    group = zarr.open_group(str(tmp_path / "in.zarr"), mode="w", zarr_format=fmt)
    group.attrs.update({"ome": {"version": "0.5", "multiscales": [image]}} if fmt == 3 else
                       {"multiscales": [dict(image, version="0.4")], "omero": {"id": 1}})
    group.create_array("s0", shape=series.shape, chunks=(1, 1, 10, 18, 32), dtype="f4")[:] = series
    group.create_array("s1", shape=(2, 1, 10, 18, 16), dtype="f4")
    out = tmp_path / "out.zarr"
    assert denoise(tmp_path / "in.zarr", out, "--sigma", "0.1", *FAST) == 0
    written = zarr.open_group(str(out), mode="r")
    attrs = json.loads(json.dumps(dict(written.attrs)))
    kept = attrs["ome"]["multiscales"][0] if fmt == 3 else attrs["multiscales"][0]
    assert kept["axes"] == axes and kept["datasets"] == levels[:1] and kept["name"] == "cells"
    assert written.metadata.zarr_format == fmt and list(written.array_keys()) == ["s0"]
    if fmt == 2:
        assert kept["version"] == "0.4" and attrs["omero"] == {"id": 1}
    result = written["s0"][:]
    for t in range(2):
        close(result[t, 0], korvo.korvo(series[t, 0], sigma=0.1, profile=fast()))
    assert read_volume(str(out))[1]["axes"] == "TCZYX"


def test_refusals_are_one_line(tmp_path, noisy, capsys, monkeypatch):
    monkeypatch.chdir(tmp_path)
    np.save("in.npy", noisy)
    with h5py.File("in.h5", "w") as f:
        f["vol"] = noisy
        f["old"] = noisy
        f["alias"] = f["vol"]  # a hard link
    cases = [  # IN, OUT, options, part of the message
        ("in.h5", "o.npy", [], "name the dataset"),
        ("in.h5:/missing", "o.npy", [], "no dataset /missing in"),
        # Every spelling of the input dataset is the input (they overwrote it).
        *[("in.h5:/vol", "in.h5:" + d, ["--force"], "input dataset itself")
          for d in ("/vol", "//vol", "./vol", "vol/")],
        ("in.h5:/vol", "in.h5:/alias", ["--force"], "another name of the input dataset"),
        ("in.h5:/vol", "in.h5:/x/../vol", ["--force"], "'..' is not allowed"),
        ("in.h5:/vol", "in.h5:/old", [], "--force"),
        *[("in.npy", "o.npy", ["--chunks", c], "--chunks takes N or 3") for c in ("8,8", "0", "a")],
        ("in.npy", "o.tif", ["--chunks", "8"], "the output is a .zarr store"),
        ("in.npy", "o.zarr", ["--sigma-map", "auto"], "--sigma-map auto needs the whole volume"),
        ("missing.zarr", "o.npy", [], "no such Zarr store"),
    ]
    for source, out, extra, message in cases:
        refused(capsys, [source, out] + extra + FAST, message)
    assert not [n for n in os.listdir(tmp_path) if n.startswith((".", "o."))]


@pytest.mark.parametrize("name", ["o.zarr", "o.h5:/d", "o.npy"])
def test_writes_after_discard_land_nowhere(tmp_path, name):
    # Interrupted, the scheduler's threads still finish their chunks: their writes
    # recreated the removed temporary store (or wrote into the closed HDF5 file).
    from korvo.io import ChunkedOutput
    out = ChunkedOutput(str(tmp_path / name), (8, 8, 8), np.float32, (4, 4, 4), {})
    out.target[:4] = np.ones((4, 8, 8), np.float32)
    out.discard()
    out.target[4:] = np.ones((4, 8, 8), np.float32)
    assert os.listdir(tmp_path) == []


def test_memory_and_reads_are_bounded_by_chunks_not_the_volume(tmp_path, monkeypatch, noisy):
    # 384^3 (216 MiB as float32) in 96^3 chunks. The workers' native run is
    # replaced by the region's copy: measured is this process, which reads,
    # holds and writes the data.
    n, chunk = 384, 96
    source = zarr.open_array(str(tmp_path / "in.zarr"), mode="w", shape=(n,) * 3,
                             chunks=(chunk,) * 3, dtype="u1")
    ramp = (np.arange(n, dtype=np.uint8)[:, None] % 200 * np.ones((1, n), np.uint8))
    for z in range(0, n, chunk):
        source[z:z + chunk] = np.broadcast_to(ramp, (chunk, n, n))
    with monkeypatch.context() as patch:
        patch.setattr(chunked, "_chunk_task", lambda region, pilot, offset, flat, inner, *_:
                      np.asarray(region, np.float32)[inner])
        status, added = measure_peak(denoise, tmp_path / "in.zarr", tmp_path / "out.zarr",
                                     "--sigma", "1", "--stages", "ht", "--dtype", "keep", "-q")
    assert status == 0 and added < n ** 3 * 4 / 2, f"{added / 2**20:.0f} MiB added"
    out = zarr.open_array(str(tmp_path / "out.zarr"), mode="r")
    assert out.dtype == np.uint8 and np.array_equal(out[n // 2, :, 7], ramp[:, 7])

    # The whole array's mean goes to every chunk as one value: computed once,
    # not once per chunk, so each voxel is read about once (and once more in
    # the central block, all of this small array, for the noise check).
    class Counted:
        shape, dtype, ndim, read = noisy.shape, noisy.dtype, noisy.ndim, 0

        def __getitem__(self, key):
            part = noisy[key]
            Counted.read += part.size
            return part

    profile = korvo.KORVOProfile(num_threads=1)
    profile.ht.search_window = (1, 1, 1)
    out = np.empty(noisy.shape, np.float32)
    z = da.from_array(Counted(), chunks=(5, 9, 8))
    da.store(korvo.korvo(z, sigma=0.1, profile=profile, stages="ht"), out, scheduler="sync")
    assert Counted.read < 13 * noisy.size, Counted.read / noisy.size
