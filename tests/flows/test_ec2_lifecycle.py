"""Listing, refresh and lifecycle requests through the facade on an emulated EC2."""

from __future__ import annotations

import copy
import logging
from contextlib import AbstractContextManager
from unittest.mock import patch

import pytest
from botocore.exceptions import ClientError

from stage.ec2 import USER_NAME, Ec2World
from stage.ec2_endpoint import INSTANCE_PROFILE_NAME, KEY_PAIR_NAME
from stage.fault import Answer, document
from tovarincore.cloud_def import CloudInstances, CloudNode, NodeState
from tovarincore.cloud_node import CloudManager

UNKNOWN_INSTANCE_ID = "i-0123456789abcdef0"
UNLISTED_INSTANCE_TYPE = "m1.small"


def registered(world: Ec2World, instance_id: str) -> CloudNode:
    """The registry's record of an instance."""
    node = world.manager.find_node_by_instance_id(world.region, instance_id)
    assert node is not None
    return node


def test_an_account_without_nodes_lists_none(ec2: Ec2World) -> None:
    """An empty listing is a success, and the registry is empty after it."""
    nodes, result = ec2.manager.list_instances(ec2.region)
    assert (nodes, result.success) == ([], True)
    assert ec2.refresh().success
    assert ec2.manager.get_node_list(ec2.region) == []


def test_a_listed_node_carries_what_ec2_holds(ec2: Ec2World) -> None:
    """Id, tags, type, address, profile and key pair come from EC2's description."""
    ec2.run_instance("cold-1")
    (instance,) = ec2.instances()
    (node,) = ec2.listed()
    assert node.region is ec2.manager.get_node_manager(ec2.region).region
    assert node.instance_id == instance["InstanceId"]
    assert (node.uuid, node.name) == ("uuid-of-cold-1", "cold-1")
    assert node.instance_type_def == ec2.type_def
    assert node.dns_address == instance["PublicDnsName"]
    assert node.state is NodeState.RUNNING
    assert (node.instance_profile_name, node.key_pair_name) == (INSTANCE_PROFILE_NAME, KEY_PAIR_NAME)


def test_a_launched_node_is_listed_under_its_own_names(ec2: Ec2World) -> None:
    """The record of the launch and the record of the listing speak of the same node."""
    launched = ec2.launched()
    (listed,) = ec2.listed()
    assert (listed.instance_id, listed.uuid, listed.name) == (
        launched.instance_id,
        launched.uuid,
        launched.name,
    )
    assert listed.instance_type_def == launched.instance_type_def


def test_nodes_of_other_users_are_not_listed(ec2: Ec2World) -> None:
    """Only instances tagged with the manager's user belong to the listing."""
    ec2.run_instance("cold-1")
    ec2.run_instance("cold-2", user_name="somebody-else")
    ec2.run_instance("cold-3", TagSpecifications=[])
    assert [node.name for node in ec2.listed()] == ["cold-1"]


def test_an_instance_without_names_profile_or_key_is_listed_with_placeholders(ec2: Ec2World) -> None:
    """Missing tags read as a dash, a missing profile or key pair as None."""
    owner = [{"Key": "tovarin_username", "Value": USER_NAME}]
    ec2.raw.run_instances(
        ImageId=ec2.image_id,
        InstanceType=ec2.type_def.instance_type,
        MinCount=1,
        MaxCount=1,
        TagSpecifications=[{"ResourceType": "instance", "Tags": owner}],
    )
    (node,) = ec2.listed()
    assert (node.uuid, node.name) == ("-", "-")
    assert (node.instance_profile_name, node.key_pair_name) == (None, None)


def described(world: Ec2World, state: str) -> Answer:
    """EC2's description of one instance without a public name, tags, profile and key pair."""
    names = "<dnsName/><privateDnsName>ip-10-7-1-4.ec2.internal</privateDnsName>"
    return document(
        "DescribeInstances",
        "<reservationSet><item><instancesSet><item><instanceId>i-1</instanceId>"
        f"<instanceType>{world.type_def.instance_type}</instanceType>{names}"
        f"<instanceState><code>0</code><name>{state}</name></instanceState>"
        "</item></instancesSet></item></reservationSet>",
    )


def test_an_instance_without_a_public_name_is_reached_by_its_private_one(ec2: Ec2World) -> None:
    """In a network that gives no public names the private name is the node's address."""
    with ec2.faults() as faults:
        faults.script("DescribeInstances", described(ec2, "running"))
        (node,) = ec2.listed()
    assert node.dns_address == "ip-10-7-1-4.ec2.internal"


@pytest.mark.parametrize(
    ("aws_state", "state"),
    [
        ("pending", NodeState.STARTING),
        ("running", NodeState.RUNNING),
        ("stopping", NodeState.STOPPING),
        ("stopped", NodeState.STOPPED),
        ("shutting-down", NodeState.SHUTTING_DOWN),
        ("terminated", NodeState.TERMINATED),
    ],
)
def test_each_of_ec2s_states_is_a_node_state(ec2: Ec2World, aws_state: str, state: NodeState) -> None:
    """The six states of an EC2 instance are all known."""
    with ec2.faults() as faults:
        faults.script("DescribeInstances", described(ec2, aws_state))
        (node,) = ec2.listed()
    assert node.state is state


def test_a_refresh_finds_out_which_workers_answer(ec2: Ec2World) -> None:
    """The node whose worker answers the ping is ready and has fresh statistics; the other one is not."""
    ec2.run_instance("cold-1")
    ready_id = ec2.run_instance("ready-1")
    assert ec2.refresh().success
    assert ec2.states() == [("cold-1", NodeState.RUNNING, False), ("ready-1", NodeState.RUNNING, True)]
    ready = registered(ec2, ready_id)
    assert ready.memory_total_bytes is not None
    assert ready.memory_total_bytes > 0
    assert ready.system_stat_time is not None


def test_the_next_in_line_is_the_first_ready_node(ec2: Ec2World) -> None:
    """List order decides, and asking again gives the same node."""
    for name in ("cold-1", "ready-1", "ready-2"):
        ec2.run_instance(name)
    assert ec2.manager.get_ready_node_next_in_line(ec2.region) is None
    ec2.refresh()
    for _ in range(2):
        node = ec2.manager.get_ready_node_next_in_line(ec2.region)
        assert node is not None
        assert node.name == "ready-1"


def test_a_refresh_keeps_the_worker_bookkeeping(ec2: Ec2World) -> None:
    """The list of workers on a node is known to the registry alone and survives a refresh."""
    busy_id = ec2.run_instance("cold-1")
    idle_id = ec2.run_instance("cold-2")
    ec2.refresh()
    busy = registered(ec2, busy_id)
    busy.worker_id_list = ["worker-7"]
    ec2.manager.set_node(busy)
    ec2.refresh()
    assert registered(ec2, busy_id).worker_id_list == ["worker-7"]
    assert registered(ec2, idle_id).worker_id_list == []


def test_a_refresh_drops_nodes_that_ec2_no_longer_lists(ec2: Ec2World) -> None:
    """A node that lost its owner tag disappears from the registry."""
    lost_id = ec2.run_instance("cold-1")
    ec2.run_instance("cold-2")
    ec2.refresh()
    ec2.raw.delete_tags(Resources=[lost_id], Tags=[{"Key": "tovarin_username"}])
    ec2.refresh()
    assert [name for name, _, _ in ec2.states()] == ["cold-2"]


def test_a_single_node_can_be_refreshed(ec2: Ec2World) -> None:
    """The caller's record learns that the worker is ready; the stored copy gets the statistics."""
    ec2.run_instance("ready-1")
    (node,) = ec2.listed()
    result = ec2.manager.refresh_node(node)
    assert result.success
    assert node.ready
    stored = registered(ec2, node.instance_id)
    assert not stored.ready
    assert stored.memory_total_bytes is not None


def test_a_node_goes_through_its_whole_life(ec2: Ec2World) -> None:
    """Stop, start, reboot and terminate: the expected state at once, EC2's own after the next refresh."""
    instance_id = ec2.run_instance("ready-1")
    ec2.refresh()
    assert ec2.states() == [("ready-1", NodeState.RUNNING, True)]

    ec2.manager.stop_node(ec2.region, ec2.auth, instance_id)
    assert ec2.states() == [("ready-1", NodeState.STOPPING, False)]
    ec2.refresh()
    assert ec2.states() == [("ready-1", NodeState.STOPPED, False)]

    ec2.manager.start_node(ec2.region, ec2.auth, instance_id)
    assert ec2.states() == [("ready-1", NodeState.STARTING, False)]
    ec2.refresh()
    assert ec2.states() == [("ready-1", NodeState.RUNNING, True)]

    ec2.manager.start_node(ec2.region, ec2.auth, instance_id, reboot=True)
    assert ec2.states() == [("ready-1", NodeState.STARTING, False)]
    ec2.refresh()
    assert ec2.states() == [("ready-1", NodeState.RUNNING, True)]

    result = ec2.manager.terminate_node(ec2.region, ec2.auth, instance_id, stop_reason="no more work")
    assert result.success
    assert ec2.states() == [("ready-1", NodeState.SHUTTING_DOWN, False)]
    ec2.refresh()
    assert ec2.states() == [("ready-1", NodeState.TERMINATED, False)]


def test_a_start_can_wait_until_ec2_calls_the_node_ready(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture
) -> None:
    """A wait that ends well logs no error."""
    instance_id = ec2.run_instance("cold-1")
    ec2.raw.stop_instances(InstanceIds=[instance_id])
    with caplog.at_level(logging.ERROR):
        ec2.manager.start_node(ec2.region, ec2.auth, instance_id, wait_until_cloud_provider_ready=True)
    assert caplog.records == []
    assert [instance["State"]["Name"] for instance in ec2.instances()] == ["running"]


@pytest.mark.parametrize("operation", ["start_node", "stop_node", "terminate_node"])
def test_a_request_for_an_unknown_node_reaches_the_caller_as_ec2s_error(
    ec2: Ec2World, operation: str
) -> None:
    """EC2's refusal is raised, and the registry keeps the state it had."""
    stored_id = ec2.run_instance("cold-1")
    ec2.refresh()
    ghost = copy.copy(registered(ec2, stored_id))
    ghost.instance_id, ghost.name = UNKNOWN_INSTANCE_ID, "cold-2"
    ec2.manager.set_node(ghost)
    before = ec2.states()
    with pytest.raises(ClientError, match=r"InvalidInstanceID\.NotFound"):
        getattr(ec2.manager, operation)(ec2.region, ec2.auth, UNKNOWN_INSTANCE_ID)
    assert ec2.states() == before


def without_the_unlisted_type() -> AbstractContextManager[object]:
    """The installed SDK knows the emulator's types: one of them is left out."""
    known = [one for one in CloudInstances.instance_type_list if one.instance_type != UNLISTED_INSTANCE_TYPE]
    return patch.object(CloudInstances, "instance_type_list", known)


def test_an_unlisted_instance_type_stops_the_listing(ec2: Ec2World) -> None:
    """One instance of a type that the configuration does not know: no partial list."""
    ec2.run_instance("cold-1")
    ec2.run_instance("cold-2", InstanceType=UNLISTED_INSTANCE_TYPE)
    with without_the_unlisted_type(), pytest.raises(AssertionError):
        ec2.manager.list_instances(ec2.region)


def test_a_refresh_that_fails_leaves_the_registry_alone(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture
) -> None:
    """The failure comes back as an error result with its traceback, and is logged at debug level only."""
    ec2.run_instance("cold-1")
    ec2.refresh()
    before = ec2.states()
    ec2.run_instance("cold-2", InstanceType=UNLISTED_INSTANCE_TYPE)
    with without_the_unlisted_type(), caplog.at_level(logging.DEBUG, logger="tovarincore"):
        result = ec2.refresh()
    assert (result.success, result.error) == (False, True)
    assert result.msg == "Error occurred while refreshing Cloud Worker list"
    assert result.exc_info is True
    assert result.traceback_text is not None
    assert "AssertionError" in result.traceback_text
    assert ec2.states() == before
    (record,) = [record for record in caplog.records if record.getMessage() == result.msg]
    assert record.levelno == logging.DEBUG
    assert record.exc_info is not None
    assert record.exc_info[0] is AssertionError


def test_only_the_first_page_is_listed(ec2: Ec2World) -> None:
    """EC2 answers with a first page of a hundred launches; a node beyond it is not seen."""
    for number in range(101):
        ec2.run_instance(f"cold-{number}")
    nodes = ec2.listed()
    assert len(ec2.raw.describe_instances()["NextToken"]) > 0
    assert [node.name for node in nodes] == [f"cold-{number}" for number in range(100)]


def test_a_new_facade_finds_the_nodes_again(ec2: Ec2World) -> None:
    """Nothing but EC2 remembers the nodes: a restarted product lists them again."""
    node = ec2.launched()
    restarted = CloudManager()
    assert restarted.refresh_node_list(ec2.region).success
    found = restarted.find_node_by_uuid(ec2.region, node.uuid)
    assert found is not None
    assert found.instance_id == node.instance_id


def test_changing_a_handed_out_node_does_not_change_the_registry(ec2: Ec2World) -> None:
    """Nodes leave the registry as copies."""
    instance_id = ec2.run_instance("cold-1")
    ec2.refresh()
    registered(ec2, instance_id).state = NodeState.UNKNOWN
    assert registered(ec2, instance_id).state is NodeState.RUNNING
