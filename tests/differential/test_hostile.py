"""Programs that disturb the module in every way known: none crashes it, or leaves a lock held."""

from __future__ import annotations

import importlib.util
import re
import subprocess
import sys
from types import ModuleType
from typing import Any

import pytest

from tests.conftest import ROOT
from tests.differential.hostile import allocations
from tests.differential.hostile.kinds import KINDS
from tests.differential.hostile.programs import HostileCase, difference
from tests.thorough import sized
from tests.twin import cloud_node as twin

PROGRAMS = sized(500, 1600)


def test_a_short_search_finds_nothing() -> None:
    """In child processes, of which some use the module for the first time; every kind runs."""
    child = subprocess.run(
        [sys.executable, "-m", "tests.differential", "--programs", str(PROGRAMS), "--first", "7"],
        cwd=ROOT, capture_output=True, text=True, timeout=900,
    )  # fmt: skip
    assert child.returncode == 0, child.stdout + child.stderr
    counts = {kind: int(number) for number, kind in re.findall(r"^ *(\d+) (.*)$", child.stdout, re.M)}
    assert all(counts[kind] > PROGRAMS // 20 for kind in KINDS), counts
    assert counts["of them as the first use of the module in their process"] > PROGRAMS // 20
    cpp_failed = "could not be made to fail" not in child.stdout
    assert cpp_failed == (allocations.environment().get("LD_PRELOAD") is not None)


def broken_twin() -> Any:
    """Another twin, which forgets to give its lock back where a copy fails, and copies once too often."""
    spec = importlib.util.spec_from_file_location("tests.twin.broken", str(twin.__file__))
    assert spec is not None and spec.loader is not None
    module: Any = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)

    def get_node_list(self: Any) -> Any:
        lock = self._NodeManager__node_list_lock
        lock.acquire()
        copied = module.deepcopy(module.deepcopy(self._NodeManager__node_list))
        lock.release()
        return copied

    module.NodeManager.get_node_list = get_node_list
    return module


@pytest.mark.parametrize("kind", ["finalisers", "signals in hooks", "self-replacing names"])
def test_the_search_finds_a_forgotten_release(kind: str) -> None:
    """A search that cannot fail would prove nothing."""
    broken = broken_twin()
    assert any(difference(broken, twin, HostileCase(kind, seed)) for seed in range(300))


def test_a_case_is_the_same_each_time(cloud_node: ModuleType) -> None:
    """Else it could not be run again."""
    for kind in ("finalisers", "self-replacing names", "signals in hooks"):
        case = HostileCase(kind, 5)
        assert difference(cloud_node, cloud_node, case) is None
