"""The korvo command: a round trip per file format, the noise options, the demo."""

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
from conftest import psnr

FAST = ["--set", "ht.search_window=3,3,2", "--set", "wiener.search_window=3,3,2", "--threads", "1",
        "-q"]


@pytest.fixture(scope="module")
def noisy_volume():
    rng = np.random.default_rng(3)
    clean = korvo.phantom((12, 24, 28))
    return clean, (clean + 0.1 * rng.standard_normal(clean.shape)).astype(np.float32)


def test_npy_round_trip_sigma_psd_and_estimate(tmp_path, noisy_volume):
    clean, noisy = noisy_volume
    source = tmp_path / "in.npy"
    np.save(source, noisy)
    psd_file = tmp_path / "psd.npy"
    np.save(psd_file, korvo.white_psd(0.1, (8, 8, 8)))
    outputs = {}
    for name, extra in (("sigma", ["--sigma", "0.1"]), ("psd", ["--psd", str(psd_file)]),
                        ("estimated", [])):
        out = tmp_path / f"{name}.npy"
        assert cli.main(["denoise", str(source), str(out)] + extra + FAST) == 0
        outputs[name] = np.load(out)
        assert outputs[name].shape == noisy.shape and outputs[name].dtype == np.float32
        assert psnr(outputs[name], clean) > psnr(noisy, clean) + 4
    np.testing.assert_allclose(outputs["psd"], outputs["sigma"], atol=2e-4)
    profile = korvo.KORVOProfile(num_threads=1)
    profile.ht.search_window = profile.wiener.search_window = (3, 3, 2)
    np.testing.assert_allclose(outputs["sigma"], korvo.korvo(noisy, 0.1, profile), atol=1e-4)


def test_nifti_round_trip_keeps_orientation_and_header(tmp_path, noisy_volume):
    nib = pytest.importorskip("nibabel")
    clean, noisy = noisy_volume
    affine = np.diag([0.5, 0.7, 2.0, 1.0])
    for suffix in (".nii", ".nii.gz"):
        source = tmp_path / f"in{suffix}"
        nib.save(nib.Nifti1Image(noisy.T, affine), source)
        out = tmp_path / f"out{suffix}"
        assert cli.main(["denoise", str(source), str(out), "--sigma", "0.1"] + FAST) == 0
        image = nib.load(out)
        np.testing.assert_allclose(image.affine, affine, rtol=1e-6)
        result = np.asarray(image.dataobj).T  # back to (slices, rows, columns)
        assert result.shape == noisy.shape
        assert psnr(result, clean) > psnr(noisy, clean) + 5


def test_nifti_4d_is_denoised_per_volume(tmp_path, noisy_volume):
    nib = pytest.importorskip("nibabel")
    _, noisy = noisy_volume
    series = np.stack([noisy, noisy[:, ::-1]])  # (t, z, y, x)
    source, out = tmp_path / "series.nii.gz", tmp_path / "out.nii.gz"
    nib.save(nib.Nifti1Image(series.T, np.eye(4)), source)
    assert cli.main(["denoise", str(source), str(out), "--sigma", "0.1"] + FAST) == 0
    result = np.asarray(nib.load(out).dataobj).T
    assert result.shape == series.shape
    profile = korvo.KORVOProfile(num_threads=1)
    profile.ht.search_window = profile.wiener.search_window = (3, 3, 2)
    for volume, denoised in zip(series, result):
        np.testing.assert_allclose(denoised, korvo.korvo(volume, 0.1, profile), atol=1e-4)


def test_tiff_round_trip(tmp_path, noisy_volume):
    tifffile = pytest.importorskip("tifffile")
    clean, noisy = noisy_volume
    for suffix in (".tif", ".tiff"):
        source, out = tmp_path / f"in{suffix}", tmp_path / f"out{suffix}"
        tifffile.imwrite(source, noisy)
        assert cli.main(["denoise", str(source), str(out), "--sigma", "0.1"] + FAST) == 0
        result = tifffile.imread(out)
        assert result.shape == noisy.shape
        assert psnr(result, clean) > psnr(noisy, clean) + 5


def test_2d_image_and_estimate_command(tmp_path, capsys):
    rng = np.random.default_rng(5)
    clean = korvo.phantom((40, 40))
    source, out = tmp_path / "img.npy", tmp_path / "out.npy"
    np.save(source, clean + 0.05 * rng.standard_normal(clean.shape))
    assert cli.main(["denoise", str(source), str(out), "--stages", "ht", "-q"]) == 0
    assert np.load(out).shape == clean.shape
    assert cli.main(["estimate", str(source)]) == 0
    assert float(capsys.readouterr().out) == pytest.approx(0.05, rel=0.3)


def test_errors_exit_with_a_message(tmp_path, capsys):
    source = tmp_path / "in.npy"
    np.save(source, np.full((8, 16, 16), np.nan))
    assert cli.main(["denoise", str(source), str(tmp_path / "o.npy"), "--sigma", "1"]) == 2
    assert "NaN" in capsys.readouterr().err
    assert cli.main(["denoise", str(source), str(tmp_path / "o.png"), "--sigma", "1"]) == 2
    assert cli.main(["denoise", str(source), str(tmp_path / "o.npy"), "--set",
                     "hard_threshold=-1"]) == 2
    assert cli.main(["denoise", str(source), str(tmp_path / "o.npy"), "--set", "bogus=1"]) == 2
    assert cli.main(["denoise", str(tmp_path / "missing.npy"), str(tmp_path / "o.npy")]) == 2


def test_demo_prints_psnr_and_writes_png(tmp_path):
    png = tmp_path / "demo.png"
    run = subprocess.run([sys.executable, "-m", "korvo", "demo", "--shape", "16", "32", "32",
                          "--png", str(png)], capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    lines = {line.split(":")[0]: line for line in run.stdout.splitlines()}
    before = float(lines["PSNR noisy"].split()[2])
    after = float(lines["PSNR denoised"].split()[2])
    assert after > before + 5
    assert "korvo Wiener" in run.stderr  # progress is on in the command line
    picture = read_png(png)
    side = 3 * 32 + 2 * 4  # three 32x32 panels a row, three rows, 4-pixel gaps
    assert picture.shape[0] == picture.shape[1] and picture.shape[0] % side == 0
    assert picture.std() > 10


@pytest.mark.skipif(not hasattr(signal, "SIGINT") or sys.platform == "win32", reason="POSIX")
def test_ctrl_c_ends_the_command(tmp_path):
    process = subprocess.Popen([sys.executable, "-m", "korvo", "demo", "--shape", "64", "128", "128",
                                "--png", str(tmp_path / "x.png")],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    time.sleep(2.5)  # start-up, phantom, then well into the first stage
    process.send_signal(signal.SIGINT)
    sent = time.monotonic()
    _, err = process.communicate(timeout=30)
    assert time.monotonic() - sent < 2.0
    assert process.returncode == 130, err
    assert "interrupted" in err


@pytest.mark.skipif(shutil.which("korvo") is None, reason="package not installed")
def test_console_script_is_installed():
    run = subprocess.run(["korvo", "--help"], capture_output=True, text=True)
    assert run.returncode == 0 and "denoise" in run.stdout
