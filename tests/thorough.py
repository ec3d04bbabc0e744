"""How much the searches do: a short form with `make test`, all of it with `make test-thorough` and in CI."""

from __future__ import annotations

import os
from typing import TypeVar

import pytest

T = TypeVar("T")

# Read at import: the settings of a test take such variables out of the environment.
THOROUGH = bool(os.environ.get("TOVARIN_THOROUGH"))


def sized(short: T, thorough: T) -> T:
    """The amount of work for the form that runs, such as a number of random programs."""
    return thorough if THOROUGH else short


def skip_thorough(item: pytest.Item) -> None:
    """In the short form, skip what has the mark `thorough`."""
    mark = item.get_closest_marker("thorough")
    if mark and not THOROUGH:
        reason = mark.kwargs.get("reason", "takes long")
        item.add_marker(pytest.mark.skip(reason=f"{reason}: run make test-thorough"))
