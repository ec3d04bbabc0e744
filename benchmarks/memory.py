"""Peak memory of reading the registry, the memo of the copy included, and how time and memory grow."""

from __future__ import annotations

import gc
import time
import tracemalloc
from dataclasses import dataclass
from typing import Any

from benchmarks.goals import goal
from benchmarks.measuring import Result
from benchmarks.scenario import manager, module, nodes

GOAL = 1 / 0.28


def peak_bytes(made: Any) -> tuple[int, int]:
    """Bytes allocated at the peak of one read, and bytes that the result takes."""
    gc.collect()
    tracemalloc.start()
    try:
        result = made.get_node_list()
        kept, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    del result
    return peak, kept


def measure(number: int = 10_000) -> Result:
    """Bytes per node at the peak, of each side."""
    peaks = {}
    for side in ("twin", "ours"):
        peaks[side] = peak_bytes(manager(module(side), nodes(number)))[0] / number
    name = f"peak memory of get_node_list, {number:,} nodes"
    return Result(name, goal(name, GOAL), peaks["twin"], peaks["ours"])


@dataclass(frozen=True)
class Growth:
    """What one node costs in a registry of this size: reading it, and memory; a miss looks at each."""

    number: int
    read_seconds: float
    miss_seconds: float
    peak: float
    kept: float


def growth(number: int) -> Growth:
    """Measure our module with this many nodes."""
    made = manager(module("ours"), nodes(number))
    repeats = max(3, min(2_000, 200_000 // number))

    def least(call: Any) -> float:
        best = float("inf")
        for _ in range(repeats):
            start = time.thread_time()
            call()
            best = min(best, time.thread_time() - start)
        return best / number

    peak, kept = peak_bytes(made)
    return Growth(
        number,
        least(made.get_node_list),
        least(lambda: made.find_node_by_uuid("none")),
        peak / number,
        kept / number,
    )
