"""How old a system may be on which the module loads."""

from __future__ import annotations

import re
import subprocess

import pytest

from tovarincore import cloud_node

# What manylinux_2_28 has: Debian 10, RHEL 8, Ubuntu 18.10 and later.
C_LIBRARY = (2, 28)


@pytest.mark.no_sanitizer  # the sanitizers' own libraries are the build machine's
def test_the_module_asks_for_no_newer_c_library() -> None:
    """Each versioned symbol that it takes from the C library is in that of the oldest system for wheels."""
    said = subprocess.run(
        ["objdump", "-p", cloud_node.__file__], capture_output=True, text=True, check=True
    ).stdout
    found = {tuple(map(int, version.split("."))) for version in re.findall(r"\bGLIBC_([\d.]+)", said)}
    assert found
    assert max(found) <= C_LIBRARY


@pytest.mark.no_sanitizer  # as above
def test_the_module_brings_its_own_c_plus_plus_library() -> None:
    """It needs the C library and the unwinder of the process, nothing else."""
    said = subprocess.run(
        ["objdump", "-p", cloud_node.__file__], capture_output=True, text=True, check=True
    ).stdout
    needed = {name.partition(".so")[0] for name in re.findall(r"NEEDED\s+(\S+)", said)}
    assert needed <= {"libc", "libm", "libgcc_s", "libpthread", "ld-linux-x86-64", "ld-linux-aarch64"}
