"""EC2 answering badly or not at all: what reaches the facade's callers, and that the next call works."""

from __future__ import annotations

import logging

import pytest
from botocore.exceptions import ClientError, ConnectionClosedError, EndpointConnectionError, WaiterError
from botocore.parsers import ResponseParserError

from stage.ec2 import USER_NAME, Ec2World, one_record
from stage.fault import (
    GARBAGE,
    HANG_UP,
    Answer,
    document,
    ec2_error,
    throttled,
    unauthorized,
)
from tovarincore.cloud_def import NodeState

INTERNAL_ERROR = ec2_error("InternalError", "An internal error has occurred", status=500)


def test_a_refused_dry_run_is_no_success(ec2: Ec2World) -> None:
    """A dry run that EC2 refuses for want of rights comes back as the error it is."""
    with ec2.faults() as faults:
        faults.script("RunInstances", unauthorized("RW5jb2RlZA"))
        result = ec2.manager.try_launching_node(ec2.region, ec2.auth, ec2.type_def, ec2.config())
    assert (result.success, result.error, result.error_code) == (False, True, None)
    assert result.msg is not None
    assert "You are not authorized" in result.msg
    assert "RW5jb2RlZA" in result.msg
    run = next(request for request in faults.requests if request.action == "RunInstances")
    assert run.parameters["DryRun"] == "true"


def test_a_launch_refused_for_want_of_rights_starts_nothing(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture
) -> None:
    """The refusal is an error result with EC2's message, logged once with its traceback."""
    with ec2.faults() as faults, caplog.at_level(logging.ERROR, logger="tovarincore"):
        faults.script("RunInstances", unauthorized())
        node, result = ec2.launch()
    assert node is None
    assert result.error
    assert result.msg is not None
    assert "You are not authorized" in result.msg
    record = one_record(caplog.records, logging.ERROR)
    assert record.exc_info is not None
    assert record.exc_info[0] is ClientError
    assert ec2.instances() == []


@pytest.mark.parametrize(
    ("answer", "message"),
    [
        pytest.param(INTERNAL_ERROR, "An internal error has occurred", id="internal error"),
        pytest.param(throttled(), "Request limit exceeded.", id="throttled"),
        pytest.param(Answer(503, b""), "Service Unavailable", id="empty 503"),
    ],
)
def test_a_launch_that_ec2_cannot_serve_is_an_error_result(
    ec2: Ec2World, answer: Answer, message: str
) -> None:
    """Server errors and throttling come back with the message; the next launch works."""
    with ec2.faults() as faults:
        faults.script("RunInstances", answer)
        node, result = ec2.launch()
    assert node is None
    assert (result.success, result.error, result.msg) == (False, True, message)
    assert ec2.instances() == []
    _, result = ec2.launch()
    assert result.success


def test_a_passing_server_error_is_bridged_by_the_sdk(ec2: Ec2World) -> None:
    """One failed attempt followed by a good one is a success, with one instance."""
    with ec2.faults() as faults:
        faults.script("DescribeSecurityGroups", INTERNAL_ERROR, document("DescribeSecurityGroups", ""))
        _, result = ec2.launch()
    assert result.success
    assert len(ec2.instances()) == 1


def test_a_hung_up_launch_reaches_the_caller(ec2: Ec2World) -> None:
    """A connection closed without an answer is not a refusal: the SDK's error is raised."""
    with ec2.faults() as faults:
        faults.script("RunInstances", HANG_UP)
        with pytest.raises(ConnectionClosedError):
            ec2.launch()
    _, result = ec2.launch()
    assert result.success


def test_a_garbled_launch_answer_reaches_the_caller(ec2: Ec2World) -> None:
    """An answer that is not XML is the parser's error."""
    with ec2.faults() as faults:
        faults.script("RunInstances", GARBAGE)
        with pytest.raises(ResponseParserError):
            ec2.launch()


def test_a_launch_answer_without_instances_reaches_the_caller(ec2: Ec2World) -> None:
    """A success that names no instance is a lookup error."""
    with ec2.faults() as faults:
        faults.script("RunInstances", document("RunInstances", "<instancesSet/>"))
        with pytest.raises(IndexError):
            ec2.launch()


def test_a_slow_answer_is_waited_for(ec2: Ec2World) -> None:
    """An answer that takes its time is an answer."""
    with ec2.faults() as faults:
        slow = Answer(200, document("DescribeImages", "<imagesSet/>").body, delay=0.5)
        faults.script("DescribeImages", slow)
        found, result = ec2.manager.list_current_instance_templates(ec2.region, ec2.auth)
    assert (found, result.success) == ([], True)


def test_a_refused_group_lookup_counts_as_no_group(ec2: Ec2World, caplog: pytest.LogCaptureFixture) -> None:
    """The refusal is logged at debug level and the group is made."""
    with ec2.faults() as faults, caplog.at_level(logging.DEBUG, logger="tovarincore"):
        faults.script("DescribeSecurityGroups", unauthorized())
        _, result = ec2.launch()
    assert result.success
    assert "CreateSecurityGroup" in faults.actions()
    refused = [
        record
        for record in caplog.records
        if record.getMessage() == "Security Group : tovarin-security-group Not Exists"
    ]
    assert [record.exc_info is not None for record in refused] == [True]


def test_a_group_that_cannot_be_found_nor_made_fails_the_launch(ec2: Ec2World) -> None:
    """With the lookup refused and the group there, EC2's refusal of a second one is the launch's error."""
    ec2.launch()
    with ec2.faults() as faults:
        faults.script("DescribeSecurityGroups", unauthorized())
        node, result = ec2.launch()
    assert node is None
    assert result.msg is not None
    assert "tovarin-security-group" in result.msg
    assert len(ec2.instances()) == 1


@pytest.mark.parametrize("action", ["DescribeSecurityGroupRules", "AuthorizeSecurityGroupIngress"])
def test_refused_rules_fail_the_launch(ec2: Ec2World, action: str) -> None:
    """Without the right to read or to add rules nothing is started."""
    with ec2.faults() as faults:
        faults.script(action, unauthorized())
        node, result = ec2.launch()
    assert node is None
    assert result.error
    assert result.msg is not None
    assert "You are not authorized" in result.msg
    assert "RunInstances" not in faults.actions()


@pytest.mark.parametrize(
    "answer",
    [
        pytest.param(INTERNAL_ERROR, id="internal error"),
        pytest.param(HANG_UP, id="hang-up"),
        pytest.param(GARBAGE, id="garbage"),
        pytest.param(unauthorized(), id="refused"),
    ],
)
def test_a_refresh_survives_every_fault(ec2: Ec2World, answer: Answer) -> None:
    """The refresh reports the failure and keeps the registry; the next one works."""
    ec2.run_instance("cold-1")
    ec2.refresh()
    ec2.run_instance("cold-2")
    with ec2.faults() as faults:
        faults.script("DescribeInstances", answer)
        result = ec2.refresh()
    assert (result.success, result.error) == (False, True)
    assert result.msg == "Error occurred while refreshing Cloud Worker list"
    assert [name for name, _, _ in ec2.states()] == ["cold-1"]
    assert ec2.refresh().success
    assert [name for name, _, _ in ec2.states()] == ["cold-1", "cold-2"]


def test_a_listing_without_reservations_is_a_lookup_error(ec2: Ec2World) -> None:
    """An answer that lacks the reservations is not taken for an empty account."""
    with ec2.faults() as faults:
        faults.script("DescribeInstances", document("DescribeInstances", ""))
        with pytest.raises(KeyError, match="Reservations"):
            ec2.manager.list_instances(ec2.region)


@pytest.mark.parametrize(
    ("operation", "action"),
    [
        ("start_node", "StartInstances"),
        ("stop_node", "StopInstances"),
        ("terminate_node", "TerminateInstances"),
    ],
)
def test_a_refused_lifecycle_request_changes_no_state(ec2: Ec2World, operation: str, action: str) -> None:
    """The refusal is raised; registry and instance stay as they were."""
    instance_id = ec2.run_instance("ready-1")
    ec2.refresh()
    with ec2.faults() as faults:
        faults.script(action, unauthorized())
        with pytest.raises(ClientError, match="UnauthorizedOperation"):
            getattr(ec2.manager, operation)(ec2.region, ec2.auth, instance_id)
    assert ec2.states() == [("ready-1", NodeState.RUNNING, True)]
    assert [instance["State"]["Name"] for instance in ec2.instances()] == ["running"]


def test_a_refused_wait_does_not_fail_the_start(ec2: Ec2World, caplog: pytest.LogCaptureFixture) -> None:
    """The start went through; the wait's failure is one error line with traceback."""
    instance_id = ec2.run_instance("cold-1")
    ec2.raw.stop_instances(InstanceIds=[instance_id])
    ec2.refresh()
    with ec2.faults() as faults, caplog.at_level(logging.ERROR, logger="tovarincore"):
        faults.script("DescribeInstanceStatus", unauthorized())
        ec2.manager.start_node(ec2.region, ec2.auth, instance_id, wait_until_cloud_provider_ready=True)
    record = one_record(caplog.records, logging.ERROR)
    assert record.getMessage() == "AWS wait failed."
    assert record.exc_info is not None
    assert ec2.states() == [("cold-1", NodeState.STARTING, False)]
    assert [instance["State"]["Name"] for instance in ec2.instances()] == ["running"]


def test_a_refused_wait_after_a_launch_reaches_the_caller(ec2: Ec2World) -> None:
    """The waiter's own error is raised; the instance that was launched keeps running."""
    with ec2.faults() as faults:
        faults.script("DescribeInstanceStatus", unauthorized())
        with pytest.raises(WaiterError, match="You are not authorized"):
            ec2.launch(wait_until_cloud_provider_ready=True)
    assert len(ec2.instances()) == 1


def test_a_reboot_asks_for_a_reboot_alone(ec2: Ec2World) -> None:
    """A reboot never starts or stops the instance."""
    instance_id = ec2.run_instance("cold-1")
    with ec2.faults() as faults:
        ec2.manager.start_node(ec2.region, ec2.auth, instance_id, reboot=True)
    assert faults.actions() == ["RebootInstances"]


def test_a_stop_is_forced_and_does_not_hibernate(ec2: Ec2World) -> None:
    """What reaches EC2 is a forced stop."""
    instance_id = ec2.run_instance("cold-1")
    with ec2.faults() as faults:
        ec2.manager.stop_node(ec2.region, ec2.auth, instance_id)
    (request,) = faults.requests
    assert request.action == "StopInstances"
    assert (request.parameters["Force"], request.parameters["Hibernate"]) == ("true", "false")


def test_the_listing_asks_for_the_users_instances_alone(ec2: Ec2World) -> None:
    """One request with the owner's tag as its filter."""
    with ec2.faults() as faults:
        ec2.manager.list_instances(ec2.region)
    (request,) = faults.requests
    filters = {name: value for name, value in request.parameters.items() if name.startswith("Filter")}
    assert filters == {"Filter.1.Name": "tag:tovarin_username", "Filter.1.Value.1": USER_NAME}


def test_an_endpoint_that_is_gone_reaches_the_caller(ec2: Ec2World) -> None:
    """Nobody listens: the SDK's connection error is raised by a launch and reported by a refresh."""
    with ec2.faults() as faults:
        address = faults.url
    ec2.send_requests_to(address)
    with pytest.raises(EndpointConnectionError, match="Could not connect to the endpoint URL"):
        ec2.launch()
    assert ec2.refresh().error
