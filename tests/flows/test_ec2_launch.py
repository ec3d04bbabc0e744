"""Launches through the facade on an emulated EC2."""

from __future__ import annotations

import base64
import json
import logging
import threading
from typing import Any

import pytest
from botocore.exceptions import ParamValidationError

from stage.ec2 import USER_NAME, Ec2World, one_record
from stage.ec2_endpoint import INSTANCE_PROFILE_NAME, KEY_PAIR_NAME
from stage.patience import SETUP_SECONDS
from tovarincore import cloud_node
from tovarincore.cloud_def import InstanceTemplate, NodeState, SecurityGroupRules
from tovarincore.core_def import OPResultErrorCode


def user_data(world: Ec2World, instance_id: str) -> str:
    """The start-up script that EC2 holds for an instance."""
    attribute = world.raw.describe_instance_attribute(InstanceId=instance_id, Attribute="userData")
    return base64.b64decode(attribute["UserData"]["Value"]).decode("utf-8")


def inbound_rules(world: Ec2World) -> list[tuple[int, int, str, str, str]]:
    """Ports, protocol, source and description of the product's inbound rules, sorted."""
    (group,) = world.security_groups()
    return sorted(
        (rule["FromPort"], rule["ToPort"], rule["IpProtocol"], source["CidrIp"], source["Description"])
        for rule in group["IpPermissions"]
        for source in rule["IpRanges"]
    )


def wanted_rules() -> list[tuple[int, int, str, str, str]]:
    """What the product's group must hold, sorted."""
    return sorted(
        (rule.from_port, rule.to_port, rule.ip_protocol, "0.0.0.0/0", rule.description)
        for rule in SecurityGroupRules.inbound_list
    )


def test_a_launch_returns_the_node_that_ec2_started(ec2: Ec2World) -> None:
    """The returned record names EC2's instance, its address and the configuration it was launched from."""
    config = ec2.config("cold-1")
    node = ec2.launched(config)
    (instance,) = ec2.instances()
    assert node.region is ec2.region
    assert node.instance_id == instance["InstanceId"]
    assert node.uuid == config.uuid
    assert node.name == "cold-1"
    assert node.instance_type_def is ec2.type_def
    assert node.state is NodeState.STARTING
    assert node.key_pair_name == KEY_PAIR_NAME
    assert node.dns_address in (instance["PublicDnsName"], instance["PrivateDnsName"])
    assert not node.ready


def test_ec2_holds_what_the_launch_asked_for(ec2: Ec2World) -> None:
    """Image, type, key pair, profile, disk, security group and the three tags reach EC2."""
    config = ec2.config("cold-1", disk_size=37)
    ec2.launch(config)
    (instance,) = ec2.instances()
    (group,) = ec2.security_groups()
    assert instance["ImageId"] == ec2.image_id
    assert instance["InstanceType"] == ec2.type_def.instance_type
    assert instance["KeyName"] == KEY_PAIR_NAME
    assert instance["IamInstanceProfile"]["Arn"].endswith("/" + INSTANCE_PROFILE_NAME)
    assert [held["GroupId"] for held in instance["SecurityGroups"]] == [group["GroupId"]]
    assert {tag["Key"]: tag["Value"] for tag in instance["Tags"]} == {
        "tovarin_uuid": config.uuid,
        "Name": "cold-1",
        "tovarin_username": USER_NAME,
    }
    (disk,) = instance["BlockDeviceMappings"]
    (volume,) = ec2.raw.describe_volumes(VolumeIds=[disk["Ebs"]["VolumeId"]])["Volumes"]
    assert (disk["DeviceName"], volume["Size"], volume["VolumeType"]) == ("/dev/sda1", 37, "gp3")


def test_the_start_up_script_carries_the_launch_settings(ec2: Ec2World) -> None:
    """The script runs the preparation script with the settings as base64 JSON, and asks for no profiler."""
    settings = {"idle_minutes": 30, "greeting": "grüß dich; $(reboot) 'x'"}
    node = ec2.launched(ec2.config(launch_instance_settings=settings))
    lines = user_data(ec2, node.instance_id).split("\n")
    assert lines[:3] == ["#!/bin/bash", "", ""]
    command, script, argument = lines[3].split(" ")
    assert (command, script) == ("sh", "/home/tovarin/.tovarin/prepare_cloud_node.sh")
    assert json.loads(base64.b64decode(argument)) == settings
    assert lines[4:] == ["", ""]


def test_a_profiler_request_is_written_by_the_start_up_script(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture
) -> None:
    """A positive number of seconds in the settings leaves a request file on the node and a warning."""
    ec2.set_setting("DEVELOPMENT_SETTINGS__PROFILER_NODE_SECOND", "30")
    with caplog.at_level(logging.WARNING, logger="tovarincore"):
        node = ec2.launched()
    request = user_data(ec2, node.instance_id).split("\n")[2]
    assert request == "echo '30' > /home/tovarin/.tovarin/profile.requested"
    warning = one_record(caplog.records, logging.WARNING)
    assert warning.getMessage() == "Profiler requested! Node will run profiler for 30 seconds and quit"


def test_the_first_launch_makes_the_security_group(ec2: Ec2World) -> None:
    """Without the product's group the launch makes it in the default network, with all rules."""
    assert ec2.security_groups() == []
    ec2.launch()
    (group,) = ec2.security_groups()
    default = ec2.raw.describe_vpcs(Filters=[{"Name": "isDefault", "Values": ["true"]}])["Vpcs"][0]
    assert group["VpcId"] == default["VpcId"]
    assert group["Description"] == "Tovarin AI security group"
    assert inbound_rules(ec2) == wanted_rules()


def test_the_second_launch_uses_the_same_security_group(ec2: Ec2World) -> None:
    """A group that is whole is used as it is: no second group, no rule twice."""
    ec2.launch(ec2.config("cold-1"))
    (before,) = ec2.security_groups()
    ec2.launch(ec2.config("cold-2"))
    assert ec2.security_groups() == [before]
    assert len(ec2.instances()) == 2


def test_a_lost_rule_comes_back_with_the_next_launch(ec2: Ec2World) -> None:
    """A rule that somebody revoked is added again, and only that one."""
    ec2.launch()
    (group,) = ec2.security_groups()
    ec2.raw.revoke_security_group_ingress(GroupId=group["GroupId"], IpPermissions=group["IpPermissions"][:1])
    assert inbound_rules(ec2) != wanted_rules()
    _, result = ec2.launch()
    assert result.success
    assert inbound_rules(ec2) == wanted_rules()


def test_a_dry_run_launches_nothing(ec2: Ec2World) -> None:
    """EC2's answer that the launch would succeed comes back as success; the security group is prepared."""
    result = ec2.manager.try_launching_node(ec2.region, ec2.auth, ec2.type_def, ec2.config())
    assert result.success
    assert result.error_code is None
    assert ec2.instances() == []
    assert len(ec2.security_groups()) == 1


def test_the_providers_own_dry_run_reports_its_code(ec2: Ec2World, caplog: pytest.LogCaptureFixture) -> None:
    """Below the facade a dry run that EC2 accepts is an error result with its own code, and is not logged."""
    provider = ec2.manager.get_node_manager(ec2.region)
    with caplog.at_level(logging.WARNING):
        node, result = provider.launch_node(ec2.type_def, ec2.config(), username=USER_NAME, dry_run=True)
    assert node is None
    assert (result.error, result.error_code) == (True, OPResultErrorCode.DRY_RUN_OPERATION)
    assert [record for record in caplog.records if record.name == "tovarincore"] == []


def test_a_launch_can_wait_until_ec2_calls_the_node_ready(ec2: Ec2World) -> None:
    """After the wait the node is still handed back as starting: listings report the real state."""
    node = ec2.launched(wait_until_cloud_provider_ready=True)
    assert node.state is NodeState.STARTING


@pytest.mark.parametrize(
    ("change", "code", "text"),
    [
        pytest.param(
            {"key_pair_name": "no-such-key"}, "InvalidKeyPair.NotFound", "no-such-key", id="key pair"
        ),
        pytest.param(
            {"instance_profile_name": "no-such-profile"}, "NoSuchEntity", "no-such-profile", id="profile"
        ),
    ],
)
def test_a_launch_that_ec2_refuses_says_why(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture, change: dict[str, Any], code: str, text: str
) -> None:
    """EC2's message comes back in an error result; one error line with traceback is logged; nothing runs."""
    with caplog.at_level(logging.ERROR, logger="tovarincore"):
        node, result = ec2.launch(ec2.config(**change))
    assert node is None
    assert result.error
    assert not result.success
    assert result.msg is not None
    assert text in result.msg
    assert result.error_code is None
    record = one_record(caplog.records, logging.ERROR)
    assert record.getMessage() == "Exception occurred when tyring to starting Cloud Worker"
    assert record.exc_info is not None
    assert code in str(record.exc_info[1])
    assert ec2.instances() == []


def test_an_unknown_image_is_refused_with_ec2s_message(ec2: Ec2World) -> None:
    """A template whose image is gone from EC2 cannot be launched."""
    template = ec2.template()
    template.instance_template_id = "ami-0123456789abcdef0"
    node, result = ec2.launch(ec2.config(instance_template=template))
    assert node is None
    assert result.msg is not None
    assert "ami-0123456789abcdef0" in result.msg


def test_an_unknown_instance_type_is_refused_with_ec2s_message(ec2: Ec2World) -> None:
    """An instance type that the region does not offer cannot be launched."""
    ec2.type_def = type(ec2.type_def)(instance_type="q9.huge", cpu_count=1, memory_mib=1024)
    node, result = ec2.launch()
    assert node is None
    assert result.msg is not None
    assert "q9.huge" in result.msg


def test_a_custom_network_is_used_when_vpc_and_subnet_are_set(ec2: Ec2World) -> None:
    """Instance and security group go into the chosen network."""
    vpc_id, subnet_id = ec2.make_network()
    ec2.set_setting("NETWORK__AWS_CUSTOM_VPC", vpc_id)
    ec2.set_setting("NETWORK__AWS_CUSTOM_SUBNET", subnet_id)
    _, result = ec2.launch()
    (instance,) = ec2.instances()
    (group,) = ec2.security_groups()
    assert result.success
    assert (instance["VpcId"], instance["SubnetId"], group["VpcId"]) == (vpc_id, subnet_id, vpc_id)


def test_a_group_in_another_network_is_not_taken_for_the_custom_one(ec2: Ec2World) -> None:
    """With a custom network the lookup is bound to it: the default network's group does not serve."""
    ec2.launch()
    vpc_id, subnet_id = ec2.make_network()
    ec2.set_setting("NETWORK__AWS_CUSTOM_VPC", vpc_id)
    ec2.set_setting("NETWORK__AWS_CUSTOM_SUBNET", subnet_id)
    ec2.launch()
    groups = ec2.security_groups()
    assert len(groups) == 2
    assert [group["VpcId"] for group in groups].count(vpc_id) == 1


def test_a_custom_vpc_without_a_subnet_is_ignored(ec2: Ec2World) -> None:
    """The launch goes into the default network."""
    vpc_id, _ = ec2.make_network()
    ec2.set_setting("NETWORK__AWS_CUSTOM_VPC", vpc_id)
    _, result = ec2.launch()
    (instance,) = ec2.instances()
    (group,) = ec2.security_groups()
    assert result.success
    assert vpc_id not in (instance["VpcId"], group["VpcId"])


def test_an_account_without_a_default_network_cannot_launch(ec2: Ec2World) -> None:
    """Without a default VPC and without a custom one the launch fails with the lookup's error."""
    (vpc,) = ec2.raw.describe_vpcs(Filters=[{"Name": "isDefault", "Values": ["true"]}])["Vpcs"]
    subnets = ec2.raw.describe_subnets(Filters=[{"Name": "vpc-id", "Values": [vpc["VpcId"]]}])["Subnets"]
    for subnet in subnets:
        ec2.raw.delete_subnet(SubnetId=subnet["SubnetId"])
    ec2.raw.delete_vpc(VpcId=vpc["VpcId"])
    with pytest.raises(IndexError):
        ec2.launch()
    assert ec2.security_groups() == []
    assert ec2.instances() == []


@pytest.mark.parametrize(
    ("name", "user_name"),
    [pytest.param(None, USER_NAME, id="node name"), pytest.param("cold-1", None, id="user name")],
)
def test_a_missing_text_in_a_tag_is_refused_before_it_is_sent(
    ec2: Ec2World, name: str | None, user_name: str | None
) -> None:
    """The SDK refuses a tag without a value with its own error, which reaches the caller."""
    with pytest.raises(ParamValidationError, match="Value"):
        ec2.launch(ec2.config(name), username=user_name)
    assert ec2.instances() == []


def test_a_launch_without_a_disk_size_touches_nothing(ec2: Ec2World) -> None:
    """The missing disk size is found before the security group is made."""
    with pytest.raises(AssertionError, match="No disk size provided"):
        ec2.launch(ec2.config(disk_size=0))
    assert ec2.security_groups() == []


def test_a_launch_without_a_template_starts_nothing(ec2: Ec2World) -> None:
    """The missing template stops the launch after the security group and before the request."""
    with pytest.raises(AssertionError):
        ec2.launch(ec2.config(instance_template=None))
    assert ec2.instances() == []


def test_a_launched_node_enters_the_registry_by_set_node(ec2: Ec2World) -> None:
    """The launch itself leaves the registry alone; the caller can store the node at once."""
    node = ec2.launched()
    assert ec2.manager.get_node_list(ec2.region) == []
    ec2.manager.set_node(node)
    found = ec2.manager.find_node_by_uuid(ec2.region, node.uuid)
    assert found is not None
    assert found is not node
    assert found.instance_id == node.instance_id


def test_an_unknown_region_has_no_credentials(ec2: Ec2World) -> None:
    """A region without stored credentials is refused, although the caller passes some to the launch."""
    ec2.region = type(ec2.region)(name="eu-west-1", cloud="AWS")
    with pytest.raises(AssertionError):
        ec2.launch()


class PatientLock:
    """A lock that waits as long as it takes: on a busy machine, clients take more than its three seconds."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self.release = self._lock.release

    def acquire(self, timeout: float) -> bool:
        return self._lock.acquire()


def test_threads_can_launch_at_the_same_time(ec2: Ec2World, monkeypatch: pytest.MonkeyPatch) -> None:
    """Four launches side by side give four instances and share the security group that is there."""
    monkeypatch.setattr(cloud_node, "aws_node_manager_client_lock", PatientLock())
    ec2.launch(ec2.config("cold-0"))
    barrier = threading.Barrier(4)
    successes: list[str] = []

    def launch(name: str) -> None:
        barrier.wait(SETUP_SECONDS)
        successes.append(ec2.launched(ec2.config(name)).instance_id)

    threads = [threading.Thread(target=launch, args=(f"cold-{number}",)) for number in range(1, 5)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(SETUP_SECONDS)
    assert len(set(successes)) == 4
    assert len(ec2.instances()) == 5
    assert len(ec2.security_groups()) == 1


def test_the_default_template_can_be_launched(ec2: Ec2World) -> None:
    """What the catalogue hands out is what a launch takes."""
    template: InstanceTemplate = ec2.template()
    _, result = ec2.launch(ec2.config(instance_template=template))
    assert result.success
    assert [instance["ImageId"] for instance in ec2.instances()] == [template.instance_template_id]
