"""Threads, progress, interruption, memory failures and the band-splitting choice."""

import _thread
import os
import subprocess
import sys
import textwrap
import threading
import time

import numpy as np
import pytest

import korvo
from korvo import _core


def test_concurrent_calls_from_threads(volume, fast_profile):
    rng = np.random.default_rng(7)
    inputs = [volume + 0.1 * rng.standard_normal(volume.shape) for _ in range(4)]
    expected = [korvo.korvo(z, 0.1, fast_profile) for z in inputs]
    results = [None] * 8
    errors = []

    def work(i):
        try:
            results[i] = korvo.korvo(inputs[i % 4], 0.1, fast_profile)
        except BaseException as exc:  # pragma: no cover - reported below
            errors.append(exc)

    threads = [threading.Thread(target=work, args=(i,)) for i in range(8)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not errors
    for i, result in enumerate(results):
        np.testing.assert_allclose(result, expected[i % 4], atol=1e-4)


def test_progress_callback(volume, fast_profile):
    seen = []
    korvo.korvo(volume + 0.01, 0.1, fast_profile, progress=lambda *a: seen.append(a))
    stages = {label for label, _, _ in seen}
    assert stages == {"korvo hard thresholding", "korvo Wiener"}
    for label in stages:
        final = [a for a in seen if a[0] == label][-1]
        assert final[1] == final[2] > 0


def test_plain_progress_line(volume, fast_profile, monkeypatch, capsys):
    monkeypatch.setitem(sys.modules, "tqdm", None)
    monkeypatch.setitem(sys.modules, "tqdm.auto", None)
    korvo.korvo(volume + 0.01, 0.1, fast_profile, stages="ht", progress=True)
    err = capsys.readouterr().err
    assert "korvo hard thresholding: 100%" in err


def test_ctrl_c_stops_a_run_quickly(fast_profile):
    big = korvo.phantom((64, 96, 96))
    profile = korvo.KORVOProfile()  # full-size windows: a run of several seconds
    profile.num_threads = 2
    timer = threading.Timer(0.5, _thread.interrupt_main)
    started = time.monotonic()
    timer.start()
    with pytest.raises(KeyboardInterrupt):
        korvo.korvo(big, 0.1, profile)
    assert time.monotonic() - started < 2.5
    timer.cancel()
    # The library is usable again afterwards.
    small = korvo.phantom((8, 16, 16))
    assert np.isfinite(korvo.korvo(small, 0.1, fast_profile)).all()


class _FailingNative:
    """Stands in for the extension: every stage reports an allocation failure."""

    class Monitor:
        slices_done = 0
        slices_total = 0
        cancelled = False

        def cancel(self):
            self.cancelled = True

    @staticmethod
    def run_stage(*args):
        return (False, 0)


def test_allocation_failure_becomes_memory_error(volume, monkeypatch):
    monkeypatch.setattr(_core, "_native", lambda: _FailingNative)
    with pytest.raises(MemoryError, match=r"split_block_extraction = \[False, False, True\]"):
        korvo.korvo(volume, 0.1)


@pytest.mark.skipif(not sys.platform.startswith("linux"), reason="address-space limit")
def test_real_allocation_failure_in_a_limited_process(tmp_path):
    # Whole-volume block collections need ~256 bytes per voxel: far more than allowed here.
    script = textwrap.dedent("""
        import resource, numpy as np, korvo
        z = korvo.phantom((48, 160, 160))
        p = korvo.KORVOProfile(split_block_extraction=(False, False, False), num_threads=1)
        small = korvo.KORVOProfile(split_block_extraction=(False, False, True), num_threads=1)
        small.ht.search_window = small.wiener.search_window = (2, 2, 2)
        soft, hard = resource.getrlimit(resource.RLIMIT_AS)
        with open("/proc/self/statm") as f:
            used = int(f.read().split()[0]) * resource.getpagesize()
        resource.setrlimit(resource.RLIMIT_AS, (used + 150 * 2**20, hard))
        try:
            korvo.korvo(z, 0.1, p, stages="ht")
        except MemoryError as e:
            print("MEMORYERROR", "split_block_extraction" in str(e))
        y = korvo.korvo(z, 0.1, small, stages="ht")
        print("SPLIT OK", bool(np.isfinite(y).all()))
    """)
    run = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                         timeout=120)
    assert "MEMORYERROR True" in run.stdout, run.stdout + run.stderr
    assert "Failed to allocate block memory" in run.stderr
    assert "SPLIT OK True" in run.stdout, run.stdout + run.stderr


def test_split_choice_follows_memory():
    settings = korvo.KORVOProfile().resolve((128, 256, 256))["wiener"]
    extents = (256, 256, 128)
    whole = _core._collection_bytes(extents, settings, (False, False, False), 2)
    assert whole > 3 * 2**30  # 2 collections x 64 floats per position
    # Bands along z are far smaller than the whole volume, and cost no time.
    assert _core._choose_split(extents, settings, 2, None) == (False, False, True)
    assert _core._choose_split(extents, settings, 2, whole) == (False, False, True)
    assert _core._choose_split(extents, settings, 2, 1) == (False, True, True)
    # A volume barely deeper than a band keeps it whole.
    assert _core._choose_split((256, 256, 12), settings, 2, None) == (False, False, False)
    plane = korvo.KORVOProfile().resolve((4000, 4000))["ht"]
    assert _core._choose_split((4000, 4000, 1), plane, 1, 2**20) in ((False, True, False),
                                                                     (True, True, False))
    assert korvo.available_memory() is None or korvo.available_memory() > 0
