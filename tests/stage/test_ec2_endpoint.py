"""Tests of the emulated EC2 endpoint that demos and flow tests stand on."""

from __future__ import annotations

import socket
from collections.abc import Iterator
from typing import Any

import pytest
from botocore.exceptions import ClientError

from stage.ec2_endpoint import KEY_PAIR_NAME, Ec2Endpoint, ports_text
from stage.settings import environment


@pytest.fixture(scope="module")
def running() -> Iterator[Ec2Endpoint]:
    """An endpoint that the tests of this file share."""
    with environment({}), Ec2Endpoint() as endpoint:
        yield endpoint


@pytest.fixture
def endpoint(running: Ec2Endpoint) -> Ec2Endpoint:
    """A running endpoint with nothing in it."""
    running.reset()
    return running


def launch(endpoint: Ec2Endpoint, **changes: Any) -> str:
    """Launch one instance, with `changes` to what the account allows; returns its id."""
    image_id = endpoint.register_image("TOVARIN_AI_CPU_PLAN_A_1.0.0")
    wanted = {"ImageId": image_id, "InstanceType": "t3.small", "KeyName": KEY_PAIR_NAME}
    response = endpoint.client().run_instances(MinCount=1, MaxCount=1, **{**wanted, **changes})
    return str(response["Instances"][0]["InstanceId"])


def public_images(endpoint: Ec2Endpoint) -> list[str]:
    """Names of the product's images that everybody can see."""
    filters = [{"Name": "name", "Values": ["TOVARIN_AI_*"]}, {"Name": "is-public", "Values": ["true"]}]
    return [image["Name"] for image in endpoint.client().describe_images(Filters=filters)["Images"]]


def test_images_are_registered_public_or_private(endpoint: Ec2Endpoint) -> None:
    """Only public ones show up where public ones are asked for."""
    endpoint.register_image("TOVARIN_AI_CPU_PLAN_A_1.0.0")
    endpoint.register_image("TOVARIN_AI_GPU_PLAN_A_1.0.0", public=False)
    assert public_images(endpoint) == ["TOVARIN_AI_CPU_PLAN_A_1.0.0"]


@pytest.mark.parametrize(
    ("change", "code"),
    [
        pytest.param({"ImageId": "ami-0123456789abcdef0"}, "InvalidAMIID.NotFound", id="image"),
        pytest.param({"KeyName": "no-such-key"}, "InvalidKeyPair.NotFound", id="key pair"),
        pytest.param({"InstanceType": "q9.huge"}, "InvalidInstanceType.NotFound", id="instance type"),
    ],
)
def test_what_ec2_does_not_know_is_refused(endpoint: Ec2Endpoint, change: dict[str, str], code: str) -> None:
    """Unknown images, key pairs and instance types fail as they do on EC2."""
    endpoint.prepare_account([])
    launch(endpoint)
    with pytest.raises(ClientError) as refused:
        launch(endpoint, **change)
    assert refused.value.response["Error"]["Code"] == code


@pytest.mark.parametrize("operation", ["stop_instances", "terminate_instances"])
def test_an_instance_without_a_public_name_has_an_empty_one(endpoint: Ec2Endpoint, operation: str) -> None:
    """A stopped or terminated instance is described with an empty public name, not without one."""
    endpoint.prepare_account([])
    getattr(endpoint.client(), operation)(InstanceIds=[launch(endpoint)])
    (reservation,) = endpoint.client().describe_instances()["Reservations"]
    assert reservation["Instances"][0]["PublicDnsName"] == ""


def test_a_reset_empties_the_account(endpoint: Ec2Endpoint) -> None:
    """Images, key pairs and instances are forgotten."""
    endpoint.prepare_account([])
    launch(endpoint)
    endpoint.reset()
    assert public_images(endpoint) == []
    assert endpoint.client().describe_key_pairs()["KeyPairs"] == []
    assert endpoint.client().describe_instances()["Reservations"] == []


def test_a_security_group_is_read_back_with_its_inbound_rules(endpoint: Ec2Endpoint) -> None:
    """Inbound rules are rows for a table; the outbound rule that every group has is left out."""
    ec2 = endpoint.client()
    vpc_id = ec2.describe_vpcs()["Vpcs"][0]["VpcId"]
    group_id = ec2.create_security_group(GroupName="g", Description="d", VpcId=vpc_id)["GroupId"]
    source = {"CidrIp": "0.0.0.0/0", "Description": "why"}
    ec2.authorize_security_group_ingress(
        GroupId=group_id,
        IpPermissions=[{"FromPort": 80, "ToPort": 81, "IpProtocol": "tcp", "IpRanges": [source]}],
    )
    row = {"ports": "80-81", "protocol": "tcp", "source": "0.0.0.0/0", "description": "why"}
    assert endpoint.security_group("g") == (group_id, [row])


def test_one_port_is_no_range() -> None:
    """A range of one port is written as that port."""
    assert (ports_text(80, 80), ports_text(80, 81)) == ("80", "80-81")


def test_the_port_is_free_again_afterwards() -> None:
    """Leaving the endpoint closes its socket."""
    with environment({}), Ec2Endpoint() as endpoint:
        port = int(endpoint.url.rpartition(":")[2])
        endpoint.client().describe_vpcs()
    with socket.socket() as probe:
        assert probe.connect_ex(("127.0.0.1", port)) != 0
