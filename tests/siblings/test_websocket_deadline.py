"""The time limit of a request to a worker, against every way in which a worker can fail."""

from pathlib import Path

import pytest

from stage.worker_timeouts import SCENARIOS, Scenario, is_right, measure


@pytest.mark.parametrize("scenario", SCENARIOS, ids=lambda scenario: scenario.title.replace(" ", "-"))
def test_the_result_is_right_and_in_time(scenario: Scenario) -> None:
    """Whoever hangs or drips costs the limit and at most 0.2 s on top; other failures show at once.

    A machine with more to do than the tests may be late by itself, but not three times in a row.
    """
    seconds = 0.5
    for _ in range(3):
        result, took = measure(scenario, seconds)
        if is_right(scenario, result, took, seconds):
            break
    assert is_right(scenario, result, took, seconds), (result, took)
    assert result.error is not result.success
    if scenario.code is not None:
        # What was wrong and what to do about it.
        assert result.msg is not None
        assert result.msg.startswith("Worker of node node: ")
        assert ";" in result.msg


def test_the_documentation_shows_every_row() -> None:
    """Title and code of each stand in the table, which is the command's output."""
    page = Path(__file__).resolve().parents[2] / "docs" / "worker-timeouts.md"
    rows = [line.split(" | ") for line in page.read_text(encoding="utf-8").splitlines()]
    shown = [(row[0].removeprefix("| "), row[2]) for row in rows if len(row) == 4]
    names = [scenario.code.name if scenario.code else "success" for scenario in SCENARIOS]
    titles = [scenario.title for scenario in SCENARIOS]
    assert shown[1:] == list(zip(titles, names, strict=True))
