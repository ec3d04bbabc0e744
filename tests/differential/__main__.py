"""Differential runs of the extension against its plain-Python twin.

python -m tests.differential --programs 100000            a long run
python -m tests.differential --seed 17 --at 12 --failure base    one case again, with its events
python -m tests.differential --kind "class keys" --seed 17       one hostile case again, with its events
"""

from __future__ import annotations

import argparse
import faulthandler
import os
import sys

from tests.differential.hostile import allocations


def again(options: argparse.Namespace) -> int:
    """Runs one case and prints the twin's events, and where the extension differs from it."""
    from tests.differential import runner, search
    from tests.differential.hostile import programs
    from tests.twin import cloud_node as twin

    case: object
    if options.kind:
        case = programs.HostileCase(options.kind, options.seed)
        events = programs.run(twin, case).events
    else:
        case = runner.Case(options.seed, options.at, options.failure)
        events = runner.run(twin, case).events
    for event in events:
        print("  ", event)
    found = search.judge(case)
    print(found or f"{case}: no difference")
    return 1 if found else 0


def main() -> int:
    parser = argparse.ArgumentParser(prog="python -m tests.differential", description=__doc__)
    parser.add_argument("--programs", type=int, default=10_000, help="how many programs to run")
    parser.add_argument("--seconds", type=float, default=1e9, help="stop after so long")
    parser.add_argument("--first", type=int, default=0, help="the block of programs to begin with")
    parser.add_argument("--seed", type=int, help="run one program and print its events")
    parser.add_argument("--at", type=int, help="the event at which to inject a failure")
    parser.add_argument("--failure", default="exception", help="the kind of failure")
    parser.add_argument("--kind", help="the kind of hostile program; without --seed, run this kind alone")
    parser.add_argument("--most", type=int, default=5, help="stop after so many differences")
    options = parser.parse_args()
    if os.environ.get("LD_PRELOAD") != (environment := allocations.environment()).get("LD_PRELOAD"):
        os.execve(sys.executable, [sys.executable, "-m", "tests.differential", *sys.argv[1:]], environment)
    faulthandler.enable()
    if options.seed is not None:
        return again(options)
    from tests.differential.search import search

    kinds = [options.kind] if options.kind else None
    return 1 if search(options.programs, options.first, options.most, kinds, options.seconds).found else 0


if __name__ == "__main__":
    sys.exit(main())
