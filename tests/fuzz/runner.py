"""Runs a check on many drawn values: the same few in the normal suite, others for as long as it is told to.

The variable TOVARIN_FUZZ_SECONDS gives the time for each check, in seconds. A failure names the value,
reduced to what matters.
"""

from __future__ import annotations

import os
import resource
import time
from collections.abc import Callable
from typing import TypeVar

import hypothesis
from hypothesis import HealthCheck, Phase, given, settings
from hypothesis.strategies import SearchStrategy

T = TypeVar("T")

_ROUND_EXAMPLES = 500
# Read now: the settings of a test take such variables out of the environment.
_SECONDS = float(os.environ.get("TOVARIN_FUZZ_SECONDS", "0"))


def search(values: SearchStrategy[T], check: Callable[[T], object], examples: int) -> None:
    """Check `examples` values, always the same ones; then others until the time is up."""
    _round(values, check, examples, derandomize=True)
    end = time.monotonic() + _SECONDS
    while time.monotonic() < end:
        _round(values, check, _ROUND_EXAMPLES, derandomize=False, end=end)


def most_megabytes() -> float:
    """The most memory that this process has used so far."""
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024


def _round(
    values: SearchStrategy[T],
    check: Callable[[T], object],
    examples: int,
    derandomize: bool,
    end: float = float("inf"),
) -> None:
    @settings(
        max_examples=examples,
        derandomize=derandomize,
        database=None,
        deadline=None,
        phases=[Phase.generate, Phase.shrink],
        suppress_health_check=list(HealthCheck),
    )
    @given(values)
    def run(value: T) -> None:
        if time.monotonic() < end:
            hypothesis.note(f"value: {value!r}")
            check(value)

    run()
