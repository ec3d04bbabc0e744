"""Runs a program on both implementations, with and without injected failures, and says where they differ."""

from __future__ import annotations

import random
from dataclasses import dataclass
from itertools import zip_longest
from typing import Any, Iterator, Optional

from tests.differential.journal import FAILURES, Aborted, Journal
from tests.differential.programs import Program
from tests.differential.world import world


@dataclass(frozen=True)
class Case:
    """One program: its seed, and the failure injected into it, if any. Enough to run it again."""

    seed: int
    fail_at: Optional[int] = None
    failure: str = "exception"

    def __str__(self) -> str:
        if self.fail_at is None:
            return f"seed {self.seed}"
        return f"seed {self.seed}, {self.failure!r} at event {self.fail_at}"


def run(module: Any, case: Case) -> Journal:
    """The journal of one program on one implementation."""
    journal = Journal(case.seed, case.fail_at, case.failure)
    with world(module, journal, facilities=case.seed % 3 != 0):
        try:
            Program(module, journal).run()
        except Aborted:
            journal.events.append(("aborted",))
    return journal


def difference(extension: Any, twin: Any, case: Case) -> Optional[str]:
    """None when both implementations agree on every event, else the first event on which they do not."""
    ours, plain = run(extension, case).events, run(twin, case).events
    if ours == plain:
        return None
    for number, (a, b) in enumerate(zip_longest(ours, plain)):
        if a != b:
            before = "\n".join(f"    {event}" for event in plain[max(0, number - 6) : number])
            return f"{case}, event {number}:\n{before}\n  extension: {a}\n  twin:      {b}"
    return None


def cases(twin: Any, first_seed: int, programs: int, failures: int = 10) -> Iterator[Case]:
    """As many cases as asked for: each seed runs plainly, then with failures of any kind at events of
    its own."""
    made = 0
    seed = first_seed
    while made < programs:
        yield Case(seed)
        made += 1
        noted = run(twin, Case(seed)).noted
        dice = random.Random(~seed)
        for _ in range(min(failures, programs - made)):
            yield Case(seed, dice.randrange(noted), dice.choice(FAILURES))
            made += 1
        seed += 1
