import numpy as np
import pytest

import korvo


def psnr(estimate, clean):
    mse = np.mean((np.asarray(estimate, np.float64) - clean) ** 2)
    return 10 * np.log10(float(np.ptp(clean)) ** 2 / mse)


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


@pytest.fixture
def fast_profile():
    """Small search windows: quick runs for tests that do not measure quality. One
    thread: with several the summation order, and so the last bits, vary."""
    p = korvo.KORVOProfile(num_threads=1)
    p.ht.search_window = (3, 3, 2)
    p.wiener.search_window = (3, 3, 2)
    return p
