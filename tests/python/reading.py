"""What there is to see of reading an attribute."""

from __future__ import annotations

from typing import Any, Callable

ENOUGH = 70  # reads, behind which a place is remembered, whatever was read before


def outcome(read: Callable[[Any], Any], thing: Any) -> Any:
    """The value, or what the error says."""
    try:
        return read(thing)
    except BaseException as error:
        whose = getattr(error, "obj", None)
        return type(error), error.args, getattr(error, "name", None), "thing" if whose is thing else whose


def by_getattr(thing: Any) -> Any:
    return getattr(thing, "name")  # noqa: B009 - byte code of its own leaves out what `getattr` tells an error
