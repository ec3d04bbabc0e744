"""python -m benchmarks: measures every operation beside plain Python and prints the table."""

from __future__ import annotations

import argparse
from pathlib import Path

from benchmarks import (
    changes,
    client_pool,
    columns,
    fallbacks,
    import_time,
    instructions,
    listing,
    lookups,
    measuring,
    memory,
    node_lists,
    report,
    routing,
    templates,
)
from benchmarks.measuring import Result
from benchmarks.report import Formatter
from benchmarks.scenario import Scenario

ROOT = Path(__file__).parent.parent
PAGE = ROOT / "docs" / "performance.md"
CHART = ROOT / "docs" / "performance.svg"
ROOMS = [node_lists, lookups, changes, client_pool, routing, listing, templates, fallbacks]
SIZES = (10, 100, 1_000, 10_000, 100_000)


def chosen(pattern: str) -> list[Scenario]:
    return [scenario for room in ROOMS for scenario in room.SCENARIOS if pattern in scenario.name]


def main() -> None:
    parser = argparse.ArgumentParser(prog="python -m benchmarks", description=__doc__)
    parser.add_argument("pattern", nargs="?", default="", help="only operations whose name contains this")
    parser.add_argument(
        "--instructions", action="store_true", help="count instructions with callgrind instead"
    )
    parser.add_argument(
        "--growth", action="store_true", help="cost per node from 10 to 100,000 nodes instead"
    )
    parser.add_argument("--launch", action="store_true", help="launch latency on a loopback EC2 instead")
    parser.add_argument(
        "--fleet",
        action="store_true",
        help="operations on many nodes, one after the other and together, instead",
    )
    parser.add_argument("--command", action="store_true", help="start-up and commands of operators instead")
    parser.add_argument("--top", action="store_true", help="the full screen with 1,000 nodes instead")
    parser.add_argument("--column", metavar="NAME", help="keep the ratios as a column of this name")
    parser.add_argument(
        "--columns", action="store_true", help="measure nothing: put the columns that were kept side by side"
    )
    parser.add_argument("--write", action="store_true", help=f"put the table into {PAGE.relative_to(ROOT)}")
    parser.add_argument("--count-side", choices=["twin", "ours"], help=argparse.SUPPRESS)
    options = parser.parse_args()
    scenarios = chosen(options.pattern)
    kind = "instructions" if options.instructions else "times"
    if options.count_side:
        instructions.count_one_side(options.count_side, scenarios)
        return
    results: list[tuple[Result, Formatter]] = []
    if options.columns:
        name, text = f"{kind} by interpreter", columns.table(kind)
    elif options.launch:
        from benchmarks import launch

        name, text = "launches", launch.table()
    elif options.fleet:
        from benchmarks import fleet

        name, text = "fleet", fleet.table(options.pattern)
    elif options.command:
        from benchmarks import command

        name, text = "command", command.table()
    elif options.top:
        from benchmarks import top

        name, text = "top", top.table()
    elif options.growth:
        measuring.pin_to_one_processor()
        name, text = "growth", report.growth_table([memory.growth(size) for size in SIZES])
    elif options.instructions:
        results = [
            (result, report.instructions) for result in instructions.measure(scenarios, options.pattern)
        ]
        name, text = kind, report.table(results, judged=False)
    else:
        measuring.pin_to_one_processor()
        results = [(measuring.measure(scenario), report.seconds) for scenario in scenarios]
        if not options.pattern:
            results += [(result, report.seconds) for result in import_time.measure()]
            results.append((memory.measure(), report.bytes_per_node))
        name, text = kind, report.table(results)
        chart = report.chart([result for result, _ in results])
        (CHART if options.write else ROOT / "build" / "performance.svg").write_text(chart)
    if options.column:
        columns.keep(kind, options.column, [result for result, _ in results])
    print(text)
    if options.write:
        report.put_between_marks(PAGE, name, text)


if __name__ == "__main__":
    main()
