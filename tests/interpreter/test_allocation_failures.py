"""A failed memory allocation is a MemoryError, whichever it is, and never a crash."""

import subprocess
import sys

import pytest

pytest.importorskip("_testcapi", reason="this CPython has no _testcapi, which makes allocations fail")


def test_every_allocation_of_every_operation_may_fail():
    """In a child process: no crash, every lock free afterwards, and each operation did meet failures."""
    child = subprocess.run(
        [sys.executable, "-m", "tests.interpreter.allocation_failures"],
        capture_output=True, text=True, timeout=300, check=False,
    )  # fmt: skip
    assert child.returncode == 0, child.stdout + child.stderr
    assert child.stdout.splitlines()[-1].endswith("no crash")
