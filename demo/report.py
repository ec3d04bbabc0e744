"""Prints what a demo does: numbered steps with their time, tables and checks, as text or as JSON lines."""

from __future__ import annotations

import json
import sys
import time
import traceback
from collections.abc import Iterator, Mapping, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import TextIO

from tovarincore.cloud_def import CloudNode

Row = Mapping[str, str]


class DemoStopped(Exception):
    """Raised after a step went wrong and was reported: what follows builds on it and is not tried."""


@dataclass
class Step:
    """One step of a demo: what it said, the tables it showed and the checks that did not hold."""

    number: int
    name: str
    seconds: float = 0.0
    said: list[str] = field(default_factory=list)
    tables: dict[str, list[Row]] = field(default_factory=dict)
    failed_checks: list[str] = field(default_factory=list)

    def say(self, text: str) -> None:
        """Add one line for the reader."""
        self.said.append(text)

    def expect(self, what: str, seen: object, wanted: object) -> None:
        """Check that `seen` equals `wanted`; otherwise the step counts as gone wrong."""
        if seen != wanted:
            self.fail(f"{what}: wanted {wanted!r}, saw {seen!r}")

    def fail(self, text: str) -> None:
        """Count the step as gone wrong, for the reason given."""
        self.failed_checks.append(text)

    def show_table(self, title: str, rows: Sequence[Row]) -> None:
        """Show rows under a title; every row has the same columns."""
        self.tables[title] = list(rows)

    def show_nodes(self, nodes: Sequence[CloudNode]) -> None:
        """Show a node table: id, name, state, ready, address."""
        self.show_table(
            "nodes",
            [
                {
                    "id": node.instance_id,
                    "name": node.name,
                    "state": node.state.value,
                    "ready": "yes" if node.ready else "no",
                    "address": node.dns_address,
                }
                for node in nodes
            ],
        )


class Report:
    """Writes a demo's steps as they end.

    Parameters: `json_lines` writes one JSON object per line instead of text; `out` is the stream
    (standard output by default).
    """

    def __init__(self, json_lines: bool, out: TextIO | None = None) -> None:
        self._json_lines = json_lines
        self._out = sys.stdout if out is None else out
        self._started = time.monotonic()
        self._steps: list[Step] = []

    def open(self, title: str, facts: Row) -> None:
        """Write the demo's title and the facts that hold for all of it."""
        if self._json_lines:
            self._write(json.dumps({"demo": title, **facts}))
            return
        self._write(title)
        for name, value in facts.items():
            self._write(f"  {name}: {value}")

    @contextmanager
    def step(self, name: str) -> Iterator[Step]:
        """Run the body as one timed step and write it at its end.

        Raises DemoStopped when a check of the step did not hold or the body raised an exception,
        which counts as a failed check.
        """
        step = Step(len(self._steps) + 1, name)
        self._steps.append(step)
        started = time.monotonic()
        try:
            yield step
        except Exception as error:
            step.fail("the step raised " + "".join(traceback.format_exception(error)).strip())
        finally:
            step.seconds = time.monotonic() - started
        self._write_step(step)
        if step.failed_checks:
            raise DemoStopped(step.name)

    def close(self) -> int:
        """Write the outcome; returns the exit status: 0, or 1 if a step went wrong or there was none."""
        wrong = [step.name for step in self._steps if step.failed_checks]
        ok = bool(self._steps) and not wrong
        seconds = time.monotonic() - self._started
        if self._json_lines:
            self._write(
                json.dumps(
                    {"ok": ok, "steps": len(self._steps), "went_wrong": wrong, "seconds": round(seconds, 3)}
                )
            )
        elif ok:
            self._write(f"\nAll {len(self._steps)} steps showed what they should, in {seconds:.1f} s.")
        else:
            self._write(f"\nWent wrong after {seconds:.1f} s: {', '.join(wrong) or 'no step was run'}.")
        return 0 if ok else 1

    def _write_step(self, step: Step) -> None:
        if self._json_lines:
            self._write(
                json.dumps(
                    {
                        "step": step.number,
                        "name": step.name,
                        "seconds": round(step.seconds, 3),
                        "ok": not step.failed_checks,
                        "said": step.said,
                        "failed_checks": step.failed_checks,
                        **step.tables,
                    }
                )
            )
            return
        outcome = "WRONG" if step.failed_checks else "ok"
        self._write(f"\n{step.number:2}. {step.name:<58}{step.seconds:7.2f} s  {outcome}")
        for text in step.said:
            self._write("    " + text)
        for check in step.failed_checks:
            self._write("    ! " + check.replace("\n", "\n      "))
        for title, rows in step.tables.items():
            self._write_table(title, rows)

    def _write_table(self, title: str, rows: Sequence[Row]) -> None:
        if not rows:
            self._write(f"    {title}: none")
            return
        widths = {name: max(len(name), *(len(row[name]) for row in rows)) for name in rows[0]}
        self._write(f"    {title}:")
        for row in ({name: name for name in widths}, *rows):
            self._write(
                "      " + "  ".join(row[name].ljust(width) for name, width in widths.items()).rstrip()
            )

    def _write(self, text: str) -> None:
        print(text, file=self._out, flush=True)
