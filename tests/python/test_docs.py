"""The documentation cannot drift: every fenced Python block of the README and
docs/ runs as it stands, and the defaults tables match KORVOProfile()."""

import ast
import pathlib
import re
import subprocess
import sys

import pytest

import korvo

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
FENCE = re.compile(r"^```python\n(.*?)^```", re.S | re.M)


def _blocks():
    for page in PAGES:
        text = page.read_text()
        for match in FENCE.finditer(text):
            line = text.count("\n", 0, match.start()) + 1
            yield pytest.param(match.group(1), id=f"{page.relative_to(ROOT)}:{line}")


@pytest.mark.parametrize("code", list(_blocks()))
def test_python_block_runs(code, tmp_path):
    # Each block is self-contained; it runs as a script in a scratch folder.
    run = subprocess.run([sys.executable, "-c", code], cwd=tmp_path, capture_output=True,
                         text=True, timeout=600)
    assert run.returncode == 0, run.stderr[-3000:]


def _table_value(text):
    """First cell value of a defaults table: a Python literal, or None when the
    default is chosen per call ("`None`: ...")."""
    text = text.strip().strip("`")
    return None if text.startswith("None") else ast.literal_eval(text)


def _table_rows(heading):
    text = (ROOT / "docs" / "python.md").read_text()
    section = text.split(heading, 1)[1]
    rows = {}
    for line in section.splitlines()[2:]:
        if not line.startswith("|"):
            if rows:
                break
            continue
        cells = [c.strip() for c in line.strip("|").split("|")]
        names = re.findall(r"`(\w+)`", cells[0])
        if names and not cells[0].startswith("setting"):
            rows[tuple(names)] = cells[1:]
    return rows


def test_defaults_tables_match_the_code():
    profile = korvo.KORVOProfile()
    checked = 0
    for names, cells in _table_rows("## `korvo.KORVOProfile`").items():
        if names in (("ht", "wiener"),):
            continue
        values = [v.strip() for v in re.split(r",\s*(?![^()]*\))", cells[0].strip("`"))]
        for name, value in zip(names, values * len(names) if len(values) == 1 else values):
            assert getattr(profile, name) == _table_value(value), name
            checked += 1
    assert checked == len(profile._defaults) - 2
    # The stage table: a column per stage, "same" for the first's value.
    rows = _table_rows("`StageProfile` (`profile.ht`, `profile.wiener`)")
    assert {n for (n,) in rows} == set(profile.ht._defaults)
    for (name,), cells in rows.items():
        ht = cells[0]
        wiener = ht if cells[1] == "same" else cells[1]
        assert getattr(profile.ht, name) == _table_value(ht), name
        assert getattr(profile.wiener, name) == _table_value(wiener), name
