"""Instructions per call, counted by callgrind: repeatable to about a thousandth, whatever else the
machine does."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
import tempfile
from collections.abc import Sequence
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from benchmarks.goals import goal
from benchmarks.measuring import Result, timer
from benchmarks.scenario import Scenario

LEAST_LOOPS, MOST_LOOPS = 2, 2_000
COUNTED_SECONDS = 0.1  # of the calls of one scenario, in which what begins and ends a batch hardly counts
WARM_UP = 2


def count_one_side(side: str, scenarios: Sequence[Scenario]) -> None:
    """Runs under callgrind: prints, after each scenario, its number of calls; callgrind dumps what a batch of
    none, and then one of so many, took."""

    def control(*options: str) -> None:
        subprocess.run(["callgrind_control", *options, str(os.getpid())], capture_output=True, check=True)

    control("-i", "on")
    control("-z")  # the first one takes more than those that follow
    for scenario in scenarios:
        print(f"counting {side}: {scenario.name}", file=sys.stderr, flush=True)
        made = timer(scenario, side)
        made.timeit(WARM_UP)
        loops = max(LEAST_LOOPS, min(MOST_LOOPS, round(COUNTED_SECONDS / made.timeit(1))))
        for number in (0, loops):
            control("-z")
            made.timeit(number)
            control(f"--dump={number}")
        print(loops, flush=True)


def counted(side: str, pattern: str) -> list[float]:
    """Instructions per call of one side, scenario by scenario."""
    if shutil.which("valgrind") is None:
        raise SystemExit("counting instructions needs valgrind: install Debian's package valgrind")
    with tempfile.TemporaryDirectory() as folder:
        output = Path(folder) / "counts"
        command = ["valgrind", "-q", "--tool=callgrind", "--instr-atstart=no"]
        command.append(f"--callgrind-out-file={output}")
        program = [sys.executable, "-m", "benchmarks", "--count-side", side, pattern]
        done = subprocess.run(command + program, stdout=subprocess.PIPE, text=True, check=True)
        loops = [int(line) for line in done.stdout.split()]
        totals = []
        for part in range(1, 2 * len(loops) + 1):
            text = (Path(f"{output}.{part}")).read_text()
            found = re.search(r"^(?:totals|summary): (\d+)", text, re.MULTILINE)
            totals.append(int(found[1]) if found else 0)
    empty, full = totals[::2], totals[1::2]
    return [(total - none) / number for total, none, number in zip(full, empty, loops, strict=True)]


def measure(scenarios: Sequence[Scenario], pattern: str) -> list[Result]:
    """Both sides, beside each other: what else runs does not count."""
    with ThreadPoolExecutor() as pool:
        twin, ours = pool.map(counted, ("twin", "ours"), (pattern, pattern))
    return [
        Result(scenario.name, goal(scenario.name, scenario.goal), *counts)
        for scenario, *counts in zip(scenarios, twin, ours, strict=True)
    ]
