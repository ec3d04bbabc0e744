"""One table of ratios with a column for each interpreter, from runs that each wrote down their results."""

from __future__ import annotations

import json
from collections.abc import Sequence
from pathlib import Path

from benchmarks.measuring import Result
from benchmarks.report import ratio

FOLDER = Path(__file__).parent.parent / "build" / "benchmarks"


def keep(kind: str, column: str, results: Sequence[Result]) -> None:
    """Write down the results of one run, beside those of the same kind and column that are there already.

    :param kind: what was measured, ``"times"`` or ``"instructions"``
    :param column: heading of the column, such as ``"3.12"``
    """
    FOLDER.mkdir(parents=True, exist_ok=True)
    file = FOLDER / f"{kind}-{column}.json"
    lines = json.loads(file.read_text()) if file.exists() else {}
    # The general paths are only held to plain Python's speed.
    goals = {result.name: 1.0 if column.endswith("general") else result.goal for result in results}
    lines |= {result.name: [result.ratio, goals[result.name]] for result in results}
    file.write_text(json.dumps(lines, indent=1))


def cell(line: tuple[float, float] | None) -> str:
    if line is None:
        return "-"
    reached, goal = line
    return ratio(reached) if reached >= goal else f"{ratio(reached)} (goal {ratio(goal)})"


def table(kind: str) -> str:
    """All columns of one kind as a Markdown table; where a goal was missed, it is named."""
    files = sorted(FOLDER.glob(f"{kind}-*.json"), key=lambda file: ("general" in file.stem, file.stem))
    if not files:
        raise SystemExit(f"{FOLDER} has no results of {kind}: run `make bench-all`")
    columns = {file.stem.partition("-")[2]: json.loads(file.read_text()) for file in files}
    names = list(dict.fromkeys(name for lines in columns.values() for name in lines))
    rows = [["operation", *columns], ["---"] * (len(columns) + 1)]
    rows += [[name, *(cell(lines.get(name)) for lines in columns.values())] for name in names]
    return "\n".join(f"| {' | '.join(row)} |" for row in rows)
