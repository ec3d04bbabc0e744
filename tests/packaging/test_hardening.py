"""The built module has what compilers and linkers offer against the exploitation of faults."""

import ctypes
import platform
import shutil
import subprocess

import pytest

from tovarincore import cloud_node

READELF = shutil.which("readelf")
pytestmark = [
    pytest.mark.skipif(READELF is None, reason="readelf is missing (on Debian: apt-get install binutils)"),
    pytest.mark.no_sanitizer,  # that build is for finding faults, and linked in another way
]


def read(*options: str) -> str:
    path = str(cloud_node.__file__)
    done = subprocess.run([str(READELF), "-W", *options, path], capture_output=True, text=True, check=True)
    return done.stdout


def test_symbols_are_bound_at_once_and_then_read_only() -> None:
    """Full RELRO: no table of addresses can be overwritten."""
    assert "GNU_RELRO" in read("--segments")
    assert "NOW" in read("--dynamic")


def test_no_memory_is_both_written_and_executed_and_code_stands_apart() -> None:
    """Nor is the stack executed; read-only data is not in the segment of the code."""
    segments = [line.split() for line in read("--segments").splitlines()]
    loaded = [" ".join(words[6:-1]) for words in segments if words[:1] == ["LOAD"]]
    assert sorted(loaded) == ["R", "R", "R E", "RW"], loaded
    stacks = [" ".join(words[6:-1]) for words in segments if words[:1] == ["GNU_STACK"]]
    assert stacks == ["RW"], stacks


def test_the_stack_is_protected() -> None:
    """Functions with arrays check for overruns."""
    assert "__stack_chk_fail" in read("--dyn-syms")


@pytest.mark.skipif(platform.machine() != "x86_64", reason="no other processor here has this protection")
def test_indirect_calls_may_only_go_to_the_beginning_of_functions() -> None:
    """They begin with `endbr64`."""
    entry = ctypes.cast(ctypes.PyDLL(str(cloud_node.__file__)).PyInit_cloud_node, ctypes.c_void_p)
    assert entry.value is not None
    assert ctypes.string_at(entry.value, 4) == b"\xf3\x0f\x1e\xfa"


def test_one_symbol_leaves_the_module() -> None:
    """The entry point."""
    defined = [
        line.split()[-1]
        for line in read("--dyn-syms").splitlines()
        if "GLOBAL" in line and " UND " not in line and "FUNC" in line
    ]
    assert defined == ["PyInit_cloud_node"], defined
