"""Differential runs of the extension against its plain-Python twin.

python -m tests.differential --programs 100000            a long run
python -m tests.differential --seed 17 --at 12 --failure base    one case again, with its events
"""

from __future__ import annotations

import argparse
import sys
import time

from tests.differential.runner import Case, cases, difference, run
from tests.twin import cloud_node as twin
from tovarincore import cloud_node as extension


def main() -> int:
    parser = argparse.ArgumentParser(prog="python -m tests.differential", description=__doc__)
    parser.add_argument("--programs", type=int, default=10_000, help="how many programs to run")
    parser.add_argument("--first-seed", type=int, default=0, help="the seed to begin with")
    parser.add_argument("--seed", type=int, help="run one program and print its events")
    parser.add_argument("--at", type=int, help="the event at which to inject a failure")
    parser.add_argument("--failure", default="exception", help="the kind of failure")
    parser.add_argument("--most", type=int, default=5, help="stop after so many differences")
    options = parser.parse_args()
    if options.seed is not None:
        case = Case(options.seed, options.at, options.failure)
        for event in run(twin, case).events:
            print("  ", event)
        found = difference(extension, twin, case)
        print(found or f"{case}: no difference")
        return 1 if found else 0
    started = time.monotonic()
    differences = 0
    count = 0
    for count, case in enumerate(cases(twin, options.first_seed, options.programs), 1):
        found = difference(extension, twin, case)
        if found:
            differences += 1
            print(found, flush=True)
            if differences >= options.most:
                break
        if count % 10_000 == 0:
            print(
                f"{count} programs, {differences} differences, {time.monotonic() - started:.0f} s", flush=True
            )
    print(f"{count} programs, {differences} differences, {time.monotonic() - started:.0f} s")
    return 1 if differences else 0


if __name__ == "__main__":
    sys.exit(main())
