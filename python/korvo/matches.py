"""Match lists recorded by one call and replayed by later ones."""

from __future__ import annotations

import numpy as np

from . import _native
from .profile import STAGE_KEYS, stage_parameters

__all__ = ["MatchStorage", "StageMatches"]


class StageMatches:
    """Match lists of one stage: per reference position the group size and the
    (x, y, z) positions of its blocks, in numpy arrays the native stage fills.
    The arrays may be edited; a replay checks them first."""

    def __init__(self, shape, record):
        rows = _native.match_storage_rows(record)
        entries = record.max_group_size
        self.shape = tuple(shape)
        self.block_size = record.block_size
        self.step = record.step
        self.search_window = record.search_window
        self.entries = entries
        self.counts = np.zeros(rows, dtype=np.int32)
        self.positions = np.zeros((rows * entries, 3), dtype=np.int32)
        self.relative_positions = np.zeros((rows * entries, 3), dtype=np.int32)
        self.rows = 0
        self.filled = False

    def check_replay(self, shape, record):
        """Refuse a replay whose geometry differs from the recording's, or a
        group larger than this call's ``max_group_size``."""
        expected = dict(shape=tuple(shape), block_size=record.block_size, step=record.step,
                        search_window=record.search_window)
        for name, value in expected.items():
            if getattr(self, name) != value:
                raise ValueError(f"the stored matches were recorded with {name} "
                                 f"{getattr(self, name)}, this call uses {value}")
        largest = int(self.counts[:self.rows].max(initial=0))
        if record.max_group_size < largest:
            raise ValueError(f"the stored groups hold up to {largest} blocks, more than this "
                             f"call's max_group_size {record.max_group_size}")

    def native(self):
        return (self.counts, self.positions, self.relative_positions, self.entries, self.rows,
                self.filled)

    def groups(self):
        """List of (n, 3) arrays of block positions (x, y, z) per reference position."""
        out = []
        for r in range(self.rows):
            start = r * self.entries
            out.append(self.positions[start:start + int(self.counts[r])].copy())
        return out

    @property
    def nbytes(self):
        return self.counts.nbytes + self.positions.nbytes + self.relative_positions.nbytes

    @staticmethod
    def storage_bytes(record):
        """Bytes the lists of a stage run by ``record`` take (``nbytes`` once made)."""
        rows = _native.match_storage_rows(record)
        return 4 * rows * (1 + 2 * 3 * record.max_group_size)


def shared_group_bytes(profile, shape, adaptation):
    """Bytes of the groups matched on a prewhitened copy that a call on
    ``shape`` adapted by ``adaptation`` holds for both stages (0: none)."""
    if not adaptation.prewhiten:
        return 0
    # The count of reference positions does not depend on the bands.
    return StageMatches.storage_bytes(stage_parameters(profile, 0, shape, adaptation=adaptation,
                                                       matching=True))


class MatchStorage:
    """Match lists handed from one call to another.

    Pass the same object to several :func:`korvo` calls: a stage whose lists
    are empty finds its groups and records them; a later call replays them
    instead of matching, so every call filters the same groups. Typical use is
    multichannel data: denoise the channel with the best signal first, then the
    others with its groups. ``ht`` and ``wiener`` hold the lists of the two
    stages (None until recorded). Replaying needs the same array shape, block
    size, step and search window, and a largest group at least as large as
    the largest recorded one.
    """

    def __init__(self):
        self.ht: StageMatches | None = None
        self.wiener: StageMatches | None = None

    @property
    def recorded(self):
        return {key: getattr(self, key) is not None and getattr(self, key).filled
                for key in STAGE_KEYS}

    def clear(self):
        self.ht = None
        self.wiener = None

    def for_stage(self, stage, shape, record):
        """The lists a stage records into (fresh) or replays (checked)."""
        key = STAGE_KEYS[stage]
        current = getattr(self, key)
        if current is not None and current.filled:
            current.check_replay(shape, record)
            return current
        current = StageMatches(shape, record)
        setattr(self, key, current)
        return current
