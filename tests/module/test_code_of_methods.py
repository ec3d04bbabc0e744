"""The code objects of the extension's functions, which it writes down itself, beside compiled ones."""

from __future__ import annotations

import inspect
import sys
import types
from collections.abc import Iterator
from typing import Any

import pytest

from tovarincore import cloud_node


def functions() -> Iterator[Any]:
    """Every method of every class of the extension, under its qualified name."""
    for owner in vars(cloud_node).values():
        if inspect.isclass(owner) and owner.__module__ == cloud_node.__name__:
            for value in vars(owner).values():
                function = getattr(value, "__func__", getattr(value, "fget", value))
                if hasattr(function, "__code__"):
                    yield pytest.param(function, id=function.__qualname__)


def traced(code: types.CodeType) -> list[tuple[str, int | None]]:
    """Run code with each of its parameters given, and tell which events a tracer sees."""
    events: list[tuple[str, int | None]] = []

    def trace(frame: types.FrameType, event: str, argument: Any) -> Any:
        if frame.f_code is code:
            events.append((event, frame.f_lineno))
        return trace

    function = types.FunctionType(code, {})
    before = sys.gettrace()
    sys.settrace(trace)
    try:
        result = function(*range(code.co_argcount))
    finally:
        sys.settrace(before)
    assert result == tuple(range(code.co_argcount))
    return events


@pytest.mark.parametrize("function", list(functions()))
def test_it_does_what_compiled_code_does(function: Any) -> None:
    """Same result, flags, lines, and the same events for a tracer."""
    own: types.CodeType = function.__code__
    names = ", ".join(own.co_varnames)
    source = f"lambda {names}: ({names}{',' if names else ''})"
    compiled = eval(compile(source, "", "eval", dont_inherit=True)).__code__
    assert {line for *_, line in own.co_lines()} == {line for *_, line in compiled.co_lines()}
    assert (own.co_argcount, own.co_nlocals, own.co_flags) == (
        compiled.co_argcount,
        compiled.co_nlocals,
        compiled.co_flags,
    )
    assert own.co_stacksize >= compiled.co_stacksize
    assert traced(own) == traced(compiled)
