"""Runs as many programs as asked for: with injected failures, and hostile ones, warm and cold."""

from __future__ import annotations

import random
import sys
import time
from collections.abc import Iterator
from typing import Any, Optional

from tests.differential import runner
from tests.differential.children import Tally, judge_all, seconds_since
from tests.differential.hostile import allocations
from tests.differential.hostile.kinds import KINDS, LOST_INTERRUPT
from tests.differential.hostile.programs import HostileCase
from tests.differential.hostile.programs import difference as hostile_difference
from tests.differential.runner import Case
from tests.twin import cloud_node as twin
from tovarincore import cloud_node as extension

BLOCK = 400
COLD_ONES = 40  # of a block
BATCH = 60
INJECTED = "random, injected failures"
# CPython itself loses interrupts: a finaliser that the collector runs swallows some, and so does a bare
# `except` of copyreg, which looks for the slots of a class.
PROGRAMS_FOR_A_LOST_INTERRUPT = 200


def judge(case: Any) -> Optional[str]:
    """What is wrong about a case, if anything."""
    if isinstance(case, HostileCase):
        return hostile_difference(extension, twin, case)
    return runner.difference(extension, twin, case)


def kind_of(case: Any) -> str:
    return case.kind if isinstance(case, HostileCase) else INJECTED


def random_cases(seed: int, count: int) -> Iterator[Case]:
    """A seed plainly, then with failures; the events are counted here, on the twin."""
    yield from runner.cases(twin, seed, count)


def block_of(number: int, kinds: list[str]) -> list[Any]:
    """One block of programs, half of them hostile; the same for the same number."""
    hostile = BLOCK // 2 if INJECTED in kinds else BLOCK
    disturbing = [kind for kind in kinds if kind != INJECTED]
    cases: list[Any] = []
    if INJECTED in kinds:
        cases += random_cases(number * BLOCK, BLOCK - (hostile if disturbing else 0))
    for place in range(hostile if disturbing else 0):
        seed = number * BLOCK + place
        cases.append(HostileCase(disturbing[seed % len(disturbing)], seed // len(disturbing)))
    random.Random(number).shuffle(cases)
    return cases


def search(
    programs: int, first: int = 0, most: int = 5, kinds: Optional[list[str]] = None, seconds: float = 1e9
) -> Tally:
    """Runs blocks until there are as many programs, or the time is over.

    Prints what is found, and how many programs of each kind ran.
    """
    tally = Tally()
    started = time.monotonic()
    number = first
    spare = allocations.spare_code()  # held for as long as children are made
    while tally.ran.total() < programs and len(tally.found) < most and time.monotonic() - started < seconds:
        cases = block_of(number, kinds or [INJECTED, *KINDS])[: programs - tally.ran.total()]
        before = len(tally.found)
        judge_all(tally, cases[:COLD_ONES], kind_of, judge, batch=1)
        judge_all(tally, cases[COLD_ONES:], kind_of, judge, batch=BATCH)
        tally.found[before:] = [found for found in tally.found[before:] if not _by_chance(found, tally)]
        for found in tally.found[before:]:
            print(found, flush=True)
        number += 1
        if number % 25 == 0:
            print(
                f"{tally.ran.total()} programs, {len(tally.found)} differences, {seconds_since(started)}",
                flush=True,
            )
    del spare
    print(f"blocks {first} to {number - 1}")
    show(tally, seconds_since(started))
    return tally


def _by_chance(found: str, tally: Tally) -> bool:
    """Whether it is nothing but an interrupt that the interpreter itself loses, of which there are few."""
    if LOST_INTERRUPT not in found or "; " in found:  # what stands between several problems of a program
        return False
    tally.lost += 1
    return tally.lost <= 2 + tally.ran["timed signals"] // PROGRAMS_FOR_A_LOST_INTERRUPT


def show(tally: Tally, lasted: str) -> None:
    for kind, count in sorted(tally.ran.items()):
        print(f"{count:9} {kind}")
    print(f"{tally.cold:9} of them as the first use of the module in their process")
    if not allocations.reaches_cpp():
        print("          C++ allocations could not be made to fail here")
    if tally.lost:
        print(f"{tally.lost:9} interrupts swallowed by a finaliser or by copyreg, as in plain Python")
    if tally.given_up:
        print(f"{tally.given_up:9} ended by the interpreter, which could not make a MemoryError any more")
    print(f"{tally.ran.total()} programs, {len(tally.found)} differences and crashes, {lasted}")
    sys.stdout.flush()
