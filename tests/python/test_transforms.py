"""Caller block transforms: the same results as the built-in sets, refused
shapes, and block sizes that only run through them."""

import math

import numpy as np
import pytest

import korvo
from korvo import _native
from korvo.profile import stage_parameters
from korvo.transforms import block_transforms


def _noisy(shape):
    """The phantom in the stages' units: noise of std 1."""
    rng = np.random.default_rng(5)
    return (korvo.phantom(shape) / 0.1 + rng.standard_normal(shape)).astype(np.float32)


def _record(stage, shape, block=None, step=None):
    record = stage_parameters(korvo.KORVOProfile(num_threads=1), stage, shape)
    if block is not None:
        record.match_threshold *= math.prod(block) / math.prod(record.block_size)
        record.block_size, record.step = block, step
        record.split_block_extraction = (False, False, True)
    return record


def _stage(stage, noisy, record, pilot=None, transforms=None):
    out = np.zeros_like(noisy)
    psd = np.ones((1, 1, 1), np.float32)
    status, _ = _native.run_stage(stage, noisy, psd, record, pilot, out, None, _native.Monitor(),
                                  transforms)
    assert status == _native.StageStatus.COMPLETED
    return out


@pytest.mark.parametrize("shape, stages", [((12, 16, 16), (0, 1)), ((32, 32), (1,))])
def test_builtin_tables_through_caller_path(shape, stages):
    # 4x4x4 blocks (both stages) and the 8x8x1 Wiener set are a DCT per axis and
    # a Kaiser window: passing our tables must give the built-in results.
    noisy = _noisy(shape)
    pilot = None
    for stage in stages:
        record = _record(stage, shape)
        if pilot is None and stage == 1:
            pilot = _stage(0, noisy, _record(0, shape))
        builtin = _stage(stage, noisy, record, pilot)
        caller = _stage(stage, noisy, record, pilot, block_transforms(record.block_size))
        # Float rounding may flip a coefficient at the threshold: a few voxels move slightly.
        difference = np.abs(builtin - caller)
        assert difference.max() < 0.05 and difference.mean() < 1e-4
        pilot = builtin


def test_caller_transforms_are_checked_and_run_large_blocks():
    good = block_transforms((4, 4, 4))
    # a wrong size, two axes, float64, a non-contiguous matrix, a vector, a short window
    for change in (dict(forward=(good.forward[0], np.eye(3, dtype=np.float32), good.forward[2])),
                   dict(inverse=good.inverse[:2]),
                   dict(forward=(good.forward[0].astype(np.float64),) + good.forward[1:]),
                   dict(inverse=(np.asfortranarray(good.forward[0]),) + good.inverse[1:]),
                   dict(forward=(good.forward[0].ravel(),) + good.forward[1:]),
                   dict(window=good.window[:3])):
        with pytest.raises(ValueError):
            _stage(0, _noisy((8, 8, 8)), _record(0, (8, 8, 8)),
                   transforms=type(good)(**{**good.__dict__, **change}))
    # A block size without a built-in set needs caller transforms.
    with pytest.raises(ValueError, match="No transform"):
        _stage(0, _noisy((8, 8, 8)), _record(0, (8, 8, 8), (8, 8, 8), (6, 6, 6)))
    # Smooth data with unit noise: larger blocks gather more of the signal into few coefficients.
    shape = (16, 24, 24)
    z, y, x = np.mgrid[:16, :24, :24] / 24.0
    clean = 5 * np.sin(2 * np.pi * x) * np.cos(2 * np.pi * y) + 3 * z
    noisy = (clean + np.random.default_rng(2).standard_normal(shape)).astype(np.float32)
    block, step = (8, 8, 8), (4, 4, 4)
    transforms = block_transforms(block)
    pilot = _stage(0, noisy, _record(0, shape, block, step), transforms=transforms)
    final = _stage(1, noisy, _record(1, shape, block, step), pilot, transforms)
    mse = lambda a: np.mean((a.astype(np.float64) - clean) ** 2)  # noqa: E731
    assert mse(noisy) > 0.9 and mse(final) < mse(pilot) < 0.1
    # The same through the profile: korvo passes the transforms, the step follows the block.
    profile = korvo.KORVOProfile(num_threads=1)
    profile.ht.block_size = profile.wiener.block_size = (8, 8, 4)
    assert profile.resolve(shape)["ht"].step == (4, 4, 3)
    assert mse(korvo.korvo(noisy, sigma=1.0, profile=profile)) < 0.1
