"""Progress display for long runs: tqdm when installed, else a plain line on stderr."""

from __future__ import annotations

import sys
import time

__all__ = ["make_reporter"]


class _Silent:
    def start(self, label):
        pass

    def update(self, done, total):
        pass

    def close(self):
        pass


class _Callback:
    """Calls ``function(stage_label, done, total)`` whenever the count changes."""

    def __init__(self, function):
        self._function = function
        self._label = ""
        self._last = None

    def start(self, label):
        self._label = label
        self._last = None

    def update(self, done, total):
        if total > 0 and (done, total) != self._last:
            self._last = (done, total)
            self._function(self._label, done, total)

    def close(self):
        pass


class _Tqdm:
    def __init__(self, tqdm):
        self._tqdm = tqdm
        self._bar = None
        self._label = ""

    def start(self, label):
        self.close()
        self._label = label

    def update(self, done, total):
        if total <= 0:
            return
        if self._bar is None:  # created once the stage knows its slice count
            self._bar = self._tqdm(desc=self._label, total=total, unit="slice", leave=True,
                                   file=sys.stderr)
        if done > self._bar.n:
            self._bar.update(done - self._bar.n)

    def close(self):
        if self._bar is not None:
            self._bar.close()
            self._bar = None


class _Plain:
    """Percentage on one stderr line, rewritten at most a few times a second."""

    def __init__(self, stream=None):
        self._stream = stream or sys.stderr
        self._label = ""
        self._started = 0.0
        self._shown = -1
        self._last = 0.0

    def start(self, label):
        self.close()
        self._label = label
        self._started = time.monotonic()
        self._shown = -1

    def update(self, done, total):
        if total <= 0:
            return
        percent = int(100 * done / total)
        now = time.monotonic()
        if percent != self._shown and (now - self._last >= 0.25 or percent == 100):
            self._shown = percent
            self._last = now
            self._stream.write(f"\r{self._label}: {percent:3d}% ({done}/{total} slices, "
                               f"{now - self._started:.1f} s)")
            self._stream.flush()

    def close(self):
        if self._shown >= 0:
            self._stream.write("\n")
            self._stream.flush()
            self._shown = -1


def make_reporter(progress):
    """False/None: nothing; True: tqdm or the plain line; a callable: called as
    ``progress(stage_label, slices_done, slices_total)``."""
    if progress is None or progress is False:
        return _Silent()
    if callable(progress):
        return _Callback(progress)
    if progress is True:
        try:
            from tqdm.auto import tqdm
        except ImportError:
            return _Plain()
        return _Tqdm(tqdm)
    raise TypeError("progress must be True, False or a callable(stage, done, total)")
