"""Launching on Amazon: the one request with all its arguments, the start-up script, the node."""

from __future__ import annotations

import base64
import json
from collections.abc import Callable
from types import SimpleNamespace
from typing import Any

import pytest

from tests.fakes import (
    AWS_REGION,
    SMALL,
    Fake,
    Logged,
    call,
    make_config,
    recording,
    refusal,
)
from tests.providers.aws.conftest import LAUNCHED, Amazon, sent
from tovarincore.cloud_def import AWSCloudNode, NodeState
from tovarincore.core_def import OPResult

FAILED = "Exception occurred when tyring to starting Cloud Worker"
SUCCESS = OPResult(success=True)

# What the record of a launched instance is made of, in this order.
OF_THE_NODE: dict[str, Any] = {
    "region": AWS_REGION,
    "instance_id": "i-7",
    "instance_type_def": SMALL,
    "uuid": "u-1",
    "name": "node",
    "dns_address": "ec2.example",
    "state": NodeState.STARTING,
    "key_pair_name": "key",
}


def test_a_launch_makes_one_request_with_these_arguments_in_this_order(launching: Amazon) -> None:
    """Client, security group, request, and a debug line with the response; the node is STARTING."""
    result = launching.manager.launch_node(SMALL, make_config(), username="ada")
    settings = base64.b64encode(json.dumps({"a": [1, "é"]}).encode()).decode()
    assert launching.log == [
        call("_get_client"),
        call("_check_and_get_security_group_id"),
        call(
            "ec2.run_instances",
            BlockDeviceMappings=[{"DeviceName": "/dev/sda1", "Ebs": {"VolumeSize": 50, "VolumeType": "gp3"}}],
            DryRun=False,
            ImageId="ami-1",
            InstanceType="t3.small",
            KeyName="key",
            MaxCount=1,
            MinCount=1,
            UserData=f"#!/bin/bash\n\n\nsh /home/tovarin/.tovarin/prepare_cloud_node.sh {settings}\n\n",
            SecurityGroupIds=["sg-1"],
            IamInstanceProfile={"Name": "profile"},
            SubnetId="",
            TagSpecifications=[
                {
                    "ResourceType": "instance",
                    "Tags": [
                        {"Key": "tovarin_uuid", "Value": "u-1"},
                        {"Key": "Name", "Value": "node"},
                        {"Key": "tovarin_username", "Value": "ada"},
                    ],
                }
            ],
        ),
        Logged("debug", f"Start new Cloud Worker response:\n {LAUNCHED}"),
    ]
    node = AWSCloudNode(**OF_THE_NODE)
    assert result == (node, SUCCESS)
    assert type(result) is tuple
    assert result[0].region is AWS_REGION
    assert launching.manager.get_node_list() == []


def test_the_dictionaries_of_the_request_keep_their_order(launching: Amazon) -> None:
    """Key by key as documented, which a comparison of dictionaries would not show."""
    launching.manager.launch_node(SMALL, make_config(), username="ada")
    assert json.dumps(sent(launching, "TagSpecifications")).startswith(
        '[{"ResourceType": "instance", "Tags": [{"Key": "tovarin_uuid", "Value": "u-1"}, {"Key": '
    )
    assert json.dumps(sent(launching, "BlockDeviceMappings")) == (
        '[{"DeviceName": "/dev/sda1", "Ebs": {"VolumeSize": 50, "VolumeType": "gp3"}}]'
    )


def test_every_argument_can_be_given_by_position_and_those_for_other_providers_are_ignored(
    launching: Amazon,
) -> None:
    """auth, additional_params and startup_script are not used."""
    launching.manager.launch_node(SMALL, make_config(), "auth", "bob", "dry", False, "additional", "startup")
    assert sent(launching, "DryRun") == "dry"
    assert sent(launching, "TagSpecifications")[0]["Tags"][2] == {"Key": "tovarin_username", "Value": "bob"}
    assert "auth" not in str(launching.log)
    assert "additional" not in str(launching.log)
    assert "startup" not in str(launching.log)


def test_the_node_record_is_made_by_keyword_in_this_order(
    launching: Amazon, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A replaced record class of the module takes effect."""
    monkeypatch.setattr(launching.module, "AWSCloudNode", recording(launching.log, "AWSCloudNode", "node"))
    assert launching.manager.launch_node(SMALL, make_config()) == ("node", SUCCESS)
    assert launching.log[-1] == call("AWSCloudNode", **OF_THE_NODE)


@pytest.mark.parametrize("size", [0, None, ""])
def test_no_disk_size_is_an_assertion_after_the_client_is_made(launching: Amazon, size: Any) -> None:
    """Nothing is asked of EC2."""
    with pytest.raises(AssertionError) as caught:
        launching.manager.launch_node(SMALL, make_config(disk_size=size))
    assert caught.value.args == ("No disk size provided",)
    assert launching.log == [call("_get_client")]


def test_no_template_is_an_assertion_without_a_message_before_the_request(launching: Amazon) -> None:
    """The security group has been seen to by then."""
    with pytest.raises(AssertionError) as caught:
        launching.manager.launch_node(SMALL, make_config(instance_template=None))
    assert caught.value.args == ()
    assert launching.log == [call("_get_client"), call("_check_and_get_security_group_id")]


def test_without_assertions_the_request_is_composed_all_the_same(run_optimised: Callable[[str], str]) -> None:
    """A missing disk size is sent as it is; a missing template fails where its id is read."""
    printed = run_optimised("""
from tests.fakes import CallLog, Fake, SMALL, AWS_REGION, make_config, call
from tests.providers.aws.conftest import AUTH
log = CallLog()
manager = cloud_node.AWSNodeManager(AWS_REGION, AUTH, "ada")
manager._get_client = lambda: Fake(log, "ec2", run_instances=KeyError("sent"))
manager._check_and_get_security_group_id = lambda: "sg-1"
for config in make_config(disk_size=0), make_config(instance_template=None):
    try:
        manager.launch_node(SMALL, config)
    except Exception as error:
        print(repr(error))
print(log.names)
""")
    missing = """AttributeError("'NoneType' object has no attribute 'instance_template_id'")"""
    assert printed == f"KeyError('sent')\n{missing}\n['ec2.run_instances']\n"


def test_a_profiler_request_is_written_by_the_script_and_warned_of(launching: Amazon) -> None:
    """The number of seconds in single quotes, into the request file below the node's home."""
    launching.conf.development_settings__profiler_node_second = 30
    launching.manager.launch_node(SMALL, make_config())
    assert launching.log[2] == Logged(
        "warning", "Profiler requested! Node will run profiler for 30 seconds and quit"
    )
    lines = sent(launching, "UserData").split("\n")
    assert lines[:3] == ["#!/bin/bash", "", "echo '30' > /home/tovarin/.tovarin/profile.requested"]
    assert lines[3].startswith("sh /home/tovarin/.tovarin/prepare_cloud_node.sh ")
    assert lines[4:] == ["", ""]


@pytest.mark.parametrize("seconds", [0, -1, 0.0])
def test_no_profiler_is_requested_for_no_time(launching: Amazon, seconds: float) -> None:
    """No warning and an empty line in its place."""
    launching.conf.development_settings__profiler_node_second = seconds
    launching.manager.launch_node(SMALL, make_config())
    assert sent(launching, "UserData").split("\n")[:3] == ["#!/bin/bash", "", ""]
    assert [event.level for event in launching.log.events] == ["debug"]


def test_the_home_folder_is_formatted_as_text(launching: Amazon, monkeypatch: pytest.MonkeyPatch) -> None:
    """A constant that is no text goes through str, in both places; fractions of seconds too."""

    class Home:
        def __str__(self) -> str:
            return "/opt/home"

    monkeypatch.setattr(launching.module, "CoreDef", SimpleNamespace(NODE_HOME_PATH=Home()))
    launching.conf.development_settings__profiler_node_second = 1.5
    launching.manager.launch_node(SMALL, make_config(launch_instance_settings=None))
    settings = base64.b64encode(b"null").decode()
    assert sent(launching, "UserData") == (
        "#!/bin/bash\n\necho '1.5' > /opt/home/.tovarin/profile.requested\n"
        f"sh /opt/home/.tovarin/prepare_cloud_node.sh {settings}\n\n"
    )


def test_long_settings_stay_on_one_line(launching: Amazon) -> None:
    """The base64 text has padding and no line breaks."""
    settings = {"key": "ü" * 300, "other": [None, True, 1.5]}
    launching.manager.launch_node(SMALL, make_config(launch_instance_settings=settings))
    argument = sent(launching, "UserData").split("\n")[3].rpartition(" ")[2]
    assert json.loads(base64.b64decode(argument, validate=True)) == settings


def test_settings_that_json_cannot_hold_are_its_own_error(launching: Amazon) -> None:
    """After the security group, before the request."""
    with pytest.raises(TypeError, match="not JSON serializable"):
        launching.manager.launch_node(SMALL, make_config(launch_instance_settings={1, 2}))
    assert launching.log.names == ["_get_client", "_check_and_get_security_group_id"]


@pytest.mark.parametrize(
    ("subnet", "passed"),
    [
        ("subnet-12", ""),
        ("subnet-123", "subnet-123"),
        ("", ""),
        (None, ""),
        ("subnet-0123456789", "subnet-0123456789"),
    ],
)
def test_a_subnet_shorter_than_ten_characters_counts_as_unset(
    launching: Amazon, subnet: Any, passed: str
) -> None:
    """Nine are too few, ten are sent; unset is still sent, as an empty text."""
    launching.conf.network__aws_custom_subnet = subnet
    launching.manager.launch_node(SMALL, make_config())
    assert sent(launching, "SubnetId") == passed


@pytest.mark.parametrize(
    ("public", "address"),
    [("", "ip-10"), ("abcd", "ip-10"), ("abcde", "abcde"), (None, "ip-10"), (12345, "12345")],
)
def test_an_address_shorter_than_five_characters_gives_way_to_the_private_one(
    launching: Amazon, public: Any, address: str
) -> None:
    """Both go through str first; None becomes a text of four characters."""
    instance = {"InstanceId": 7, "PublicDnsName": public, "PrivateDnsName": "ip-10"}
    launching.ec2.answers["run_instances"] = {"Instances": [instance, {}]}
    node, _ = launching.manager.launch_node(SMALL, make_config())
    assert (node.instance_id, node.dns_address) == ("7", address)


def test_a_long_public_address_makes_the_private_one_dispensable(launching: Amazon) -> None:
    """It is read only when it is needed, and its absence is then a KeyError."""
    instance = {"InstanceId": "i", "PublicDnsName": "ec2.example"}
    launching.ec2.answers["run_instances"] = {"Instances": [instance]}
    assert launching.manager.launch_node(SMALL, make_config())[1] == SUCCESS
    instance["PublicDnsName"] = ""
    with pytest.raises(KeyError, match="PrivateDnsName"):
        launching.manager.launch_node(SMALL, make_config())


@pytest.mark.parametrize(("name", "recorded"), [(None, "?"), ("", ""), ("n", "n")])
def test_a_missing_name_is_a_question_mark_on_the_record_alone(
    launching: Amazon, name: Any, recorded: str
) -> None:
    """The tag carries the raw value; an empty name is kept."""
    node, _ = launching.manager.launch_node(SMALL, make_config(name=name))
    assert node.name == recorded
    assert sent(launching, "TagSpecifications")[0]["Tags"][1] == {"Key": "Name", "Value": name}


@pytest.mark.parametrize(
    ("response", "error"),
    [
        ({}, KeyError),
        ({"Instances": []}, IndexError),
        ({"Instances": [{}]}, KeyError),
        ({"Instances": [{"InstanceId": "i"}]}, KeyError),
        (None, TypeError),
    ],
    ids=repr,
)
def test_an_unexpected_response_is_the_lookups_own_error(
    launching: Amazon, response: Any, error: type[Exception]
) -> None:
    """It has been logged by then."""
    launching.ec2.answers["run_instances"] = response
    with pytest.raises(error):
        launching.manager.launch_node(SMALL, make_config())
    assert launching.log.events == [Logged("debug", f"Start new Cloud Worker response:\n {response}")]


def test_waiting_asks_for_the_status_waiter_between_two_debug_lines(launching: Amazon) -> None:
    """With the SDK's own interval and limit; the node stays STARTING."""
    launching.ec2.answers["get_waiter"] = Fake(launching.log, "waiter")
    node, result = launching.manager.launch_node(SMALL, make_config(), wait_until_cloud_provider_ready=1)
    assert launching.log[-4:] == [
        Logged("debug", "Waiting until AWS states Cloud Worker is ready"),
        call("ec2.get_waiter", "instance_status_ok"),
        call("waiter.wait", InstanceIds=["i-7"]),
        Logged("debug", "AWS stated Cloud Worker is ready"),
    ]
    assert (node.state, result) == (NodeState.STARTING, SUCCESS)


def test_a_waiter_that_gives_up_is_raised_and_one_that_is_refused_is_reported(launching: Amazon) -> None:
    """The instance exists either way, and is not cleaned up."""
    error = RuntimeError("gave up")
    launching.ec2.answers["get_waiter"] = waiter = Fake(launching.log, "waiter", wait=error)
    with pytest.raises(RuntimeError) as caught:
        launching.manager.launch_node(SMALL, make_config(), wait_until_cloud_provider_ready=True)
    assert caught.value is error
    waiter.answers["wait"] = refused = refusal("Throttled", "slow down")
    result = launching.manager.launch_node(SMALL, make_config(), wait_until_cloud_provider_ready=True)
    assert result == (None, OPResult(error=True, msg="slow down"))
    assert launching.log[-1] == Logged("error", FAILED, refused)
