"""Runs the same programs again and again: what they leave behind would show as growth.

python -m tests.differential.growth --programs 2000 --rounds 10
"""

from __future__ import annotations

import argparse
import gc
import resource
import sys
from typing import Any

from tests.differential.runner import Case, cases, run
from tests.twin import cloud_node as twin
from tovarincore import cloud_node as extension


def blocks_after(module: Any, some: list[Case]) -> int:
    """Memory blocks allocated by the interpreter after one round of the programs."""
    for case in some:
        run(module, case)
    gc.collect()
    return sys.getallocatedblocks()


def growth(module: Any, programs: int, rounds: int) -> list[int]:
    """Blocks after each round, relative to the first of them; two rounds before that fill the caches."""
    some = list(cases(twin, 0, programs))
    for _ in range(2):
        blocks_after(module, some)
    counts = [blocks_after(module, some) for _ in range(rounds)]
    return [count - counts[0] for count in counts]


def main() -> int:
    parser = argparse.ArgumentParser(prog="python -m tests.differential.growth", description=__doc__)
    parser.add_argument("--programs", type=int, default=2000)
    parser.add_argument("--rounds", type=int, default=10)
    options = parser.parse_args()
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    counts = growth(extension, options.programs, options.rounds)
    after = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    print(
        f"{options.programs} programs, {options.rounds} rounds: blocks {counts}, "
        f"peak memory {before} KiB -> {after} KiB"
    )
    return 1 if counts[-1] > options.programs // 50 else 0


if __name__ == "__main__":
    sys.exit(main())
