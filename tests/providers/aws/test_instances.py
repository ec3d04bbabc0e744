"""Amazon's instances as nodes, and the requests that start, stop and terminate them."""

from __future__ import annotations

from collections.abc import Callable
from types import SimpleNamespace
from typing import Any

import pytest

from tests.fakes import AWS_REGION, SMALL, Fake, Logged, call, handled, recording, refusal
from tests.providers.aws.conftest import Amazon
from tovarincore.cloud_def import AWSCloudNode, CloudInstanceTypeDef, NodeState
from tovarincore.core_def import OPResult

SUCCESS = OPResult(success=True)
WAITING = Logged("debug", "Waiting until AWS states Cloud Worker is ready")
READY = Logged("debug", "AWS stated Cloud Worker is ready")
ARN = "arn:aws:iam::123456789012:instance-profile/product/workers"


def instance(**fields: Any) -> dict[str, Any]:
    """Return a running instance as EC2 describes it, with the fewest fields."""
    return {
        "InstanceType": "t3.small",
        "State": {"Name": "running"},
        "PublicDnsName": "ec2.example",
        "PrivateDnsName": "ip-10",
        "InstanceId": "i-1",
        **fields,
    }


def described(aws: Amazon, *instances: Any) -> Amazon:
    """Let EC2 list these instances, two to a reservation."""
    pairs = [{"Instances": list(instances[i : i + 2])} for i in range(0, len(instances), 2)]
    aws.ec2.answers["describe_instances"] = {"Reservations": pairs}
    return aws


def only_node(aws: Amazon, **fields: Any) -> Any:
    """Return the node made of one instance with these fields."""
    nodes, result = described(aws, instance(**fields)).manager.list_instances()
    assert result == SUCCESS
    (node,) = nodes
    assert type(node) is AWSCloudNode
    return node


def test_one_request_asks_for_the_users_instances(aws: Amazon) -> None:
    """By the tag with the user's name; none gives an empty list and success."""
    assert described(aws).manager.list_instances() == ([], SUCCESS)
    filters = [{"Name": "tag:tovarin_username", "Values": ["ada"]}]
    assert aws.log == [call("_get_client"), call("ec2.describe_instances", Filters=filters)]


def test_every_instance_becomes_a_node_in_the_order_of_the_response(aws: Amazon) -> None:
    """All reservations, terminated instances too; nothing enters the registry."""
    described(aws, *[instance(InstanceId=i, State={"Name": "terminated"}) for i in "cab"])
    nodes, result = aws.manager.list_instances()
    assert [(node.instance_id, node.state) for node in nodes] == [(i, NodeState.TERMINATED) for i in "cab"]
    assert result == SUCCESS
    assert aws.manager.get_node_list() == []


def test_the_record_is_made_by_keyword_in_this_order(aws: Amazon, monkeypatch: pytest.MonkeyPatch) -> None:
    """A replaced record class of the module takes effect."""
    monkeypatch.setattr(aws.module, "AWSCloudNode", recording(aws.log, "AWSCloudNode", "node"))
    tags = [{"Key": "Name", "Value": "n"}, {"Key": "tovarin_uuid", "Value": "u"}, {"Key": "x", "Value": "y"}]
    described(aws, instance(Tags=tags, KeyName="key", IamInstanceProfile={"Arn": ARN}))
    assert aws.manager.list_instances() == (["node"], SUCCESS)
    assert aws.log[-1] == call(
        "AWSCloudNode",
        region=AWS_REGION,
        instance_id="i-1",
        uuid="u",
        name="n",
        instance_type_def=SMALL,
        dns_address="ec2.example",
        state=NodeState.RUNNING,
        instance_profile_name="workers",
        key_pair_name="key",
    )


def test_an_instance_without_tags_has_dashes_for_uuid_and_name(aws: Amazon) -> None:
    """No tags at all, or none of ours."""
    tags: list[Any] = [{}, {"Tags": []}, {"Tags": [{"Key": "name", "Value": "x"}]}]
    for fields in tags:
        node = only_node(aws, **fields)
        assert (node.uuid, node.name) == ("-", "-")


def test_a_later_tag_overwrites_an_earlier_one_with_its_key(aws: Amazon) -> None:
    """The value is taken as it is."""
    tags = [{"Key": key, "Value": value} for key in ("Name", "tovarin_uuid") for value in (1, None)]
    node = only_node(aws, Tags=tags)
    assert (node.uuid, node.name) == (None, None)


@pytest.mark.parametrize(
    ("name", "text"),
    [
        ("stopped", "Stopped"),
        ("shutting-down", "Shutting-down"),
        ("RUNNING", "Running"),
        ("pending", "Pending"),
    ],
)
def test_the_state_reaches_its_enum_with_a_capital_letter(
    aws: Amazon, monkeypatch: pytest.MonkeyPatch, name: str, text: str
) -> None:
    """The first letter is raised and the rest lowered."""
    monkeypatch.setattr(aws.module, "NodeState", Fake(aws.log, "NodeState", from_aws_value="the state"))
    assert only_node(aws, State={"Name": name}).state == "the state"
    assert aws.log[-1] == call("NodeState.from_aws_value", text)


@pytest.mark.parametrize(
    ("public", "address"),
    [("", "ip-10"), ("abcd", "ip-10"), ("abcde", "abcde"), (None, "ip-10"), (12345, "12345")],
)
def test_a_short_public_address_gives_way_to_the_private_one(aws: Amazon, public: Any, address: str) -> None:
    """The same rule as at a launch."""
    assert only_node(aws, PublicDnsName=public).dns_address == address


def test_profile_and_key_pair_are_optional_and_go_through_str(
    aws: Amazon, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Absent gives None; the profile's name comes from the helper for resource names."""
    node = only_node(aws)
    assert (node.instance_profile_name, node.key_pair_name) == (None, None)
    util = Fake(aws.log, "util", get_profile_name_from_arn="the name")
    monkeypatch.setattr(aws.module, "ObjectMetaTextUtil", util)
    node = only_node(aws, IamInstanceProfile={"Arn": 5}, KeyName=6)
    assert (node.instance_profile_name, node.key_pair_name) == ("the name", "6")
    assert aws.log[-1] == call("util.get_profile_name_from_arn", "5")


def test_the_first_type_of_the_configured_list_with_the_name_is_taken(
    aws: Amazon, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The search stops there: a broken entry behind it is not looked at."""
    twin = CloudInstanceTypeDef("t3.small", 1, 1)
    types = SimpleNamespace(instance_type_list=[CloudInstanceTypeDef("x", 1, 1), twin, SMALL, None])
    monkeypatch.setattr(aws.module, "CloudInstances", types)
    assert only_node(aws).instance_type_def is twin


def test_an_unknown_type_stops_the_whole_listing(aws: Amazon) -> None:
    """An assertion without a message, after everything else of the instance has been read."""
    described(aws, instance(), instance(InstanceType="u-24tb1.metal", State={"Name": "odd"}))
    with pytest.raises(AssertionError) as caught:
        aws.manager.list_instances()
    assert caught.value.args == ()
    described(aws, instance(InstanceType="u-24tb1.metal", PublicDnsName="", PrivateDnsName=""))
    del aws.ec2.answers["describe_instances"]["Reservations"][0]["Instances"][0]["PrivateDnsName"]
    with pytest.raises(KeyError):
        aws.manager.list_instances()


def test_without_assertions_an_unknown_type_is_recorded_as_none(run_optimised: Callable[[str], str]) -> None:
    """The listing then goes on."""
    printed = run_optimised("""
from tests.fakes import AWS_REGION, CallLog, Fake
from tests.providers.aws.conftest import AUTH
from tests.providers.aws.test_instances import instance
manager = cloud_node.AWSNodeManager(AWS_REGION, AUTH, "ada")
listed = {"Reservations": [{"Instances": [instance(InstanceType="unheard.of")]}]}
manager._get_client = lambda: Fake(CallLog(), "ec2", describe_instances=listed)
print(manager.list_instances()[0][0].instance_type_def)
""")
    assert printed == "None\n"


def test_an_unknown_state_is_the_enums_own_error(aws: Amazon) -> None:
    """It stops the listing."""
    described(aws, instance(State={"Name": "rebooting"}))
    with pytest.raises(ValueError, match="Rebooting"):
        aws.manager.list_instances()


@pytest.mark.parametrize("key", ["InstanceType", "State", "PublicDnsName", "InstanceId"])
def test_an_instance_without_a_mandatory_key_is_a_key_error(aws: Amazon, key: str) -> None:
    """No partial list comes back."""
    broken = instance()
    del broken[key]
    described(aws, instance(), broken)
    with pytest.raises(KeyError) as caught:
        aws.manager.list_instances()
    assert caught.value.args == (key,)


def test_a_response_without_reservations_is_a_key_error(aws: Amazon) -> None:
    """So is a reservation without instances."""
    responses: dict[str, Any] = {"Reservations": {}, "Instances": {"Reservations": [{}]}}
    for key, response in responses.items():
        aws.ec2.answers["describe_instances"] = response
        with pytest.raises(KeyError, match=key):
            aws.manager.list_instances()


def test_a_type_list_that_ends_an_iteration_early_is_a_runtime_error(
    aws: Amazon, monkeypatch: pytest.MonkeyPatch
) -> None:
    """StopIteration out of an entry does not pass for the end of the search."""

    class Entry:
        @property
        def instance_type(self) -> str:
            raise StopIteration

    monkeypatch.setattr(aws.module, "CloudInstances", SimpleNamespace(instance_type_list=[Entry()]))
    described(aws, instance())
    with pytest.raises(RuntimeError, match="generator raised StopIteration") as caught:
        aws.manager.list_instances()
    assert isinstance(caught.value.__cause__, StopIteration)


@pytest.mark.parametrize(
    ("reboot", "request_"), [(False, "start"), (True, "reboot"), (1, "reboot"), ("", "start")]
)
def test_start_node_sends_one_request_and_logs_its_response_itself(
    aws: Amazon, reboot: Any, request_: str
) -> None:
    """A reboot sends its own request, never a start; the result is None."""
    response: dict[str, Any] = {"StartingInstances": []}
    aws.ec2.answers[f"{request_}_instances"] = response
    assert aws.manager.start_node("i-1", reboot=reboot) is None
    assert aws.log == [
        call("_get_client"),
        call(f"ec2.{request_}_instances", InstanceIds=["i-1"], DryRun=False),
        Logged("debug", response),
    ]
    assert aws.log[2].message is response


def test_start_node_waits_when_asked(aws: Amazon) -> None:
    """By the waiter for the instance's status, between two debug lines; it is the second argument."""
    aws.ec2.answers["get_waiter"] = Fake(aws.log, "waiter")
    assert aws.manager.start_node("i-1", True) is None
    assert aws.log[3:] == [
        WAITING,
        call("ec2.get_waiter", "instance_status_ok"),
        call("waiter.wait", InstanceIds=["i-1"]),
        READY,
    ]


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt, SystemExit, GeneratorExit])
@pytest.mark.parametrize("at", ["get_waiter", "wait"])
def test_a_failed_wait_is_logged_and_swallowed(aws: Amazon, kind: type[BaseException], at: str) -> None:
    """Whatever it is, KeyboardInterrupt too."""
    error = kind("gave up")
    aws.ec2.answers["get_waiter"] = error if at == "get_waiter" else Fake(aws.log, "waiter", wait=error)
    assert aws.manager.start_node("i-1", wait_until_cloud_provider_ready=True) is None
    assert aws.log[3] == WAITING
    assert aws.log[-1] == Logged("error", "AWS wait failed.", error)
    assert handled() is None


def test_a_logger_that_fails_during_the_wait_is_caught_and_inside_the_handler_is_not(aws: Amazon) -> None:
    """The first debug line belongs to the guarded wait; the error line is outside it and chains."""
    first, second = RuntimeError("first"), ValueError("second")
    lines: list[str] = []

    def debug(message: Any) -> None:
        lines.append(message)
        if message == WAITING.message:
            raise first

    aws.manager.logger = Fake(aws.log, "logger", debug=debug, error=second)
    with pytest.raises(ValueError, match="second") as caught:
        aws.manager.start_node("i-1", True)
    assert caught.value.__context__ is first
    assert aws.log[-1] == call("logger.error", "AWS wait failed.", exc_info=True)
    assert lines == [None, WAITING.message]


def test_stop_node_forces_a_stop_without_hibernation(aws: Amazon) -> None:
    """One request, its response logged, None returned."""
    aws.ec2.answers["stop_instances"] = "response"
    assert aws.manager.stop_node("i-1") is None
    assert aws.log == [
        call("_get_client"),
        call("ec2.stop_instances", InstanceIds=["i-1"], Hibernate=False, DryRun=False, Force=True),
        Logged("debug", "response"),
    ]


@pytest.mark.parametrize("arguments", [(), (None,), ("idle",)])
def test_terminate_node_sends_the_same_request_whatever_the_reason(aws: Amazon, arguments: Any) -> None:
    """And reports success."""
    aws.ec2.answers["terminate_instances"] = "response"
    assert aws.manager.terminate_node("i-1", *arguments) == SUCCESS
    assert aws.log == [
        call("_get_client"),
        call("ec2.terminate_instances", InstanceIds=["i-1"], DryRun=False),
        Logged("debug", "response"),
    ]


OPERATIONS: dict[str, Callable[[Any], Any]] = {
    "describe_instances": lambda manager: manager.list_instances(),
    "start_instances": lambda manager: manager.start_node("i", True),
    "reboot_instances": lambda manager: manager.start_node("i", True, True),
    "stop_instances": lambda manager: manager.stop_node("i"),
    "terminate_instances": lambda manager: manager.terminate_node("i"),
}


@pytest.mark.parametrize("error", [refusal("Odd"), TimeoutError(), KeyboardInterrupt()], ids=repr)
@pytest.mark.parametrize("request_", OPERATIONS)
def test_refusals_and_every_other_error_reach_the_caller(
    aws: Amazon, request_: str, error: BaseException
) -> None:
    """Of the request and of the client alike; nothing is logged, nothing else is sent."""
    aws.ec2.answers[request_] = error
    with pytest.raises(type(error)) as caught:
        OPERATIONS[request_](aws.manager)
    assert caught.value is error
    assert aws.log.names == ["_get_client", f"ec2.{request_}"]
    assert aws.log.events == []
    aws.manager._get_client = recording(aws.log, "_get_client", error)
    with pytest.raises(type(error)) as caught:
        OPERATIONS[request_](aws.manager)
    assert caught.value is error
    assert aws.log.names[2:] == ["_get_client"]
