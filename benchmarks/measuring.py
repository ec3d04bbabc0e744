"""Timing two ways of doing the same: in turns, on one processor, by the CPU time of the thread."""

from __future__ import annotations

import os
import time
import timeit
from dataclasses import dataclass

from benchmarks.goals import goal
from benchmarks.scenario import Scenario, module

ROUNDS = 15
BATCH_SECONDS = 0.004


@dataclass(frozen=True)
class Result:
    """One line of a table.

    :param twin: what the plain-Python twin needs: seconds, instructions or bytes
    :param ours: what our module needs
    """

    name: str
    goal: float
    twin: float
    ours: float

    @property
    def ratio(self) -> float:
        return self.twin / self.ours

    @property
    def reached(self) -> bool:
        return self.ratio >= self.goal


def pin_to_one_processor() -> None:
    """Stay on the last processor that this process may use; others more often have the first."""
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})


def timer(scenario: Scenario, side: str) -> timeit.Timer:
    """A timer of the scenario on one side; the collector stays on, which `timeit` would switch off."""
    names = scenario.prepare(module(side))
    return timeit.Timer(scenario.statement, "import gc; gc.enable()", time.thread_time, globals=names)


def loops_for(made: timeit.Timer) -> int:
    number = 1
    while (taken := made.timeit(number)) < BATCH_SECONDS / 4:
        number *= 4
    return max(1, round(number * BATCH_SECONDS / taken))


def measure(scenario: Scenario) -> Result:
    """The least time per call of each side, from rounds in which they take turns."""
    timers = {side: timer(scenario, side) for side in ("twin", "ours")}
    loops = {side: loops_for(made) for side, made in timers.items()}
    best = dict.fromkeys(timers, float("inf"))
    for _ in range(ROUNDS):
        for side, made in timers.items():
            made.timeit(1)  # fetches its own data into the caches, where the other side's are
            best[side] = min(best[side], made.timeit(loops[side]) / loops[side])
    return Result(scenario.name, goal(scenario.name, scenario.goal), best["twin"], best["ours"])
