"""The time limit of a request to a worker, against every way in which a worker can fail."""

from pathlib import Path

import pytest

from stage.patience import HANG_SECONDS, SLACK_SECONDS
from stage.worker_timeouts import SCENARIOS, Scenario, is_right, measure
from tovarincore.core_def import OPResultErrorCode


@pytest.mark.parametrize("scenario", SCENARIOS, ids=lambda scenario: scenario.title.replace(" ", "-"))
def test_the_result_is_right_and_in_time(scenario: Scenario) -> None:
    """Whoever hangs or drips costs the limit; other failures show at once.

    How late the client is on an idle machine is measured by `make worker-timeouts`.
    """
    hangs = scenario.code is OPResultErrorCode.TIMEOUT
    seconds = 0.5 if hangs else HANG_SECONDS
    result, took = measure(scenario, seconds)
    assert is_right(scenario, result, took, seconds, SLACK_SECONDS), (result, took)
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
