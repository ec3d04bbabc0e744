"""What the doctor sees in an Amazon region."""

from __future__ import annotations

import time
from collections.abc import Iterator
from email.utils import formatdate
from types import SimpleNamespace

import pytest

from stage.ec2 import SECURITY_GROUP_NAME, Ec2World
from stage.fault import document, unauthorized
from tovarincore.command.doctor import amazon
from tovarincore.command.doctor.amazon import check_amazon
from tovarincore.command.doctor.security_group import check_security_group
from tovarincore.command.doctor.verdicts import Level, Verdict


def found(ec2: Ec2World, subject: str) -> list[Verdict]:
    """The verdicts on one subject."""
    return [verdict for verdict in check_amazon(ec2.region) if verdict.subject == f"AWS:us-east-1 {subject}"]


@pytest.mark.usefixtures("older_sdk")
def test_a_type_that_the_list_lacks_comes_with_the_line_to_add(ec2: Ec2World) -> None:
    """The line has the type's own figures, as EC2 describes them."""
    ec2.run_instance("cold-1", InstanceType="mac1.metal")
    (verdict,) = found(ec2, "instances")
    assert verdict.level is Level.FAIL
    assert "mac1.metal" in verdict.text
    assert verdict.remedy.endswith(': "mac1.metal" = { cpu_count = 12, memory_mib = 32768 }')


@pytest.mark.usefixtures("older_sdk")
def test_without_the_right_to_describe_types_the_figures_are_left_to_fill_in(ec2: Ec2World) -> None:
    """The line still names the type."""
    ec2.run_instance("cold-1", InstanceType="mac1.metal")
    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstanceTypes", unauthorized())
        (verdict,) = found(ec2, "instances")
    assert verdict.remedy.endswith(': "mac1.metal" = { cpu_count = 1, memory_mib = 1024 }')


def test_a_listing_that_goes_on_says_how_many_nodes_are_missing(ec2: Ec2World) -> None:
    """Listings read the first page alone: what stands on the others is counted."""
    ec2.run_instance("cold-1")
    assert [verdict.level for verdict in found(ec2, "instances")] == [Level.OK]
    page = (
        "<reservationSet><item><instancesSet><item><instanceId>i-1</instanceId>"
        "<instanceType>t3.small</instanceType></item></instancesSet></item></reservationSet>"
    )
    with ec2.faults() as endpoint:
        endpoint.script(
            "DescribeInstances",
            document("DescribeInstances", page + "<nextToken>more</nextToken>"),
            document("DescribeInstances", page),
        )
        (verdict,) = found(ec2, "instances")
        assert [
            request.parameters.get("NextToken")
            for request in endpoint.requests
            if request.action == "DescribeInstances"
        ] == [None, "more"]
    assert verdict.level is Level.FAIL
    assert "there are 2 instances, and only the first page of 1 is listed: 1 are missing" in verdict.text


def test_the_group_and_its_rules_are_looked_at_and_not_made(ec2: Ec2World) -> None:
    """No group, a group without rules, a whole group and two groups are told apart."""
    ec2.set_setting("WORKER__SCHEME", "wss")

    def look() -> list[Verdict]:
        return list(check_security_group(ec2.raw))

    (missing,) = look()
    assert (missing.level, ec2.security_groups()) == (Level.WARN, [])
    (vpc,) = ec2.raw.describe_vpcs()["Vpcs"]
    named = {"GroupName": SECURITY_GROUP_NAME, "Description": "d"}
    group = ec2.raw.create_security_group(**named, VpcId=vpc["VpcId"])["GroupId"]
    (bare,) = look()
    assert (bare.level, "lacks the rules 8855-8855/tcp" in bare.text) == (Level.WARN, True)
    ec2.raw.authorize_security_group_ingress(
        GroupId=group, IpProtocol="tcp", FromPort=8855, ToPort=8855, CidrIp="0.0.0.0/0"
    )
    (whole,) = look()
    assert (whole.level, whole.text) == (Level.OK, f"{group} has all rules")
    other, _ = ec2.make_network()
    ec2.raw.create_security_group(**named, VpcId=other)
    assert "2 networks have a group" in look()[0].text


@pytest.mark.parametrize(
    "addresses, scheme, warned",
    [("0.0.0.0/0", "ws", True), ("198.51.100.0/24", "ws", False), ("0.0.0.0/0", "wss", False)],
    ids=["open and plain", "narrow and plain", "open and encrypted"],
)
def test_an_open_port_where_workers_speak_plainly_is_warned_of(
    ec2: Ec2World, addresses: str, scheme: str, warned: bool
) -> None:
    """Each alone is what somebody may want; both together let strangers read and change what is said."""
    ec2.set_setting("WORKER__SCHEME", scheme)
    (vpc,) = ec2.raw.describe_vpcs()["Vpcs"]
    group = ec2.raw.create_security_group(GroupName=SECURITY_GROUP_NAME, Description="d", VpcId=vpc["VpcId"])[
        "GroupId"
    ]
    ec2.raw.authorize_security_group_ingress(
        GroupId=group, IpProtocol="tcp", FromPort=8855, ToPort=8855, CidrIp=addresses
    )
    texts = [verdict.text for verdict in check_security_group(ec2.raw)]
    assert any("workers speak plain ws" in text for text in texts) == warned


def test_images_of_strangers_are_named_until_owners_are_pinned(ec2: Ec2World) -> None:
    """Anybody can publish an image of the product's names; the settings say whose are used."""
    image = (
        f"<item><imageId>{ec2.image_id}</imageId><name>TOVARIN_AI_CPU_PLAN_A_1.0.0</name>"
        "<creationDate>2024-01-01T00:00:00.000Z</creationDate><imageOwnerId>999988887777</imageOwnerId></item>"
    )
    every = document("DescribeImages", f"<imagesSet>{image}</imagesSet>")
    nobody = document("DescribeImages", "<imagesSet/>")
    with ec2.faults() as endpoint:
        endpoint.script("DescribeImages", every, nobody, every)
        fine, stranger = found(ec2, "images")
    assert (fine.level, stranger.level) == (Level.OK, Level.WARN)
    assert "accounts that are not named in the settings: 999988887777" in stranger.text
    assert stranger.remedy.endswith("tovarin-nodes config set cloud.image_owners 999988887777")
    ec2.set_setting("CLOUD__IMAGE_OWNERS", "999988887777")
    with ec2.faults() as endpoint:
        endpoint.script("DescribeImages", every, every)
        (pinned,) = found(ec2, "images")
    assert pinned.level is Level.OK


def test_settings_of_the_network_are_checked_against_the_account(ec2: Ec2World) -> None:
    """Half a setting, a short id and a subnet of another network are told apart from a right pair."""
    default = ec2.raw.describe_vpcs(Filters=[{"Name": "isDefault", "Values": ["true"]}])["Vpcs"]
    vpc, subnet = ec2.make_network()

    def look(vpc: str, subnet: str) -> list[tuple[Level, str]]:
        ec2.set_setting("NETWORK__AWS_CUSTOM_VPC", vpc)
        ec2.set_setting("NETWORK__AWS_CUSTOM_SUBNET", subnet)
        return [(verdict.level, verdict.text) for verdict in amazon._network(ec2.raw, default)]

    assert look("", "") == [(Level.OK, f"default network {default[0]['VpcId']}")]
    assert "is ignored without aws_custom_subnet" in look(vpc, "")[0][1]
    assert look(vpc, subnet) == [(Level.OK, f"network {vpc}, subnet {subnet}")]
    assert f"is in {vpc}" in look("vpc-0000000000000000", subnet)[0][1]
    assert "is not in the default network" in look("", subnet)[0][1]
    assert "counts as unset" in look("", "subnet-1")[0][1]
    default.clear()
    assert look("", "")[0][0] is Level.FAIL


def test_what_a_launch_names_is_looked_for(ec2: Ec2World) -> None:
    """A missing key pair and missing images are told before a launch fails."""
    ec2.raw.delete_key_pair(KeyName="tovarin-key")
    ec2.raw.deregister_image(ImageId=ec2.image_id)
    assert found(ec2, "key pair")[0].level is Level.WARN
    assert found(ec2, "images")[0].level is Level.WARN


def test_a_refused_right_fails_its_own_line_only(ec2: Ec2World) -> None:
    """Other lines are looked at anyway."""
    with ec2.faults() as endpoint:
        endpoint.script("DescribeKeyPairs", unauthorized())
        levels = {verdict.subject.partition(" ")[2]: verdict.level for verdict in check_amazon(ec2.region)}
    assert (levels["key pair"], levels["images"]) == (Level.FAIL, Level.OK)


def test_without_credentials_ec2_is_not_asked(ec2: Ec2World) -> None:
    """Refused credentials are one failure; the account is not looked at."""
    with ec2.faults() as endpoint:
        endpoint.script("DescribeVpcs", unauthorized())
        verdicts = list(check_amazon(ec2.region))
    assert [verdict.level for verdict in verdicts[-2:]] == [Level.FAIL, Level.SKIPPED]


@pytest.mark.parametrize(
    "seconds, level",
    [(0, Level.OK), (100, Level.WARN), (-100, Level.WARN), (400, Level.FAIL), (-400, Level.FAIL)],
)
def test_the_clock_is_compared_with_ec2_s(
    seconds: int, level: Level, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A minute away is a warning, five minutes away EC2 refuses."""
    response = {"ResponseMetadata": {"HTTPHeaders": {"date": formatdate(time.time() - seconds, usegmt=True)}}}
    verdicts: Iterator[Verdict] = amazon._clock(response)
    assert next(verdicts).level is level


def test_an_answer_without_a_date_says_nothing_about_the_clock() -> None:
    """A proxy may have taken the header away."""
    assert next(amazon._clock({"ResponseMetadata": {"HTTPHeaders": {}}})).level is Level.SKIPPED


def test_graphics_processors_stand_in_the_line_to_add() -> None:
    """A type with GPUs is added with their number and model."""
    described = {
        "InstanceType": "g9.big",
        "VCpuInfo": {"DefaultVCpus": 4},
        "MemoryInfo": {"SizeInMiB": 16384},
        "GpuInfo": {"Gpus": [{"Count": 2, "Manufacturer": "Maker", "Name": "X1"}]},
    }
    client = SimpleNamespace(describe_instance_types=lambda InstanceTypes: {"InstanceTypes": [described]})
    assert amazon._lines_to_add(client, ["g9.big"]) == {
        "g9.big": '"g9.big" = { cpu_count = 4, memory_mib = 16384, gpu_count = 2, gpu_model = "Maker X1" }'
    }
