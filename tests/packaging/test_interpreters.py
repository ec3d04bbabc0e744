"""Interpreters that the module is not made for: refused, or said to be untried."""

import shutil
import subprocess
import sys
import sysconfig
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]
COMPILER = shutil.which("c++")
CMAKE = Path(sys.executable).with_name("cmake")


@pytest.mark.skipif(COMPILER is None, reason="no C++ compiler (on Debian: apt-get install g++)")
@pytest.mark.parametrize(
    ("kind", "said"),
    [
        (["-DPy_GIL_DISABLED"], "does not support free-threaded CPython"),
        (["-DPy_DEBUG", "-DTOVARIN_FAST=1"], "configure with -DTOVARIN_FAST=OFF"),
    ],
    ids=["free-threaded", "debug"],
)
def test_an_interpreter_that_would_go_wrong_is_refused_by_the_compiler(kind: list[str], said: str) -> None:
    command = [str(COMPILER), "-std=c++20", "-fsyntax-only", "-x", "c++", *kind, "-"]
    command += ["-I", str(ROOT / "tovarincore" / "cloud_node"), "-isystem", sysconfig.get_path("include")]
    source = '#include "python/interpreter.h"\n'
    done = subprocess.run(command, input=source, capture_output=True, text=True)
    assert done.returncode != 0
    assert said in done.stderr


@pytest.mark.parametrize("program", ["python_defect", "serves"])
def test_a_free_threaded_interpreter_is_not_chosen(program: str, tmp_path: Path) -> None:
    """The interpreter that stands in for one says what a free-threaded one says of itself."""
    startup = tmp_path / "startup.py"
    startup.write_text(
        "import sys, sysconfig\n"
        "ask = sysconfig.get_config_var\n"
        "sysconfig.get_config_var = lambda name: 1 if name == 'Py_GIL_DISABLED' else ask(name)\n"
        "exec(sys.stdin.read())\n"
    )
    stand_in = tmp_path / "python"
    stand_in.write_text(f'#!/bin/sh\nexec "{sys.executable}" "{startup}"\n')
    stand_in.chmod(0o755)
    script = f'. scripts/find_python.sh; {program} "{stand_in}"'
    done = subprocess.run(["bash", "-c", script], cwd=ROOT, capture_output=True, text=True)
    if program == "serves":
        assert done.returncode != 0
    else:
        assert done.stdout == "is free-threaded, which is not supported: take one that has the global lock\n"


@pytest.mark.skipif(not CMAKE.exists(), reason="CMake is not in the environment: run `make setup`")
@pytest.mark.parametrize(("version", "said"), [("3.13.0", 0), ("3.14.0", 1), ("3.15.1", 1)])
def test_a_version_to_come_is_said_to_be_untried_in_one_line(version: str, said: int) -> None:
    command = [str(CMAKE), f"-DPython_VERSION={version}", "-P", str(ROOT / "cmake" / "interpreter.cmake")]
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    lines = (done.stdout + done.stderr).splitlines()
    assert len(lines) == said
    assert all(f"CPython {version} is untried" in line for line in lines)


@pytest.mark.skipif(not CMAKE.exists(), reason="CMake is not in the environment: run `make setup`")
@pytest.mark.parametrize(
    ("version", "abi", "fast"),
    [
        ("3.13.0", "cpython-313-x86_64-linux-gnu", "ON"),
        ("3.13.0", "cpython-313d-x86_64-linux-gnu", "OFF"),
        ("3.14.0", "cpython-314-x86_64-linux-gnu", "OFF"),
    ],
)
def test_an_interpreter_of_unknown_structures_gets_no_fast_half(
    version: str, abi: str, fast: str, tmp_path: Path
) -> None:
    asking = tmp_path / "asking.cmake"
    asking.write_text(
        f'set(TOVARIN_FAST ON)\ninclude({ROOT}/cmake/interpreter.cmake)\nmessage("fast: ${{TOVARIN_FAST}}")\n'
    )
    command = [str(CMAKE), f"-DPython_VERSION={version}", f"-DPython_SOABI={abi}", "-P", str(asking)]
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    assert done.stderr.splitlines()[-1] == f"fast: {fast}"
