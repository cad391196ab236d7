"""Block transforms supplied by the caller, for block sizes without a built-in set.

The library carries transform sets for 4x4x4 and 8x8x1 blocks only. Any other
block size runs with matrices passed from here: an orthonormal DCT-II along
every axis and a separable Kaiser aggregation window (the same window family
and beta as the built-in sets). Groups keep the library's Haar transforms.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

__all__ = ["BlockTransforms", "block_transforms", "dct_matrix", "kaiser_window"]

# The built-in windows are separable Kaiser windows of this beta.
KAISER_BETA = 2.0


@dataclass(frozen=True)
class BlockTransforms:
    """Per-axis matrices (x, y, z) and the aggregation window of one block size.

    A matrix M maps an axis of n samples to coefficients k = sum_j M[k, j] x[j];
    ``window`` has the block's shape in array order (z, y, x).
    """

    forward: tuple
    inverse: tuple
    window: np.ndarray

    @property
    def block_size(self):
        return tuple(m.shape[0] for m in self.forward)


def dct_matrix(n):
    """The orthonormal DCT-II of n points (the 1x1 identity for n = 1)."""
    k = np.arange(n)[:, None]
    j = np.arange(n)[None, :]
    m = np.cos(np.pi * (2 * j + 1) * k / (2 * n)) * np.sqrt(2.0 / n)
    m[0] /= np.sqrt(2.0)
    return m


def kaiser_window(block_size, beta=KAISER_BETA):
    """Separable Kaiser window over a block of (x, y, z) extents, shape (z, y, x);
    a flat axis (extent 1) has weight 1."""
    wx, wy, wz = (np.kaiser(n, beta) if n > 1 else np.ones(1) for n in block_size)
    return wz[:, None, None] * wy[None, :, None] * wx[None, None, :]


def block_transforms(block_size, beta=KAISER_BETA):
    """DCT-II along every axis and a Kaiser window for (x, y, z) block extents."""
    block_size = tuple(int(n) for n in block_size)
    if len(block_size) != 3 or min(block_size) < 1:
        raise ValueError(f"block_size must be three extents of at least 1 (x, y, z), got {block_size}")
    forward = tuple(np.ascontiguousarray(dct_matrix(n), np.float32) for n in block_size)
    inverse = tuple(np.ascontiguousarray(m.T) for m in forward)
    window = np.ascontiguousarray(kaiser_window(block_size, beta), np.float32)
    return BlockTransforms(forward, inverse, window)
