import subprocess
import sys
import textwrap

import numpy as np
import pytest

import korvo


def psnr(estimate, clean):
    mse = np.mean((np.asarray(estimate, np.float64) - clean) ** 2)
    return 10 * np.log10(float(np.ptp(clean)) ** 2 / mse)


# The command-line form of fast()
FAST_ARGS = ["--set", "ht.search_window=3,3,2", "--set", "wiener.search_window=3,3,2",
             "--threads", "1", "-q"]


def fast(window=(3, 3, 2), **settings):
    """Small search windows: quick runs for tests that do not measure quality. One
    thread: with several the summation order, and so the last bits, vary."""
    p = korvo.KORVOProfile(**{"num_threads": 1, **settings})
    p.ht.search_window = p.wiener.search_window = window
    return p


def noisy_pair(shape, seed=0, sigma=0.1):
    """The phantom and a float32 copy with white noise of std SIGMA."""
    clean = korvo.phantom(shape)
    noise = sigma * np.random.default_rng(seed).standard_normal(shape)
    return clean, (clean + noise).astype(np.float32)


def run_script(body, timeout=300, **kwargs):
    """Run in a child: a native abort or a resource limit must not end pytest."""
    script = "import numpy as np, korvo\n" + textwrap.dedent(body)
    run = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                         timeout=timeout, **kwargs)
    assert run.returncode == 0, run.stderr[-3000:]
    return run


def denoise(*arguments):
    """The exit status of korvo denoise ARGUMENTS (paths may be Path objects)."""
    from korvo import cli
    return cli.main(["denoise"] + [str(a) for a in arguments])


def refused(capsys, arguments, words):
    """korvo denoise ARGUMENTS exits 2 with one line that holds WORDS."""
    assert denoise("-q", *arguments) == 2, arguments
    err = capsys.readouterr().err.strip()
    assert err.startswith("korvo: error:") and words in err and "\n" not in err, (arguments, err)


@pytest.fixture(scope="session")
def volume():
    """Small phantom volume (slices, rows, columns) with values in [0, 1]."""
    return korvo.phantom((16, 32, 32)).astype(np.float64)


@pytest.fixture(scope="session")
def image():
    return korvo.phantom((48, 48)).astype(np.float64)


@pytest.fixture
def rng():
    return np.random.default_rng(1234)


@pytest.fixture(scope="session")
def noisy_phantom(volume):
    """The phantom volume with white noise of std 0.1."""
    return volume + 0.1 * np.random.default_rng(1234).standard_normal(volume.shape)


@pytest.fixture
def fast_profile():
    return fast()
