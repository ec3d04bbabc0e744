"""Many callers at the same time in the local region, on real container engines."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from threading import Barrier
from typing import TypeVar

import pytest

from stage.local_region import LocalRegion, local_settings
from stage.settings import settings_of
from tests.thorough import sized
from tovarincore.container_helper import ContainerHelper
from tovarincore.core_def import OPResultErrorCode

CALLERS = 20
ROUNDS = sized(2, 5)
# Twenty starts at once take their time on a machine that does other things as well.
PATIENCE_SECONDS = 60.0

T = TypeVar("T")


def at_once(call: Callable[[], T]) -> list[T]:
    """What a crowd of callers gets that all begin at the same moment."""
    barrier = Barrier(CALLERS)

    def run() -> T:
        barrier.wait(PATIENCE_SECONDS)
        return call()

    with ThreadPoolExecutor(CALLERS) as crowd:
        return [started.result() for started in [crowd.submit(run) for _ in range(CALLERS)]]


@pytest.fixture
def patient(local: LocalRegion, tmp_path: Path) -> Iterator[LocalRegion]:
    """The region with more time for an operation."""
    folder = tmp_path / "patient"
    folder.mkdir()
    with settings_of(folder, local_settings(local.server, local.port, PATIENCE_SECONDS)):
        yield local


def test_launches_at_the_same_time_return_one_container(patient: LocalRegion) -> None:
    """Round after round, each of the crowd gets the same node, and so does each that terminates it."""
    seen = set()
    for _ in range(ROUNDS):
        launched = at_once(lambda: ContainerHelper().run_tvr_container_image("1.10.0"))
        assert [result.msg for _, result in launched if not result.success] == []
        (uuid,) = {node.uuid for node, _ in launched if node is not None}
        (container,) = patient.client.containers()
        assert container["Labels"]["tovarin.worker.uuid"] == uuid
        terminated = at_once(lambda: ContainerHelper().delete_tovarin_container())
        assert [result.msg for result in terminated if not result.success] == []
        assert patient.client.containers(all=True) == []
        seen.add(uuid)
    assert len(seen) == ROUNDS


def test_launches_that_follow_a_termination_closely_get_a_new_container(patient: LocalRegion) -> None:
    """A crowd that launches while another terminates ends with one container, or without any."""
    patient.running_node()
    calls = iter(range(CALLERS))
    outcomes = at_once(
        lambda: (
            ContainerHelper().delete_tovarin_container()
            if next(calls) % 2
            else ContainerHelper().run_tvr_container_image("1.10.0")[1]
        )
    )
    # A launch may see its container end before it returns: that is said, and nothing else.
    failures = [result for result in outcomes if not result.success]
    assert [result.msg for result in failures if result.error_code is not OPResultErrorCode.NOT_FOUND] == []
    assert len(patient.client.containers(all=True)) <= 1
    assert ContainerHelper().run_tvr_container_image("1.10.0")[1].success
    assert patient.wait_until_ready().ready
