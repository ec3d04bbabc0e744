"""Waiting for many nodes."""

from __future__ import annotations

import threading
from typing import Any

import pytest

from tests.fleet.accounts import Account
from tovarincore.cloud_def import CloudNode, NodeState
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.core_def import OPResult
from tovarincore.fleet import WaitReport, stop, terminate, wait
from tovarincore.testing.fakes import client_error

QUICK: dict[str, Any] = {"every": 0.01, "unseen_seconds": 0.05}


def test_nodes_are_ready_when_their_workers_answer(world: Account) -> None:
    """The report has the records as they were seen last: running, ready, with their load."""
    nodes = world.launched(3)
    report = wait(nodes, **QUICK)
    assert report.complete and report.seconds > 0
    assert [node.name for node in report.reached] == ["web-1", "web-2", "web-3"]
    assert {(node.state, node.ready, node.cpu_percent) for node in report.reached} == {
        (NodeState.RUNNING, True, 12.5)
    }
    assert cloud_manager_glbl.get_node_list(world.region) == []


def test_a_silent_worker_is_waited_for_until_the_time_is_over(world: Account) -> None:
    """The report says why it is not ready; the others are."""
    nodes = world.launched(2)
    world.cloud.silent = {"web-2"}
    report = wait(nodes, timeout=0.1, **QUICK)
    assert [node.name for node in report.reached] == ["web-1"]
    assert [(missed.node.name, missed.why) for missed in report.missed] == [("web-2", "The worker is silent")]


def test_a_worker_that_comes_up_meanwhile_is_seen(world: Account) -> None:
    """Each look tells what is still missing; only that is looked at again."""
    nodes = world.launched(2)
    world.cloud.silent = {"web-2"}
    looks: list[WaitReport] = []

    def look(report: WaitReport) -> None:
        looks.append(report)
        world.cloud.silent = set() if len(looks) == 3 else world.cloud.silent

    assert wait(nodes, on_look=look, **QUICK).complete
    assert [len(report.missed) for report in looks] == [1, 1, 1, 0]
    assert world.cloud.names.count("worker.api_get_op_result") == 2 + 3


@pytest.mark.parametrize("until, state", [("stopped", "Stopped"), ("terminated", "Terminated")])
def test_states_are_waited_for(world: Account, until: Any, state: str) -> None:
    """No worker is asked for that."""
    nodes = world.launched(2)
    (stop if until == "stopped" else terminate)(nodes)
    world.cloud.calls.clear()
    assert wait(nodes, until, **QUICK).complete
    assert set(world.states().values()) == {state}
    assert "worker.api_get_op_result" not in world.cloud.names


def test_running_is_enough_where_the_worker_does_not_matter(world: Account) -> None:
    """A running node with a silent worker is running."""
    nodes = world.launched(1)
    world.cloud.silent = {"web-1"}
    assert wait(nodes, "running", **QUICK).complete


@pytest.mark.parametrize("until", ["ready", "running", "stopped"])
def test_a_node_that_has_ended_is_not_waited_for(world: Account, until: Any) -> None:
    """It will never be anything else."""
    nodes = world.launched(1)
    terminate(nodes)
    world.listed()
    (missed,) = wait(nodes, until, timeout=60, **QUICK).missed
    assert missed.why == "it is terminated"


def test_a_stopped_node_is_given_a_moment_to_show_as_started(world: Account) -> None:
    """Listings may be late; after that moment it is clear that nobody started it."""
    nodes = world.launched(1)
    stop(nodes)
    world.listed()
    report = wait(nodes, timeout=60, every=0.01, unseen_seconds=0.05)
    assert [missed.why for missed in report.missed] == ["it is stopped"]
    assert 0.05 <= report.seconds < 30


def test_a_node_that_is_not_listed_counts_as_terminated_and_never_as_ready(world: Account) -> None:
    """For a moment listings may not show what was just launched."""
    nodes = world.launched(1)
    world.cloud.ec2(world.region).instances.clear()
    assert [missed.why for missed in wait(nodes, timeout=60, **QUICK).missed] == ["it is not listed"]
    report = wait(nodes, "terminated", timeout=60, **QUICK)
    assert report.complete and report.seconds >= 0.05


def test_a_refused_listing_ends_the_wait_and_a_lost_one_does_not(world: Account) -> None:
    """Missing rights do not come by waiting; a connection does."""
    nodes = world.launched(1)
    world.cloud.answers["ec2.describe_instances"] = client_error("UnauthorizedOperation", "no rights")
    (missed,) = wait(nodes, timeout=60, **QUICK).missed
    assert missed.why == "the region cannot be listed: no rights"
    world.cloud.answers["ec2.describe_instances"] = client_error("RequestLimitExceeded", "slower")

    def look(report: WaitReport) -> None:
        if report.missed[0:1] and world.cloud.names.count("ec2.describe_instances") >= 4:
            world.cloud.answers.pop("ec2.describe_instances", None)

    assert wait(nodes, on_look=look, **QUICK).complete


def test_cancelling_gives_the_report_of_then(world: Account) -> None:
    """Whoever cancels learns what is missing."""
    nodes = world.launched(1)
    world.cloud.silent = {"web-1"}
    cancel = threading.Event()
    threading.Timer(0.05, cancel.set).start()
    assert len(wait(nodes, timeout=60, every=30, cancel=cancel).missed) == 1


def test_what_cannot_be_waited_for_is_refused(world: Account) -> None:
    """The text lists what can be."""
    with pytest.raises(ValueError, match="allowed are ready, running, stopped, terminated"):
        wait([], "happy")  # type: ignore[arg-type]
    assert wait([]).complete


def test_a_failed_listing_that_is_only_reported_counts_too(world: Account) -> None:
    """Kubernetes says it in its result."""
    from tovarincore.cloud_def import K8sRegion

    node = CloudNode(K8sRegion("lab"), "tovarin-1", world.size, "1", "pod")
    world.cloud.answers["k8s.get_cloud_nodes"] = (None, OPResult(error=True, msg="forbidden"))
    (missed,) = wait([node], timeout=60, **QUICK).missed
    assert missed.why == "the region cannot be listed: forbidden"
