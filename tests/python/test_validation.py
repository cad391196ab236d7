"""Every bad input raises ValueError or TypeError before any native code runs."""

import numpy as np
import pytest

import korvo
from korvo import _core


@pytest.fixture
def no_native(monkeypatch):
    def refuse():
        raise AssertionError("native code reached despite invalid input")
    monkeypatch.setattr(_core, "_native", refuse)


GOOD = np.zeros((8, 16, 16), np.float32)


def with_value(index, value):
    a = GOOD.copy()
    a.flat[index] = value
    return a


@pytest.mark.parametrize("data, error, text", [
    (with_value(5, np.nan), ValueError, "NaN or infinite"),
    (with_value(100, np.inf), ValueError, "NaN or infinite"),
    (with_value(7, -np.inf), ValueError, "NaN or infinite"),
    (np.zeros(64), ValueError, "2-D"),
    (np.zeros((2, 8, 8, 8)), ValueError, "2-D"),
    (np.zeros((0, 8, 8)), ValueError, "empty"),
    (np.zeros((3, 16, 16)), ValueError, "smaller than a block"),
    (np.zeros((16, 2, 16)), ValueError, "smaller than a block"),
    (np.zeros((5, 40)), ValueError, "smaller than a block"),
    (np.zeros((8, 8, 8), np.complex64), TypeError, "real"),
    (np.array([["a", "b"], ["c", "d"]]), TypeError, "real"),
    (np.zeros((8, 8, 8), bool), TypeError, "real"),
])
def test_bad_data(no_native, data, error, text):
    with pytest.raises(error, match=text):
        korvo.korvo(data, 1.0)


@pytest.mark.parametrize("noise, error, text", [
    (-1.0, ValueError, "positive"),
    (0.0, ValueError, "positive"),
    (float("nan"), ValueError, "finite"),
    (float("inf"), ValueError, "finite"),
    (True, TypeError, "number"),
    ("0.1", TypeError, "real"),
    (np.full((8, 8, 8), -1.0), ValueError, "negative"),
    (with_value(3, np.nan), ValueError, "NaN or infinite"),
    (with_value(3, np.inf), ValueError, "NaN or infinite"),
    (np.zeros((8, 8)), ValueError, "zero everywhere"),
    (np.ones(16), ValueError, "2-D or 3-D"),
    (np.ones((2, 2, 2, 2)), ValueError, "2-D or 3-D"),
    (np.ones((0, 4)), ValueError, "empty"),
    (np.ones((4, 4), complex), TypeError, "real"),
])
def test_bad_noise(no_native, noise, error, text):
    with pytest.raises(error, match=text):
        korvo.korvo(GOOD, noise)


def test_bad_call_arguments(no_native):
    with pytest.raises(TypeError, match="KORVOProfile"):
        korvo.korvo(GOOD, 1.0, {"hard_threshold": 2.0})
    with pytest.raises(ValueError, match="stages"):
        korvo.korvo(GOOD, 1.0, stages="all")
    with pytest.raises(ValueError, match="pilot"):
        korvo.korvo(GOOD, 1.0, stages="wiener")
    with pytest.raises(ValueError, match="pilot shape"):
        korvo.korvo(GOOD, 1.0, stages="wiener", pilot=np.zeros((8, 16, 15)))
    with pytest.raises(ValueError, match="NaN"):
        korvo.korvo(GOOD, 1.0, stages="wiener", pilot=with_value(0, np.nan))
    with pytest.raises(ValueError, match="only used"):
        korvo.korvo(GOOD, 1.0, pilot=GOOD)
    with pytest.raises(TypeError, match="MatchStorage"):
        korvo.korvo(GOOD, 1.0, matches=[])
    with pytest.raises(TypeError, match="progress"):
        korvo.korvo(GOOD, 1.0, progress="yes")
    p = korvo.KORVOProfile(psd_work_size=(64, 64, 1))
    p.ht.block_size = (4, 4, 4)
    with pytest.raises(ValueError, match="smaller than the block"):
        korvo.korvo(GOOD, 1.0, p)


@pytest.mark.parametrize("name, value, error", [
    ("hard_threshold", -1.0, ValueError),
    ("hard_threshold", float("nan"), ValueError),
    ("hard_threshold", "2.7", TypeError),
    ("wiener_factor", 0.0, ValueError),
    ("psd_work_size", (12, 16, 16), ValueError),
    ("psd_work_size", (64, 64, 64), ValueError),
    ("psd_work_size", (16, 16), ValueError),
    ("psd_work_size", (16.0, 16, 16), TypeError),
    ("variance_group_limit", -1, ValueError),
    ("variance_group_limit", 65, ValueError),
    ("variance_group_limit", 1.5, TypeError),
    ("match_variance_weight", -0.5, ValueError),
    ("sharpen", 1, TypeError),
    ("sharpen_exponent", 0.0, ValueError),
    ("num_threads", 0, ValueError),
    ("split_block_extraction", (True, False), ValueError),
    ("split_block_extraction", (1, 0, 0), TypeError),
    ("split_block_extraction", True, TypeError),
    ("ht", {"step": 3}, TypeError),
    ("no_such_setting", 1, AttributeError),
])
def test_bad_profile_values(name, value, error):
    p = korvo.KORVOProfile()
    with pytest.raises(error):
        setattr(p, name, value)
    assert p == korvo.KORVOProfile()  # a refused value leaves the profile unchanged


@pytest.mark.parametrize("name, value, error", [
    ("block_size", (8, 8, 8), ValueError),
    ("block_size", (4, 4, 1), ValueError),
    ("step", (3, 0, 3), ValueError),
    ("step", (3, 3), ValueError),
    ("search_window", -1, ValueError),
    ("max_group_size", 0, ValueError),
    ("max_group_size", 12, ValueError),
    ("max_group_size", 128, ValueError),
    ("match_threshold", -1.0, ValueError),
    ("match_threshold", float("inf"), ValueError),
])
def test_bad_stage_values(name, value, error):
    for stage in (korvo.KORVOProfile().ht, korvo.StageProfile()):
        with pytest.raises(error):
            setattr(stage, name, value)


def test_profile_defaults_and_resolution():
    p = korvo.KORVOProfile()
    assert p.hard_threshold == pytest.approx(2.7)
    assert p.ht.max_group_size == 16 and p.wiener.max_group_size == 32
    p.ht.step = 2  # an integer applies to every axis
    assert p.ht.step == (2, 2, 2)
    volume = p.resolve((20, 30, 40))
    assert volume["ht"]["block_size"] == (4, 4, 4)
    assert volume["ht"]["step"] == (2, 2, 2)
    plane = korvo.KORVOProfile().resolve((30, 40))
    assert plane["ht"]["block_size"] == (8, 8, 1)
    assert plane["ht"]["search_window"][2] == 0
    assert plane["ht"]["psd_work_size"][2] == 1
    with pytest.raises(ValueError, match="smaller than a block"):
        korvo.KORVOProfile().resolve((40, 3))
