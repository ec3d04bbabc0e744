"""A program that embeds the interpreter, ends it and starts another one."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import sysconfig
from pathlib import Path

import pytest

from tests.conftest import ROOT
from tests.module.test_import import CHANGED

COMPILER = os.environ.get("CXX") or shutil.which("c++") or shutil.which("g++") or shutil.which("clang++")
LIBRARY = Path(sysconfig.get_config_var("LIBDIR")) / f"libpython{sysconfig.get_config_var('LDVERSION')}.so"

pytestmark = [
    pytest.mark.skipif(COMPILER is None, reason="no C++ compiler to build the embedding program with"),
    pytest.mark.skipif(not LIBRARY.exists(), reason=f"this CPython has no shared library ({LIBRARY.name})"),
    pytest.mark.no_sanitizer,  # the embedding program does not begin with the sanitizer's run-time
]


def test_the_interpreter_that_is_started_next_is_refused_the_module(tmp_path: Path) -> None:
    """The objects of the first one are gone: importing says so instead of handing them out."""
    program = tmp_path / "restarted"
    subprocess.run(
        [
            str(COMPILER), str(Path(__file__).with_name("restarted.cpp")), "-o", str(program),
            f"-I{sysconfig.get_path('include')}", f"-I{sysconfig.get_path('platinclude')}", "-std=c++17",
            str(LIBRARY), f"-Wl,-rpath,{LIBRARY.parent}",
        ],
        check=True, timeout=120,
    )  # fmt: skip
    child = subprocess.run(
        [str(program)],
        env={
            **os.environ,
            "PYTHONHOME": sys.base_prefix,
            "PYTHONPATH": os.pathsep.join([str(ROOT), sysconfig.get_path("purelib")]),
        },
        capture_output=True, text=True, timeout=120,
    )  # fmt: skip
    assert (child.returncode, child.stdout) == (0, f"True\n{CHANGED}\n"), child.stderr
