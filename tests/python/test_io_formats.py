"""File formats on the command line: what a TIFF holds beside its first image,
colour that is no intensity, and axes an output format cannot hold."""

import contextlib

import numpy as np
import pytest

import korvo
from korvo import cli, io
from conftest import FAST_ARGS as FAST, fast

tifffile = pytest.importorskip("tifffile")
zarr = pytest.importorskip("zarr")

U8 = np.random.default_rng(5).integers(0, 255, (4, 32, 32)).astype(np.uint8)


def korvo_denoise(capsys, *arguments):
    """-> (exit status, stderr) of korvo denoise ARGUMENTS."""
    status = cli.main(["denoise", *map(str, arguments), *FAST])
    return status, capsys.readouterr().err


@pytest.mark.parametrize("ome", [False, True])
def test_only_the_first_series_is_read_and_a_warning_says_so(tmp_path, ome):
    path = tmp_path / ("two.ome.tif" if ome else "two.tif")
    with tifffile.TiffWriter(path, ome=ome) as tif:
        tif.write(U8, photometric="minisblack")
        tif.write(U8[:2, :20], photometric="minisblack")
    with pytest.warns(UserWarning, match=f"holds 2 {'OME images' if ome else 'image series'}; "
                                         r"only the first \(\w+ 4x32x32\)"):
        data, _ = io.read_volume(path)
    assert data.shape == U8.shape


def test_palette_is_refused_and_white_is_zero_stays_so(tmp_path, capsys):
    tifffile.imwrite(tmp_path / "pal.tif", U8[0], photometric="palette",
                     colormap=np.zeros((3, 256), np.uint16))
    status, err = korvo_denoise(capsys, tmp_path / "pal.tif", tmp_path / "o.tif")
    assert status == 2 and "palette" in err and not (tmp_path / "o.tif").exists()
    tifffile.imwrite(tmp_path / "white.tif", U8[0], photometric="miniswhite")
    assert korvo_denoise(capsys, tmp_path / "white.tif", tmp_path / "w.tif", "--sigma", "9")[0] == 0
    assert tifffile.TiffFile(tmp_path / "w.tif").pages[0].photometric == 0  # MINISWHITE


@pytest.mark.parametrize("out, words", [
    ("o.ome.tif", "OME-TIFF cannot hold axes TTZYX"), ("o.ome.zarr", "axes TTZYX are not"),
    ("o.nii", "NIfTI would put a series axis"), ("rgb.nii", "NIfTI has no channel axis"),
    ("ij.nii", "NIfTI has no channel axis"), ("ij-rgb.tif", "pass --dtype keep")])
def test_outputs_that_cannot_hold_the_axes_are_refused_before_work(tmp_path, capsys, out, words):
    np.save(tmp_path / "5d.npy", np.zeros((2, 2, 4, 32, 32), np.float32))
    tifffile.imwrite(tmp_path / "zt.tif", U8.reshape(2, 2, 32, 32), photometric="minisblack",
                     metadata={"axes": "ZTYX"})
    tifffile.imwrite(tmp_path / "rgb.tif", U8[:3].transpose(1, 2, 0), photometric="rgb")
    tifffile.imwrite(tmp_path / "ij.tif", U8.reshape(2, 2, 32, 32), imagej=True,
                     metadata={"axes": "ZCYX"})
    tifffile.imwrite(tmp_path / "ij-rgb.tif", U8[:3].transpose(1, 2, 0), imagej=True,
                     photometric="rgb")
    source = {"o.nii": "zt.tif", "rgb.nii": "rgb.tif", "ij.nii": "ij.tif",
              "ij-rgb.tif": "ij-rgb.tif"}.get(out, "5d.npy")
    status, err = korvo_denoise(capsys, tmp_path / source, tmp_path / ("o-" + out))
    assert status == 2 and words in err and "denoising" not in err, err
    assert err.count("\n") == 1 and not (tmp_path / ("o-" + out)).exists()


def test_a_series_of_images_goes_to_nifti_time_over_one_slice(tmp_path, capsys):
    # It was refused (NIfTI's third axis is space); NIfTI holds it as x, y, 1, t.
    nib = pytest.importorskip("nibabel")
    tifffile.imwrite(tmp_path / "tyx.tif", U8, photometric="minisblack", metadata={"axes": "TYX"})
    for source, out in (("tyx.tif", "o.nii"), ("o.nii", "back.tif")):
        assert korvo_denoise(capsys, tmp_path / source, tmp_path / out, "--sigma", "9")[0] == 0
    assert nib.load(tmp_path / "o.nii").shape == (32, 32, 1, 4)
    expected = np.stack([korvo.korvo(a, sigma=9, profile=fast()) for a in U8])
    np.testing.assert_allclose(np.asarray(nib.load(tmp_path / "o.nii").dataobj).T[:, 0],
                               expected, atol=1e-3)


def test_ome_zarr_output_takes_its_axis_order_and_the_imagej_spacing(tmp_path, capsys):
    data = np.random.default_rng(2).random((4, 2, 32, 32)).astype(np.float32)
    tifffile.imwrite(tmp_path / "ij.tif", data, imagej=True, resolution=(2.0, 2.0),
                     metadata={"axes": "ZCYX", "spacing": 2.5, "unit": "um"})
    out = tmp_path / "o.ome.zarr"
    assert korvo_denoise(capsys, tmp_path / "ij.tif", out, "--sigma", "1e-6")[0] == 0
    group = zarr.open_group(str(out), mode="r")
    image = group.attrs["ome"]["multiscales"][0]
    assert [a["name"] for a in image["axes"]] == ["c", "z", "y", "x"]
    assert image["axes"][1]["unit"] == "micrometer"
    assert image["datasets"][0]["coordinateTransformations"][0]["scale"] == [1, 2.5, 0.5, 0.5]
    np.testing.assert_allclose(group["0"][:], data.transpose(1, 0, 2, 3), atol=1e-4)
    assert io.open_chunked(out)[1]["axes"] == "CZYX"


def test_zarr_dimension_names_and_untyped_ome_axes_label_the_axes(tmp_path, capsys):
    source = zarr.create_array(str(tmp_path / "in.zarr"), shape=(4, 32, 32, 2), dtype="f4",
                               chunks=(4, 32, 32, 2), dimension_names=["z", "y", "x", "c"])
    source[:] = np.random.default_rng(3).random(source.shape)
    status, _ = korvo_denoise(capsys, tmp_path / "in.zarr", tmp_path / "o.zarr", "--sigma", "0.1")
    assert status == 0
    assert zarr.open_array(str(tmp_path / "o.zarr")).metadata.dimension_names == tuple("zyxc")
    assert io.open_chunked(tmp_path / "o.zarr")[1]["axes"] == "ZYXC"
    group = zarr.open_group(str(tmp_path / "v4.zarr"), mode="w", zarr_format=2)
    group.attrs["multiscales"] = [{"version": "0.4", "axes": [{"name": a} for a in "zyx"],
                                   "datasets": [{"path": "0"}]}]
    group.create_array("0", shape=(4, 32, 32), dtype="f4")
    assert io.open_chunked(tmp_path / "v4.zarr")[1]["axes"] == "ZYX"


def test_an_opaque_alpha_channel_is_written_back_as_read(tmp_path, capsys):
    rgba = np.concatenate([U8[:3], np.full((1, 32, 32), 255, np.uint8)]).transpose(1, 2, 0)
    tifffile.imwrite(tmp_path / "rgba.tif", rgba, photometric="rgb", extrasamples=["unassalpha"])
    for out in ("o.tif", "o.zarr"):
        assert korvo_denoise(capsys, tmp_path / "rgba.tif", tmp_path / out)[0] == 0
    written = tifffile.imread(tmp_path / "o.tif"), zarr.open_array(str(tmp_path / "o.zarr"))[:]
    for result in written:
        assert np.array_equal(result[..., 3], rgba[..., 3])
        assert np.abs(result[..., :3] - rgba[..., :3]).mean() > 1  # colours denoised
    assert cli.main(["estimate", str(tmp_path / "rgba.tif")]) == 0  # alpha read as noise-free
    assert len(capsys.readouterr().out.split()) == 3


def test_second_audit_cases(tmp_path, capsys):
    # A TIFF without a photometric tag read as "0 is white" (and was written so);
    # ImageJ spacing went into an OME-TIFF without a word; a chunked file's NaN
    # was reported as the parameter "z"; Zarr dimension names became guesses; a
    # refused OME-Zarr output left its temporary store behind.
    tifffile.imwrite(tmp_path / "bare.tif", U8[0], photometric="minisblack")
    with open(tmp_path / "bare.tif", "r+b") as f:  # tag 262 renamed to an unknown one
        raw = f.read()
        f.seek(raw.index((262).to_bytes(2, "little") + (3).to_bytes(2, "little")))
        f.write((65000).to_bytes(2, "little"))
    assert "photometric" not in io.read_volume(tmp_path / "bare.tif")[1]
    tifffile.imwrite(tmp_path / "ij.tif", U8, imagej=True, resolution=(2.0, 2.0),
                     metadata={"axes": "ZYX", "spacing": 2.5, "unit": "um"})
    with pytest.warns(UserWarning, match="pixel spacing"):
        io.check_axes(tmp_path / "o.ome.tif", "ZYX", U8.shape, np.uint8,
                      io.read_volume(tmp_path / "ij.tif")[1])
    bad = np.ones((2, 8, 16, 16), np.float32)  # a series: the second item holds it
    bad[1, 3, 4, 5] = np.nan
    np.save(tmp_path / "nan.npy", bad)
    status, err = korvo_denoise(capsys, tmp_path / "nan.npy", tmp_path / "o.zarr", "--sigma", "1")
    assert status == 2 and "nan.npy [T 1] (2/2) holds NaN" in err
    assert not (tmp_path / "o.zarr").exists()
    named = zarr.create_array(str(tmp_path / "named.zarr"), shape=(4, 32, 32), dtype="f4",
                              dimension_names=["depth", "row", "col"])
    named[:] = U8
    assert korvo_denoise(capsys, tmp_path / "named.zarr", tmp_path / "n.zarr", "--sigma", "9",
                         "--chunks", "16")[0] == 0
    written = zarr.open_array(str(tmp_path / "n.zarr")).metadata.dimension_names
    assert written == ("depth", "row", "col")
    with pytest.raises(ValueError, match="cannot hold axes"):
        io.ChunkedOutput(tmp_path / "bad.ome.zarr", (3, 3, 8, 8), np.float32, (1, 1, 8, 8),
                         {"axes": "TTYX"})
    assert sorted(p.name for p in tmp_path.iterdir() if p.name.startswith(".")) == []


def test_a_compression_tifffile_cannot_write_or_a_lossy_one_becomes_zlib():
    try:
        tifffile.TIFF.COMPRESSORS[tifffile.COMPRESSION.LZW]
        expected = "LZW"
    except KeyError:
        expected = "ADOBE_DEFLATE"
    with pytest.warns(UserWarning, match="LZW needs the imagecodecs") if expected != "LZW" \
            else contextlib.nullcontext():
        assert io._tiff_compression(tifffile, {"compression": "LZW"}, "o.tif") == expected
    assert io._tiff_compression(tifffile, {"compression": "JPEG"}, "o.tif") == "ADOBE_DEFLATE"
    assert io._tiff_compression(tifffile, {}, "o.tif") is None
