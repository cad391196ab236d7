"""A synthetic test object: ellipsoids, small spheres and a smooth shading."""

from __future__ import annotations

import numpy as np

__all__ = ["phantom"]

# (centre x, y, z, semi-axes x, y, z, rotation about z in degrees, added value),
# in coordinates where the volume spans [-1, 1] on every axis.
_ELLIPSOIDS = (
    (0.00, 0.00, 0.00, 0.72, 0.90, 0.80, 0, 0.80),    # outer shell
    (0.00, -0.02, 0.00, 0.66, 0.84, 0.74, 0, -0.55),  # interior
    (0.20, 0.05, 0.05, 0.11, 0.30, 0.22, -18, -0.15),  # left cavity
    (-0.20, 0.05, 0.05, 0.15, 0.38, 0.25, 18, -0.15),  # right cavity
    (0.00, 0.35, -0.20, 0.20, 0.25, 0.20, 0, 0.12),
    (0.00, -0.45, 0.30, 0.05, 0.05, 0.05, 0, 0.20),
    (0.06, -0.60, -0.10, 0.05, 0.03, 0.06, 0, 0.15),
    (-0.08, -0.60, 0.15, 0.03, 0.03, 0.04, 0, 0.15),
    (0.30, -0.30, -0.35, 0.12, 0.08, 0.10, 35, 0.10),
)
# Small spheres of decreasing radius along a line: detail near the block size.
_SPHERES = tuple((-0.45 + 0.15 * i, 0.55, 0.0, 0.10 - 0.013 * i, 0.18) for i in range(7))


def phantom(shape=(64, 64, 64), dtype=np.float32):
    """A piecewise-smooth volume (or, for a 2-D shape, its middle slice) with
    values in about [0, 1]: nested ellipsoids, a row of small spheres of
    shrinking radius, and a gentle linear shading. Deterministic."""
    shape = tuple(int(n) for n in shape)
    if len(shape) == 2:
        return phantom((1,) + shape, dtype)[0]
    if len(shape) != 3 or min(shape) < 1:
        raise ValueError("phantom shape must be 2-D or 3-D with positive extents")
    nz, ny, nx = shape
    axes = [np.linspace(-1.0, 1.0, n) if n > 1 else np.zeros(1) for n in (nz, ny, nx)]
    z, y, x = np.meshgrid(*axes, indexing="ij", sparse=True)
    volume = np.zeros(shape)
    for cx, cy, cz, ax, ay, az, degrees, value in _ELLIPSOIDS:
        t = np.deg2rad(degrees)
        u = (x - cx) * np.cos(t) + (y - cy) * np.sin(t)
        v = -(x - cx) * np.sin(t) + (y - cy) * np.cos(t)
        inside = (u / ax) ** 2 + (v / ay) ** 2 + ((z - cz) / az) ** 2 <= 1.0
        volume += value * inside
    for cx, cy, cz, r, value in _SPHERES:
        volume += value * (((x - cx) ** 2 + (y - cy) ** 2 + (z - cz) ** 2) <= r * r)
    volume += 0.08 * (x + 0.5 * y) * (volume > 0.1)
    return np.clip(volume, 0.0, None).astype(dtype)
