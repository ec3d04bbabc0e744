"""Programs in child processes, so that a crash ends a child and names its program.

A cold child runs one program, as the first use of the module; a warm one runs many.
"""

from __future__ import annotations

import gc
import os
import pickle
import select
import signal
import tempfile
import time
from collections import Counter
from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from typing import Any, Optional

LONGEST_WAIT = 120  # seconds without a sign of life from a child
# CPython 3.10 and 3.11 end the process by themselves when a MemoryError cannot be made an object any more.
# Where an error is being handled, they make one for another until the stack ends.
GIVEN_UP = ("Cannot recover from MemoryErrors", "_Py_CheckRecursiveCall: Cannot recover from stack overflow")


@dataclass
class Tally:
    """What ran, and what was found."""

    ran: Counter[str] = field(default_factory=Counter)
    cold: int = 0
    given_up: int = 0
    lost: int = 0  # interrupts
    found: list[str] = field(default_factory=list)


Judge = Callable[[Any], Optional[str]]


def judge_all(
    tally: Tally, cases: Iterable[Any], kind_of: Callable[[Any], str], judge: Judge, batch: int
) -> None:
    """Judges each case in a child; a batch of one makes it cold. Another follows one that dies."""
    waiting = list(cases)
    while waiting:
        some = waiting[:batch]
        done, found, death = _in_child(some, judge)
        tally.found += found
        if death is not None and any(words in death for words in GIVEN_UP):
            tally.given_up += 1
        elif death is not None:
            tally.found.append(f"{some[done]}: the process died: {death}")
        done += death is not None
        tally.ran.update(kind_of(case) for case in some[:done])
        tally.cold += done if batch == 1 else 0
        waiting = waiting[done:]


def _in_child(cases: list[Any], judge: Judge) -> tuple[int, list[str], Optional[str]]:
    """How many cases were judged, what was found, and how the child died if it did."""
    reading, writing = os.pipe()
    with tempfile.TemporaryFile() as said:
        child = os.fork()
        if child == 0:
            _serve(cases, judge, writing, said.fileno())
        os.close(writing)
        answers, alive = _answers(reading)
        os.close(reading)
        if not alive:
            os.kill(child, signal.SIGKILL)
        status = os.waitpid(child, 0)[1]
        said.seek(0)
        last_words = said.read().decode(errors="replace")
    found = [answer for answer in answers if answer is not None]
    if len(answers) == len(cases) and status == 0:
        return len(answers), found, None
    how = f"status {status}" if alive else f"killed after {LONGEST_WAIT} s of silence"
    return min(len(answers), len(cases) - 1), found, f"{how}\n{last_words[-3000:]}"


def _answers(reading: int) -> tuple[list[Optional[str]], bool]:
    received = b""
    while select.select([reading], [], [], LONGEST_WAIT)[0]:
        part = os.read(reading, 1 << 16)
        if not part:
            return [pickle.loads(bytes.fromhex(line.decode())) for line in received.splitlines()], True
        received += part
    return [pickle.loads(bytes.fromhex(line.decode())) for line in received.split(b"\n")[:-1]], False


def _serve(cases: list[Any], judge: Judge, writing: int, said: int) -> None:
    status = 1
    try:
        os.dup2(said, 2)
        gc.freeze()  # what was there before is no business of the programs' collections
        for case in cases:
            os.write(writing, pickle.dumps(judge(case)).hex().encode() + b"\n")
        status = 0
    except BaseException:
        import traceback

        os.write(2, traceback.format_exc().encode())
    finally:
        os._exit(status)


def seconds_since(started: float) -> str:
    return f"{time.monotonic() - started:.0f} s"
