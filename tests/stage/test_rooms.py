"""Tests of who may use whom among the rooms beside the package."""

from __future__ import annotations

import ast
from collections.abc import Iterator
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]
ROOMS = {"benchmarks", "demo", "stage", "tests"}
# The stage belongs to nobody; the benchmarks measure the module beside the tests' twin.
MAY_USE = {
    "stage": set(),
    "demo": {"stage"},
    "benchmarks": {"stage", "tests"},
    "tests": {"stage", "demo"},
    "tovarincore": set(),
}


def imported_by(path: Path) -> Iterator[str]:
    """The modules that a file imports, wherever in it."""
    for node in ast.walk(ast.parse(path.read_text(encoding="utf-8"))):
        if isinstance(node, ast.Import):
            yield from (alias.name for alias in node.names)
        elif isinstance(node, ast.ImportFrom) and node.module:
            yield node.module


@pytest.mark.parametrize("room", MAY_USE)
def test_a_room_uses_only_those_below_it(room: str) -> None:
    """No circle arises, and a demo needs no part of the tests."""
    used = {
        (path.relative_to(ROOT).as_posix(), module)
        for path in (ROOT / room).rglob("*.py")
        for module in imported_by(path)
        if module.split(".")[0] in ROOMS - {room} - MAY_USE[room]
    }
    assert used == set()
