"""Runs a check on many drawn values: the same few in the normal suite, others for as long as it is told to.

The variable TOVARIN_FUZZ_SECONDS gives the time for each check, in seconds. A failure names the value,
reduced to what matters. What a search has cost is kept in MEASURED, and printed by `make fuzz`.
"""

from __future__ import annotations

import os
import time
from collections.abc import Callable
from contextlib import suppress
from dataclasses import dataclass
from pathlib import Path
from typing import TypeVar

import hypothesis
from hypothesis import HealthCheck, Phase, given, settings
from hypothesis.strategies import SearchStrategy

from tests.thorough import sized

T = TypeVar("T")

_ROUND_EXAMPLES = 500
# Read now: the settings of a test take such variables out of the environment.
_SECONDS = float(os.environ.get("TOVARIN_FUZZ_SECONDS", "0"))


@dataclass
class Measured:
    """What a search has cost: how often the check ran, and the most memory beyond that at its start."""

    executions: int = 0
    megabytes: float = 0.0


MEASURED: list[Measured] = []
"""The searches of the test that runs."""


def search(
    values: SearchStrategy[T], check: Callable[[T], object], examples: int, most_megabytes: float
) -> None:
    """Check `examples` values, always the same ones; then others until the time is up.

    The short form of the tests checks a fifth of them.

    :param most_megabytes: what the checks may use at most, beyond what the process uses already
    """
    measured = Measured()
    MEASURED.append(measured)
    before = 0.0

    def counted(value: T) -> None:
        nonlocal before
        if not measured.executions:
            # Drawing the first value has loaded tables for texts, which are not the parser's.
            before = _start_of_memory()
        measured.executions += 1
        check(value)

    _round(values, counted, sized(-(-examples // 5), examples), derandomize=True)
    end = time.monotonic() + _SECONDS
    while time.monotonic() < end:
        _round(values, counted, _ROUND_EXAMPLES, derandomize=False, end=end)
    measured.megabytes = max(0.0, _status_megabytes("VmHWM") - before)
    assert measured.megabytes < most_megabytes


def _start_of_memory() -> float:
    """Forget the process's peak, where that is allowed; return what it uses, or its peak so far."""
    with suppress(OSError):
        Path("/proc/self/clear_refs").write_text("5")
    return _status_megabytes("VmHWM")


def _status_megabytes(name: str) -> float:
    for line in Path("/proc/self/status").read_text().splitlines():
        if line.startswith(f"{name}:"):
            return int(line.split()[1]) / 1024
    raise LookupError(name)


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
