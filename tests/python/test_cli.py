"""The korvo command: a round trip per file format, the noise options, the demo."""

import errno
import os
import shutil
import signal
import subprocess
import sys
import time

import numpy as np
import pytest

import korvo
from korvo import cli
from korvo._png import read_png
from conftest import FAST_ARGS as FAST, denoise, fast, noisy_pair, psnr, refused


@pytest.fixture(scope="module")
def noisy_volume():
    return noisy_pair((12, 24, 28), seed=3)


def test_noise_options_give_the_call_they_stand_for(tmp_path, capsys):
    tifffile = pytest.importorskip("tifffile")
    rng = np.random.default_rng(4)
    clean = korvo.phantom((12, 24, 28))
    level = np.broadcast_to(np.linspace(0.05, 0.2, 28), clean.shape).astype(np.float32)
    noisy = (clean + level * rng.standard_normal(clean.shape)).astype(np.float32)
    counts = (2 * rng.poisson(20 * clean) + 100).astype(np.uint16)
    white = korvo.white_psd(0.1, (8, 8, 8))
    rgb = np.moveaxis(noisy[:3], 0, -1).repeat(2, 0).repeat(2, 1)  # (48, 56, 3), unlabelled
    for name, data in (("in", noisy), ("counts", counts), ("map", level), ("psd", white),
                       ("rgb", rgb)):
        np.save(tmp_path / f"{name}.npy", data)
    # Channels (TIFF C) filtered with the groups of the first one, or of their mean.
    tifffile.imwrite(tmp_path / "stack.tif", np.stack([noisy, 0.5 * noisy]),
                     metadata={"axes": "CZYX"})
    photons = dict(noise="poisson-gaussian", gain=2.0, offset=100.0)
    for source, options, call in [
            ("in.npy", ["--sigma", "0.1"], dict(sigma=0.1)),
            ("in.npy", ["--psd", tmp_path / "psd.npy"], dict(psd=white)),
            ("in.npy", [], dict(sigma=korvo.estimate_sigma(noisy))),
            ("in.npy", ["--sigma-map", tmp_path / "map.npy"], dict(sigma=level)),
            ("in.npy", ["--sigma-map", "auto"], dict(sigma=korvo.estimate_sigma_map(noisy))),
            ("counts.npy", ["--noise", "poisson-gaussian", "--gain", "2", "--offset", "100"],
             photons),
            # an exponent or a list after a numeric option is its value, not an option
            ("counts.npy", ["--noise", "poisson-gaussian", "--gain", "2", "--off", "-1e1"],
             dict(photons, offset=-10.0)),
            *[("stack.tif", ["--sigma", "0.1", "--shared-groups", option],
               dict(sigma=0.1, channel_axis=0, shared_groups=shared))
              for option, shared in (("first", 0), ("mean", "mean"), ("1", 1))],
            ("rgb.npy", ["--sigma", "0.1", "--axes", "YXC"], dict(sigma=0.1, channel_axis=-1)),
            # one value per channel (there was no way to give them), in memory and by chunks
            *[("stack.tif", ["--sigma", "0.1,0.05", *chunks],
               dict(sigma=[0.1, 0.05], channel_axis=0)) for chunks in ([], ["--chunks", "12"])]]:
        out = tmp_path / ("out" + (".npy" if "--chunks" in options else source[source.index("."):]))
        assert denoise(tmp_path / source, out, "-f", *options, *FAST) == 0, options
        result, data = (np.load(f) if f.suffix == ".npy" else tifffile.imread(f)
                        for f in (out, tmp_path / source))
        assert result.shape == data.shape and result.dtype == np.float32
        np.testing.assert_allclose(result, korvo.korvo(data, **call, profile=fast()), atol=1e-4)
    # Parameters the model estimates are printed (they went unreported), except with -q.
    source, out = tmp_path / "counts.npy", tmp_path / "out.npy"
    capsys.readouterr()
    for quiet in (False, True):
        quietness = FAST[:-1] + ["-q"] * quiet  # FAST ends with -q
        assert denoise(source, out, "-f", "--noise", "poisson-gaussian", *quietness) == 0
        assert ("estimated photon noise: gain" in capsys.readouterr().err) != quiet
    refused(capsys, [source, out, "-f", "--noise", "rician", "--psd", "auto"], "--noise rician")
    refused(capsys, [tmp_path / "stack.tif", out, "-f", "--shared-groups", "x"], "--shared-groups")
    # Unlabelled colour got the Python call's advice (channel_axis=-1); labels a file
    # gives are its own.
    refused(capsys, [tmp_path / "rgb.npy", out, "-f"], "pass --axes YXC")
    refused(capsys, [tmp_path / "stack.tif", out, "-f", "--axes", "CZYX"], "labels its own axes")
    refused(capsys, [tmp_path / "rgb.npy", out, "-f", "--axes", "XYC"], "one letter per axis")
    refused(capsys, [tmp_path / "stack.tif", out, "-f", "--sigma", "1,2,3"], "3 values for")
    refused(capsys, [source, out, "-f", "--sigma", "1,2"], "has no channels")


def _per_channel(data, axes):
    """Reference: every item and channel denoised on its own."""
    others = [a for a in axes if a not in "ZYX"]
    moved = np.moveaxis(data, [axes.index(a) for a in others], range(len(others)))
    out = np.empty(moved.shape, np.float32)
    for index in np.ndindex(*moved.shape[:len(others)]):
        out[index] = korvo.korvo(moved[index], sigma=0.1, profile=fast())
    return np.moveaxis(out, range(len(others)), [axes.index(a) for a in others])


def test_nifti_keeps_orientation_and_header_and_loops_over_time(tmp_path, noisy_volume):
    nib = pytest.importorskip("nibabel")
    clean, noisy = noisy_volume
    affine = np.diag([0.5, 0.7, 2.0, 1.0])
    series = np.stack([noisy, noisy[:, ::-1]])  # (t, z, y, x)
    for name, data in (("in.nii", noisy), ("in.nii.gz", noisy), ("series.nii.gz", series)):
        source, out = tmp_path / name, tmp_path / f"out-{name}"
        nib.save(nib.Nifti1Image(data.T, affine), source)
        assert denoise(source, out, "--sigma", "0.1", *FAST) == 0
        image = nib.load(out)
        np.testing.assert_allclose(image.affine, affine, rtol=1e-6)
        result = np.asarray(image.dataobj).T  # back to (slices, rows, columns)
        np.testing.assert_allclose(result, _per_channel(data, "TZYX"[-data.ndim:]), atol=1e-4)


# ImageJ slice labels and colour tables, OME channel names and the compression
# were dropped on write.
LABELS = [f"slice {i}" for i in range(24)]
LUTS = [np.stack([np.arange(256)] * 2 + [np.zeros(256)]).astype(np.uint8)] * 2
TIFF_CASES = [  # name, axes, shape, writer options, metadata expected back
    ("plain", "ZYX", (12, 24, 28), dict(resolution=(4.0, 5.0), resolutionunit="CENTIMETER"),
     dict(resolution=(4.0, 5.0))),
    ("imagej-channels", "ZCYX", (12, 2, 24, 28),
     dict(imagej=True, resolution=(2.0, 2.0), compression="zlib",
          metadata={"axes": "ZCYX", "spacing": 1.5, "unit": "um", "Labels": LABELS,
                    "LUTs": LUTS}),
     dict(resolution=(2.0, 2.0), spacing=1.5, unit="um", Labels=LABELS, LUTs=LUTS,
          compression="ADOBE_DEFLATE")),
    ("imagej-time", "TZCYX", (2, 12, 2, 24, 28),
     dict(imagej=True, metadata={"axes": "TZCYX", "spacing": 3.0, "unit": "um",
                                 "finterval": 2.0}),
     dict(spacing=3.0, finterval=2.0)),
    ("ome", "CZYX", (2, 12, 24, 28),
     dict(ome=True, compression="lzma",
          metadata={"axes": "CZYX", "PhysicalSizeX": 0.25, "PhysicalSizeY": 0.25,
                    "PhysicalSizeZ": 1.25, "Channel": {"Name": ["DAPI", "GFP"]}}),
     dict(PhysicalSizeX=0.25, PhysicalSizeZ=1.25, Channel={"Name": ["DAPI", "GFP"]},
          compression="LZMA")),
    ("rgb", "YXS", (40, 44, 3), dict(photometric="rgb"), {}),
    ("series-inside", "ZTYX", (12, 2, 24, 28), dict(metadata={"axes": "ZTYX"}), {}),
]


@pytest.mark.parametrize("name, axes, shape, options, expected", TIFF_CASES,
                         ids=[c[0] for c in TIFF_CASES])
def test_tiff_axes_and_calibration_are_kept(tmp_path, name, axes, shape, options, expected):
    tifffile = pytest.importorskip("tifffile")
    rng = np.random.default_rng(7)
    noisy = (0.5 + 0.1 * rng.standard_normal(shape)).astype(np.float32)
    source, out = tmp_path / "in.tif", tmp_path / "out.tiff"
    tifffile.imwrite(source, noisy, **options)
    assert denoise(source, out, "--sigma", "0.1", *FAST) == 0
    with tifffile.TiffFile(out) as tif:
        assert tif.series[0].axes == axes
        result = tif.series[0].asarray()
        found = dict(tif.imagej_metadata or {})
        if tif.is_ome:
            found.update(korvo.io._ome_metadata(tif.ome_metadata))
        found["compression"] = tif.pages[0].compression.name
        tags = tif.pages[0].tags
        found["resolution"] = tuple(korvo.io._rational(tags[n].value)
                                    for n in ("XResolution", "YResolution"))
    for key, value in expected.items():
        if isinstance(value, float) or isinstance(value, tuple):
            assert found[key] == pytest.approx(value), key
        else:
            np.testing.assert_equal(found[key], value, err_msg=key)
    np.testing.assert_allclose(result, _per_channel(noisy, axes), atol=1e-4)


def _names(folder):
    return sorted(p.name for p in folder.iterdir())


def test_output_is_checked_first_and_written_whole(tmp_path, noisy_volume, monkeypatch, capsys):
    _, noisy = noisy_volume
    source = tmp_path / "in.npy"
    np.save(source, noisy)
    (tmp_path / "sub").mkdir()
    os.link(source, tmp_path / "sub" / "hard.npy")
    os.symlink(source, tmp_path / "link.npy")
    os.symlink(tmp_path / "missing" / "o.npy", tmp_path / "dangling.npy")
    existing = tmp_path / "old.npy"
    np.save(existing, np.zeros(3))
    monkeypatch.setattr(cli, "korvo", lambda *a, **k: pytest.fail("denoised, though refused"))
    for output, extra, words in [("o.png", [], ".npy"), ("missing/o.npy", [], "does not exist"),
                                 ("dangling.npy", [], "missing does not exist"),
                                 ("in.npy/o.npy", [], "in.npy is a file, not a folder"),
                                 ("old.npy", [], "--force"),
                                 ("sub/hard.npy", ["--force"], "input file itself"),
                                 ("link.npy", ["--force"], "input file itself"),
                                 ("sub/../in.npy", ["--force"], "input file itself")]:
        refused(capsys, [source, tmp_path / output, "--sigma", "1"] + extra, words)
    np.testing.assert_array_equal(np.load(source), noisy)
    before = _names(tmp_path)
    for error, code in ((KeyboardInterrupt(), 130), (OSError(28, "No space left on device"), 2)):
        def failing(*args, **kwargs):
            raise error
        monkeypatch.setattr(cli, "korvo", failing)
        assert denoise(source, existing, "--sigma", "1", "-f") == code
        np.testing.assert_array_equal(np.load(existing), np.zeros(3))  # the old file survives
        assert _names(tmp_path) == before  # and no temporary is left
    monkeypatch.setattr(cli, "korvo", lambda z, **kw: z.astype(np.float32) + np.float32(1))
    assert denoise(source, existing, "--sigma", "1", "-f", "-q") == 0
    np.testing.assert_array_equal(np.load(existing), noisy + 1)
    assert _names(tmp_path) == before
    # Written through a memory map, a full disk ended the process (SIGBUS) and
    # left the hidden temporary behind; the space is now reserved first.
    def full(fd, offset, length):
        raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))
    capsys.readouterr()
    with monkeypatch.context() as patch:
        for extra in ([], ["--chunks", "8"]) if hasattr(os, "posix_fallocate") else ():
            patch.setattr(os, "posix_fallocate", full)
            refused(capsys, [source, tmp_path / "o.npy", "--sigma", "1"] + extra,
                    "o.npy: cannot reserve")
            assert _names(tmp_path) == before
        # A folder that refuses new files was reported by the temporary's name.
        def refuse(*args, **kwargs):
            raise PermissionError(errno.EACCES, os.strerror(errno.EACCES))
        patch.setattr(korvo.io.tempfile, "mkstemp", refuse)
        for extra in ([], ["--chunks", "8"]):
            refused(capsys, [source, tmp_path / "o.npy", "--sigma", "1"] + extra,
                    f"o.npy: cannot create a file in {tmp_path}: Permission denied")
    os.symlink(existing, tmp_path / "pointer.npy")  # written through, the link kept
    for extra in ([], ["--chunks", "8"]):
        np.save(existing, np.zeros(3))
        assert denoise(source, tmp_path / "pointer.npy", "--sigma", "1", "-f", "-q", *extra) == 0
        assert (tmp_path / "pointer.npy").is_symlink()
        np.testing.assert_allclose(np.load(existing), noisy + 1, atol=1e-6)


def test_dtype_keep_rounds_and_clips(tmp_path, monkeypatch):
    calls = []
    monkeypatch.setattr(cli, "korvo", lambda z, **kwargs: calls.append(kwargs) or
                        z.astype(np.float32) + np.float32(0.6))  # dask arrays too
    ramp = np.arange(8 * 8 * 8).reshape(8, 8, 8) % 256
    for dtype, option, expected in (
            (np.uint8, "keep", np.clip(np.rint(ramp + 0.6), 0, 255).astype(np.uint8)),
            (np.int16, "float32", (ramp + 0.6).astype(np.float32)),
            (np.float64, "keep", (ramp.astype(np.float32) + np.float32(0.6)).astype(np.float64))):
        source, out = tmp_path / "in.npy", tmp_path / f"out-{option}.npy"
        np.save(source, ramp.astype(dtype))
        assert denoise(source, out, "--sigma", "1", "--dtype", option, "-q", "-f",
                       "--threads", "0") == 0
        result = np.load(out)
        assert result.dtype == expected.dtype
        np.testing.assert_array_equal(result, expected)
    assert all(c["profile"].num_threads is None for c in calls)  # 0: every core
    # A scaled NIfTI keeps its stored integers, slope and intercept.
    nib = pytest.importorskip("nibabel")
    scaled = nib.Nifti1Image(ramp.astype(np.int16), np.eye(4))
    scaled.header.set_slope_inter(0.5, 10.0)
    nib.save(scaled, tmp_path / "in.nii")
    assert denoise(tmp_path / "in.nii", tmp_path / "out.nii", "--sigma", "1", "--dtype", "keep",
                   "-q") == 0
    result = nib.load(tmp_path / "out.nii")
    assert result.get_data_dtype() == np.int16
    assert (result.dataobj.slope, result.dataobj.inter) == (0.5, 10.0)
    np.testing.assert_allclose(result.get_fdata(), ramp * 0.5 + 10.6, atol=0.25)
    # Elsewhere the stored integers, without their scaling, read as other values.
    for extra in ([], ["--chunks", "8"]):
        assert denoise(tmp_path / "in.nii", tmp_path / "out.npy", "--sigma", "1", "--dtype",
                       "keep", "-q", "-f", *extra) == 0
        result = np.load(tmp_path / "out.npy")
        assert result.dtype == np.float32
        np.testing.assert_allclose(result, (ramp * 0.5 + 10.6).T, atol=1e-4)  # (k, j, i)


def test_estimates_psd_auto_mask_and_the_estimate_command(tmp_path, capsys):
    # Noise correlated along x; the left rows hold noise alone. Each series
    # item gets its own estimate, the one read from the mask exactly so.
    rng = np.random.default_rng(8)
    kernel = np.array([[[1.0, 2.0, 1.0]]]) / np.sqrt(6.0)
    clean = korvo.phantom((12, 32, 32))
    clean[:, :8] = 0
    items = [clean + korvo.coloured_noise(kernel, clean.shape, s, rng) for s in (0.1, 0.2)]
    source, mask_file = tmp_path / "in.npy", tmp_path / "mask.npy"
    np.save(source, np.stack(items).astype(np.float32))
    mask = np.zeros((2,) + clean.shape, np.uint8)
    mask[:, :, :8] = 1
    np.save(mask_file, mask)
    for extra in ([], ["--psd-mask", str(mask_file)]):
        out = tmp_path / f"out{len(extra)}.npy"
        args = ["denoise", str(source), str(out), "--psd", "auto"] + extra + FAST
        assert cli.main(args[:-1]) == 0   # not quiet: the estimates are printed
        err = capsys.readouterr().err
        stds = [float(line.split("std ")[1].split(",")[0])
                for line in err.splitlines() if "estimated noise PSD" in line]
        # Without the mask, the phantom's edges leak in on so small a volume.
        assert stds == pytest.approx([0.1, 0.2], rel=0.1 if extra else 0.3)
        assert psnr(np.load(out)[1], clean) > psnr(items[1], clean) + 4
    expected = korvo.korvo(items[0], psd=korvo.estimate_psd(items[0], mask=mask[0]),
                           profile=fast())
    np.testing.assert_allclose(np.load(out)[0], expected, atol=1e-4)
    np.save(source, np.stack(items)[:, :4])
    out = tmp_path / "o.npy"
    refused(capsys, [source, out, "--psd-mask", mask_file], "--psd auto")
    refused(capsys, [source, out, "--psd", "auto", "--psd-mask", mask_file], "mask has shape")
    # An image, and the estimate command's sigma, PSD and photon-count parameters.
    rng = np.random.default_rng(5)
    clean = korvo.phantom((40, 40))
    source, out = tmp_path / "img.npy", tmp_path / "out.npy"
    image = clean + 0.05 * rng.standard_normal(clean.shape)
    np.save(source, image)
    assert denoise(source, out, "--stages", "ht", *FAST) == 0
    np.testing.assert_allclose(np.load(out), korvo.korvo(image, korvo.estimate_sigma(image),
                                                         stages="ht", profile=fast()), atol=1e-4)
    assert cli.main(["estimate", str(source)]) == 0
    assert float(capsys.readouterr().out) == pytest.approx(0.05, rel=0.3)
    # The PSD is written for denoise --psd FILE; photon counts give gain, sigma, offset.
    psd = tmp_path / "psd.npy"
    assert cli.main(["estimate", str(source), "--psd", str(psd)]) == 0
    np.testing.assert_array_equal(np.load(psd), korvo.estimate_psd(image))
    assert capsys.readouterr().out.startswith("std ")
    clean = korvo.phantom((96, 96))  # 40^2 holds too few cells for a gain within 15 %
    np.save(source, 2.0 * rng.poisson(50 * clean) + rng.normal(0, 2, clean.shape))
    assert cli.main(["estimate", str(source), "--noise", "poisson-gaussian"]) == 0
    assert float(capsys.readouterr().out.split()[1]) == pytest.approx(2.0, rel=0.15)  # gain


def test_user_errors_are_one_line(tmp_path, capsys):
    tifffile = pytest.importorskip("tifffile")
    source, empty, flat = tmp_path / "in.npy", tmp_path / "empty.npy", tmp_path / "flat.npy"
    np.save(source, np.full((8, 16, 16), np.nan))
    empty.write_bytes(b"")
    np.save(flat, np.ones((8, 16, 16)))
    out, channels = tmp_path / "o.npy", tmp_path / "c.tif"
    tifffile.imwrite(channels, np.random.default_rng(0).normal(size=(2, 32, 32)).astype(np.float32),
                     imagej=True, metadata={"axes": "CYX"})
    for arguments, words in [
            ([source, out, "--sigma", "1"], "in.npy holds NaN or infinite samples (the first at"),
            ([source, out], "in.npy holds NaN"),  # the estimator's name was all it said
            ([flat, out, "--set", "wiener.ht.max_group_size=4"], "wiener.ht.max_group_size"),
            ([flat, out, "--set", "ht=4"], "ht.step"),
            ([flat, out, "--set", "bogus=1"], "bogus"),
            ([flat, out, "--set", "hard_threshold=abc"], "hard_threshold"),
            ([flat, out, "--set", "hard_threshold=1e400"], "hard_threshold"),
            ([flat, out, "--set", "hard_threshold"], "name=value"),
            ([empty, out], "empty.npy"),
            ([flat, out, "--gain", "2"], "--gain is a parameter of --noise poisson-gaussian"),
            ([flat, out, "--sigma", "1", "--shared-groups", "1"], "has none"),  # was ignored
            # refused after the estimates; and --psd auto said the file had no channels
            ([channels, out, "--shared-groups", "5"], "c.tif has 2 channels, numbered from 0"),
            ([channels, out, "--shared-groups", "mean", "--psd", "auto"], "a PSD per channel"),
            ([flat, out, "--noise", "poisson-gaussian", "--coils", "2"], "--coils"),
            ([flat, out], "estimated as 0"),
            ([tmp_path / "missing.npy", out], "missing.npy")]:
        refused(capsys, arguments, words)
    assert not out.exists()
    # estimate read --coils 0 as 1; a Zarr PSD file failed as an internal error
    for extra, words in ((["--noise", "rician", "--coils", "0"], "coils must be"),
                         (["--psd", str(tmp_path / "p.zarr")], "writes a .npy, NIfTI or TIFF")):
        assert cli.main(["estimate", str(flat), *extra]) == 2
        assert words in capsys.readouterr().err
    for arguments in (["denoise", "a.npy", "b.npy", "--threads", "-1"], ["--version"]):
        with pytest.raises(SystemExit) as stop:
            cli.main(arguments)
        assert stop.value.code == (0 if arguments == ["--version"] else 2)
    captured = capsys.readouterr()
    assert captured.out.strip() == f"korvo {korvo.__version__}"
    # Usage errors are one line too (argparse printed its usage first).
    assert captured.err == "korvo: error: argument --threads: must be 0 (all cores) or more, " \
                           "got -1 (see: korvo denoise --help)\n"


@pytest.mark.parametrize("matplotlib", [True, False])
def test_demo_prints_psnr_and_writes_png(tmp_path, monkeypatch, capsys, matplotlib):
    if not matplotlib:
        monkeypatch.setitem(sys.modules, "matplotlib.figure", None)  # import fails
    png = tmp_path / "demo.png"
    assert cli.main(["demo", "--shape", "16", "32", "32", "--png", str(png)]) == 0
    out, err = capsys.readouterr()
    db = {line.split(":")[0]: float(line.split()[2]) for line in out.splitlines() if "PSNR" in line}
    assert db["PSNR denoised"] > db["PSNR noisy"] + 5
    assert "korvo Wiener" in err  # progress is on in the command line
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    if not matplotlib:  # grey panels
        picture = read_png(png)
        side = 3 * 32 + 2 * 4  # three 32x32 panels a row, three rows, 4-pixel gaps
        assert picture.shape[0] == picture.shape[1] and picture.shape[0] % side == 0
        assert picture.std() > 10
    # A folder that does not exist is refused before the run (it failed after it).
    assert cli.main(["demo", "-q", "--png", str(tmp_path / "no" / "x.png")]) == 2
    out, err = capsys.readouterr()
    assert "PSNR" not in out and "does not exist" in err


@pytest.mark.skipif(not hasattr(signal, "SIGINT") or sys.platform == "win32", reason="POSIX")
@pytest.mark.parametrize("sig, code", [("SIGINT", 130), ("SIGTERM", 143)])
def test_ctrl_c_and_sigterm_end_the_command(tmp_path, sig, code):  # SIGTERM: timeout, schedulers
    source, out = tmp_path / "in.npy", tmp_path / "out.npy"
    np.save(source, korvo.phantom((64, 128, 128)))
    # Default SIGINT in the child even when the suite runs as a background job
    # (which starts with SIGINT ignored, and Python then keeps ignoring it).
    process = subprocess.Popen([sys.executable, "-m", "korvo", "denoise", str(source), str(out),
                                "--sigma", "0.1"],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                               preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
    # Wait until the run has begun, so the signal lands mid-run rather than at start-up.
    next(line for line in process.stderr if line.startswith("denoising"))
    time.sleep(1.0)
    process.send_signal(getattr(signal, sig))
    if sig == "SIGTERM":  # timeout(1) sends two; the second broke into the cleanup
        time.sleep(0.05)
        process.send_signal(signal.SIGTERM)
    _, err = process.communicate(timeout=60)  # a hang guard, not a speed test
    # A second SIGTERM after the cleanup, once the handler is restored, ends the
    # process by the signal itself: the same status to a shell.
    assert process.returncode in (code, -signal.SIGTERM if sig == "SIGTERM" else code), err
    assert ("interrupted" in err or "terminated" in err) and "Traceback" not in err
    assert _names(tmp_path) == ["in.npy"]  # no output, no temporary


@pytest.mark.skipif(shutil.which("korvo") is None, reason="package not installed")
def test_console_script_is_installed():
    run = subprocess.run(["korvo", "--help"], capture_output=True, text=True)
    assert run.returncode == 0 and "denoise" in run.stdout


def test_outputs_that_would_destroy_the_input_or_mislead_are_refused(tmp_path, capsys,
                                                                      noisy_volume):
    # --force replaced an HDF5 group, and a Zarr store, with the input inside them;
    # dimension-scale references were copied to point at nothing; --dtype keep
    # wrapped the top of 32-bit integers to the bottom; a NIfTI mask on another
    # grid was paired voxel by voxel.
    h5py, zarr, nib = (pytest.importorskip(m) for m in ("h5py", "zarr", "nibabel"))
    _, noisy = noisy_volume
    h5 = tmp_path / "a.h5"
    with h5py.File(h5, "w") as f:
        data, scale = f.create_dataset("grp/raw", data=noisy), f.create_dataset(
            "grp/zs", data=np.arange(noisy.shape[0], dtype=float))
        scale.make_scale("z")
        data.dims[0].attach_scale(scale)
        f["gone"] = h5py.SoftLink("/nothing")  # an internal error before
        f["kind"] = np.dtype("f4")  # h5py's own text, after reading
    for out, words in ((f"{h5}:/grp", "is a group"), (f"{h5}:/grp/raw/x", "is a dataset"),
                       (f"{h5}:/gone/x", "leads nowhere"), (f"{h5}:/kind/x", "is a datatype")):
        refused(capsys, ["-f", f"{h5}:/grp/raw", out, *FAST], words)
    assert denoise("-q", "--dtype", "keep", f"{h5}:/grp/raw", f"{tmp_path / 'b.h5'}:/d", *FAST) == 0
    with h5py.File(tmp_path / "b.h5") as f:
        assert list(f["d"].attrs) == [] and f["d"].dims[0].items() == []
    outer = tmp_path / "outer.zarr"
    zarr.open_group(outer, mode="w").create_array("in.zarr", shape=noisy.shape,
                                                  dtype="f4")[:] = noisy
    for out, words in ((outer, "holds the input"), (outer / "in.zarr" / "x.zarr", "inside")):
        refused(capsys, ["-f", outer / "in.zarr", out, *FAST], words)
    assert (outer / "in.zarr").is_dir()
    top = np.iinfo(np.int32).max
    wide = np.rint(noisy.astype(np.float64) * top).clip(0, top)
    np.save(tmp_path / "i32.npy", wide.astype(np.int32))
    assert denoise("-q", "--dtype", "keep", tmp_path / "i32.npy", tmp_path / "o32.npy", *FAST) == 0
    assert np.load(tmp_path / "o32.npy").min() > -top // 10
    cube = noisy[:12, :24, :12]  # reads the same reversed: a wrong order would pass
    mask = np.zeros(cube.shape, np.uint8)
    mask[..., :6] = 1
    np.save(tmp_path / "mask.npy", mask)
    for name, image, affine in (("cube.nii", cube, np.eye(4)),
                                ("mask.nii", mask, np.diag([-1.0, 1, 1, 1]))):
        nib.save(nib.Nifti1Image(image.T, affine), tmp_path / name)
    refused(capsys, [tmp_path / "cube.nii", tmp_path / "o.nii", "--psd", "auto", "--psd-mask",
                     tmp_path / "mask.nii"], "affine differs")
    assert denoise("-q", tmp_path / "cube.nii", tmp_path / "o.nii", "--psd", "auto",
                   "--psd-mask", tmp_path / "mask.npy", *FAST) == 0
    assert "check its order" in capsys.readouterr().err


def test_nifti_headers_are_written_as_they_were(tmp_path):
    # An image lost its qform code and slice thickness; NIfTI-2 became NIfTI-1.
    nib = pytest.importorskip("nibabel")
    from korvo import io
    affine = np.diag([0.5, 0.7, 2.5, 1.0])
    plane = nib.Nifti1Image(np.ones((6, 5), np.float32), None)
    plane.set_qform(affine, 1)
    plane.set_sform(None, 0)
    plane.header["pixdim"][3] = 2.5
    for name, image in (("plane.nii", plane),
                        ("two.nii", nib.Nifti2Image(np.ones((4, 5, 6), np.float32), affine))):
        nib.save(image, tmp_path / name)
        io.write_volume(tmp_path / f"out-{name}", *io.read_volume(tmp_path / name))
        before, after = (nib.load(tmp_path / n) for n in (name, f"out-{name}"))
        assert type(after) is type(before)
        for key in ("qform_code", "sform_code", "pixdim", "srow_x", "quatern_b"):
            np.testing.assert_array_equal(after.header[key], before.header[key])
