"""Starting, stopping, rebooting and terminating many nodes at once."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest
from botocore.exceptions import ConnectionClosedError

from tests.fleet.accounts import HASTY, Account
from tovarincore.cloud_def import CloudNode, K8sRegion, NodeState
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.fleet import ActionReport, NotDone, Patience, reboot, start, stop, terminate
from tovarincore.testing.fakes import client_error

LOST = ConnectionClosedError(endpoint_url="https://ec2")


@pytest.mark.parametrize(
    "action, request_name, state",
    [
        (start, "ec2.start_instances", NodeState.STARTING),
        (stop, "ec2.stop_instances", NodeState.STOPPING),
        (reboot, "ec2.reboot_instances", NodeState.STARTING),
        (terminate, "ec2.terminate_instances", NodeState.SHUTTING_DOWN),
    ],
)
def test_each_node_is_asked_for_once_and_marked_in_the_registry(
    world: Account, action: Callable[..., ActionReport], request_name: str, state: NodeState
) -> None:
    """Five nodes give five requests, and the registry holds the state that each of them leads to."""
    nodes = world.launched(5)
    cloud_manager_glbl.refresh_node_list(world.region)
    told: list[object] = []
    report = action([*nodes, nodes[0]], on_outcome=told.append)
    assert report.complete and report.done == nodes and report.seconds > 0
    assert sorted(map(id, told)) == sorted(map(id, nodes))
    assert world.cloud.names.count(request_name) == 5
    assert {node.state for node in cloud_manager_glbl.get_node_list(world.region)} == {state}


def failing(world: Account, name: str, errors: dict[str, list[Exception]]) -> Callable[..., Any]:
    """EC2's answers to a request: errors in turn for some instances, then what it answers by itself."""
    client = world.cloud.ec2(world.region)
    lock = threading.Lock()

    def answer(**request: Any) -> Any:
        (instance_id,) = request["InstanceIds"]
        with lock:
            if errors.get(instance_id):
                raise errors[instance_id].pop(0)
        client.instances[instance_id]["State"]["Name"] = name
        return {}

    return answer


def test_one_failure_does_not_keep_the_others(world: Account) -> None:
    """The report says which node was refused, and why."""
    nodes = world.launched(3)
    refusal = client_error("OperationNotPermitted", "it is protected")
    world.cloud.answers["ec2.terminate_instances"] = failing(
        world, "terminated", {nodes[1].instance_id: [refusal]}
    )
    report = terminate(nodes, patience=HASTY)
    assert report.done == [nodes[0], nodes[2]]
    (missing,) = report.not_done
    assert (missing.node, missing.why, missing.error) == (nodes[1], "it is protected", refusal)
    assert not report.complete


@pytest.mark.parametrize(
    "error", [client_error("RequestLimitExceeded", "slower"), LOST, TimeoutError(), client_error("500", "x")]
)
def test_what_may_go_well_in_a_moment_is_repeated(world: Account, error: Exception) -> None:
    """Throttling, a lost connection and a busy lock pass."""
    nodes = world.launched(2)
    errors = {nodes[0].instance_id: [error, error]}
    world.cloud.answers["ec2.stop_instances"] = failing(world, "stopped", errors)
    assert stop(nodes, patience=HASTY).complete
    assert world.cloud.names.count("ec2.stop_instances") == 4
    assert world.states() == {"web-1": "Stopped", "web-2": "Stopped"}


def test_a_reboot_whose_answer_is_lost_is_not_repeated(world: Account) -> None:
    """It may have been done already."""
    nodes = world.launched(1)
    world.cloud.answers["ec2.reboot_instances"] = LOST
    assert not reboot(nodes, patience=HASTY).complete
    assert world.cloud.names.count("ec2.reboot_instances") == 1


def test_repeating_ends_with_the_patience(world: Account) -> None:
    """What is throttled for ever is reported."""
    nodes = world.launched(1)
    world.cloud.answers["ec2.stop_instances"] = client_error("RequestLimitExceeded", "slower")
    (missing,) = stop(nodes, patience=Patience(seconds=0.1, first_pause=0.01)).not_done
    assert missing.why == "slower"


def test_pods_can_only_be_terminated(world: Account) -> None:
    """Their provider would do nothing and say nothing."""
    region = K8sRegion("lab")
    node = CloudNode(region, "tovarin-1", world.size, "1", "pod")
    for action in (start, stop, reboot):
        (missing,) = action([node]).not_done
        assert "cannot be started, stopped or rebooted" in missing.why
    assert terminate([node], reason="over").complete
    assert [call.kwargs for call in world.cloud.calls if call.name.startswith("k8s")] == [
        {"instance_id": "tovarin-1", "stop_reason": "over"}
    ]


def test_a_provider_that_reports_a_failure_has_not_done_it(world: Account) -> None:
    """An error result counts as much as an exception."""
    from tovarincore.core_def import OPResult

    node = CloudNode(K8sRegion("lab"), "tovarin-1", world.size, "1", "pod")
    world.cloud.answers["k8s.terminate_node"] = OPResult(error=True, msg="forbidden")
    (missing,) = terminate([node]).not_done
    assert missing == NotDone(node, "forbidden", OPResult(error=True, msg="forbidden"))


def test_an_interrupt_ends_it_with_nothing_new_begun(world: Account) -> None:
    """The requests under way end; the others are not made."""
    nodes = world.launched(12)
    cancel = threading.Event()

    def interrupt(outcome: object) -> None:
        raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        terminate(nodes, at_once=2, on_outcome=interrupt, cancel=cancel)
    assert cancel.is_set()
    assert 1 <= world.cloud.names.count("ec2.terminate_instances") < 12


def test_what_was_cancelled_before_is_not_begun(world: Account) -> None:
    """The report names the nodes that were not asked for."""
    cancel = threading.Event()
    cancel.set()
    (missing,) = stop(world.launched(1), cancel=cancel).not_done
    assert missing.why == "stopped before it was asked for"
    assert "ec2.stop_instances" not in world.cloud.names


def test_nothing_to_do_is_done(world: Account) -> None:
    """No nodes, no requests; a limit of nothing is refused."""
    assert terminate([]).complete
    with pytest.raises(ValueError, match="at_once is 0"):
        terminate([], at_once=0)
