"""The package's types as users' checkers see them."""

import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]


def run_module(*arguments: str) -> str:
    """Run a module of this environment at the root of the tree; return what it said, empty when content."""
    command = [sys.executable, "-m", *arguments]
    done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False)
    return "" if done.returncode == 0 else done.stdout + done.stderr or f"exit status {done.returncode}"


@pytest.mark.thorough(reason="make lint runs it, too")
def test_the_package_passes_a_strict_type_check() -> None:
    """mypy in strict mode finds nothing in the package."""
    assert run_module("mypy", "-p", "tovarincore") == ""


@pytest.mark.thorough(reason="make lint runs it, too")
def test_the_stub_describes_the_module_that_was_built() -> None:
    """Every name, signature and default of cloud_node.pyi is found in the built module, and the reverse."""
    options = ("--concise", "--mypy-config-file", "pyproject.toml")
    assert run_module("mypy.stubtest", *options, "tovarincore.cloud_node") == ""
