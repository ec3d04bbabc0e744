"""Makes allocations fail: the interpreter's by _testcapi, the module's own C++ ones by a library.

The process must have been started with it: tests/interpreter/failing_malloc.cpp.
"""

from __future__ import annotations

import ctypes
import gc
import os
import sysconfig
from collections.abc import Iterator
from pathlib import Path
from types import CodeType, FunctionType
from typing import Any

from tovarincore import cloud_node

try:
    import _testcapi  # type: ignore[import-not-found]
except ImportError:
    _testcapi = None

LIBRARY = (
    Path(__file__).parents[2] / "interpreter" / f"failing_malloc{sysconfig.get_config_var('EXT_SUFFIX')}"
)


def environment() -> dict[str, str]:
    """For a process in which the C++ allocations of the module can fail; else the present one."""
    if not LIBRARY.exists() or "TOVARIN_SANITIZED" in os.environ:
        return dict(os.environ)
    return {**os.environ, "LD_PRELOAD": str(LIBRARY)}


def _armed_by_library() -> Any:
    try:
        found = ctypes.CDLL(None).fail_allocations_of
    except AttributeError:
        return None
    found.argtypes = [ctypes.c_size_t, ctypes.c_size_t, ctypes.c_long, ctypes.c_long]
    found.restype = None
    with open("/proc/self/maps", encoding="utf-8") as maps:
        pages = [
            [int(number, 16) for number in line.split()[0].split("-")]
            for line in maps
            if line.rstrip().endswith(str(cloud_node.__file__))
        ]
    return lambda start, stop: found(pages[0][0], pages[-1][1], start, stop)


_fail_cpp = _armed_by_library()


def reaches_cpp() -> bool:
    return _fail_cpp is not None


def fail_cpp(start: int, stop: int) -> None:
    """The start-th allocation of the module's C++ from now on fails, and those up to the stop-th, or all."""
    _fail_cpp(start, stop)


def fail_interpreter(start: int, stop: int) -> None:
    if _testcapi is not None:
        _testcapi.set_nomemory(start, stop)


# A call of Python code would need memory itself.
give_memory_back = _testcapi.remove_mem_hooks if _testcapi is not None else int


def fail_none() -> None:
    give_memory_back()
    if _fail_cpp is not None:
        _fail_cpp(-1, 0)


def failed_cpp() -> int:
    """How many C++ allocations have failed so far."""
    return int(ctypes.CDLL(None).failed_allocations()) if reaches_cpp() else 0


def spare_code(references: int = 50) -> list[CodeType]:
    """So many further references to every code object that stands in another one.

    CPython 3.12 and 3.13 drop a reference too many when they have no memory for an inner function, such as a
    generator expression; the code would be gone while the outer one still holds it.
    """
    functions = [found for found in gc.get_objects() if type(found) is FunctionType]
    return [code for function in functions for code in _inner(function.__code__) for _ in range(references)]


def _inner(code: CodeType) -> Iterator[CodeType]:
    for constant in code.co_consts:
        if isinstance(constant, CodeType):
            yield constant
            yield from _inner(constant)
