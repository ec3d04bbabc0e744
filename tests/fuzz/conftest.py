"""Prints, after a run of these tests alone, how often each parser was run and how much memory that took."""

from __future__ import annotations

from collections.abc import Iterator

import pytest

from tests.fuzz.runner import MEASURED

_PROPERTY = "search"


@pytest.fixture(autouse=True)
def measured(request: pytest.FixtureRequest) -> Iterator[None]:
    """Hand the costs of a test's searches to the process that prints them."""
    MEASURED.clear()
    yield
    for one in MEASURED:
        request.node.user_properties.append((_PROPERTY, (one.executions, one.megabytes)))


def pytest_terminal_summary(terminalreporter: pytest.TerminalReporter) -> None:
    """One line for each search."""
    lines = []
    for reports in terminalreporter.stats.values():
        for report in reports:
            if getattr(report, "when", "") == "teardown":
                costs = [value for name, value in report.user_properties if name == _PROPERTY]
                name = report.nodeid.rpartition("/")[2]
                lines += [
                    f"{executions:>12,}  {megabytes:>9.0f} MB  {name}" for executions, megabytes in costs
                ]
    if lines:
        terminalreporter.section("executions, peak memory beyond the start, parser")
        for line in sorted(lines, key=lambda line: line.split()[-1]):
            terminalreporter.write_line(line)
