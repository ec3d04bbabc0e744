"""Threads that work through tasks."""

from __future__ import annotations

import threading

from stage.patience import SETUP_SECONDS
from tovarincore.fleet.crew import Crew


def test_few_threads_begin_and_the_others_come_when_these_do_not_get_on() -> None:
    """Nobody gets further before twelve are there, which two threads alone could never be."""
    together = threading.Barrier(12, timeout=SETUP_SECONDS)
    with Crew(12, "tovarin-test", first=2) as crew:
        tasks = [crew.submit(together.wait) for _ in range(12)]
        assert sorted(crew.results(tasks)) == list(range(12))


def test_tasks_that_are_over_at_once_are_left_to_few_threads() -> None:
    """No more threads than those to begin with work through a hundred of them."""
    with Crew(64, "tovarin-test", first=2) as crew:
        tasks = [crew.submit(threading.get_ident) for _ in range(100)]
        for task in tasks:
            task.result(SETUP_SECONDS)
        assert len(set(crew.results(tasks))) <= 2


def test_what_is_submitted_after_the_end_is_cancelled() -> None:
    """Whoever waits for it is not left waiting."""
    with Crew(1, "tovarin-test") as crew:
        pass
    assert crew.submit(threading.get_ident).cancelled()
