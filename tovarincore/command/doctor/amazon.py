"""What ``doctor`` looks at in an Amazon region, by describing things only."""

import json
from collections.abc import Callable, Iterator
from datetime import datetime, timezone
from email.utils import parsedate_to_datetime
from typing import Any

from tovarincore.cloud_def import AWSCloudAuth, CloudInstances, CloudRegion
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.ec2_client import open_client
from tovarincore.command.context.sdk import TAG_USER_NAME
from tovarincore.command.doctor.images import check_images
from tovarincore.command.doctor.sdk_settings import check_sdk_settings
from tovarincore.command.doctor.security_group import check_security_group
from tovarincore.command.doctor.verdicts import Verdict, failed, ok, skipped, warn
from tovarincore.command.errors.advice import command_for
from tovarincore.command.nodes.types import describe_types
from tovarincore.core_conf import core_conf_glbl

__all__ = ["check_amazon"]

_CLOCK_WARN_SECONDS = 60
# EC2 refuses requests whose signature is older or newer than this.
_CLOCK_FAIL_SECONDS = 300
_SHORTEST_SUBNET = 10


def check_amazon(region: CloudRegion) -> Iterator[Verdict]:
    """Look at everything in a region that launches and listings rely on."""
    key = region.key
    try:
        access = open_region(region)
        assert isinstance(access.auth, AWSCloudAuth)
        yield from check_sdk_settings(key, access.auth)
        client = open_client(access)
        # Every identity that may launch may describe networks: what fails here fails everywhere.
        response = client.describe_vpcs(Filters=[{"Name": "isDefault", "Values": ["true"]}])
    except Exception as error:
        yield failed(f"{key} credentials", error, region=region)
        yield skipped(f"{key} account", "not looked at, since EC2 cannot be asked")
        return
    yield ok(f"{key} credentials", f"EC2 accepts them; user name {access.user_name}")
    checks: tuple[tuple[str, Callable[[], Iterator[Verdict]]], ...] = (
        ("clock", lambda: _clock(response)),
        ("network", lambda: _network(client, response["Vpcs"])),
        ("security group", lambda: check_security_group(client)),
        ("images", lambda: check_images(client, access)),
        ("key pair", lambda: _key_pair(client, region)),
        ("instances", lambda: _instances(client, access)),
    )
    for name, check in checks:
        subject = f"{key} {name}"
        try:
            for verdict in check():
                yield Verdict(subject, verdict.level, verdict.text, verdict.remedy)
        except Exception as error:
            yield failed(subject, error, region=region)


def _clock(response: Any) -> Iterator[Verdict]:
    date = response["ResponseMetadata"]["HTTPHeaders"].get("date")
    if not date:
        yield skipped("", "EC2's answer has no date")
        return
    away = (datetime.now(timezone.utc) - parsedate_to_datetime(date)).total_seconds()
    text = f"{abs(away):.0f} seconds {'ahead of' if away > 0 else 'behind'} EC2's"
    remedy = "set this machine's clock, for example by NTP"
    if abs(away) >= _CLOCK_FAIL_SECONDS:
        yield failed("", f"the clock is {text}: EC2 refuses its signatures", remedy)
    elif abs(away) >= _CLOCK_WARN_SECONDS:
        yield warn("", f"the clock is {text}", remedy)
    else:
        yield ok("", "agrees with EC2's")


def _network(client: Any, default_vpcs: Any) -> Iterator[Verdict]:
    vpc, subnet = core_conf_glbl.network__aws_custom_vpc, core_conf_glbl.network__aws_custom_subnet
    if subnet and len(subnet) < _SHORTEST_SUBNET:
        yield warn(
            "",
            "[network] aws_custom_subnet has fewer than ten characters and counts as unset in launches",
            "give the whole id, like subnet-0123456789abcdef0",
        )
    elif subnet:
        found = client.describe_subnets(SubnetIds=[subnet])["Subnets"][0]
        if vpc and found["VpcId"] != vpc:
            yield failed(
                "",
                f"[network] the subnet {subnet} is in {found['VpcId']}, not in {vpc}",
                "let aws_custom_vpc name the subnet's network",
            )
            return
        if not vpc and found["VpcId"] not in [known["VpcId"] for known in default_vpcs]:
            yield failed(
                "",
                f"[network] the subnet {subnet} is not in the default network, where the security group goes",
                f'set [network] aws_custom_vpc = "{found["VpcId"]}" too',
            )
            return
    if vpc and not subnet:
        yield warn(
            "",
            "[network] aws_custom_vpc is ignored without aws_custom_subnet",
            "set both, or neither",
        )
    if vpc and subnet:
        yield ok("", f"network {vpc}, subnet {subnet}")
    elif default_vpcs:
        yield ok("", f"default network {default_vpcs[0]['VpcId']}")
    else:
        yield failed(
            "",
            "the account has no default network (VPC) in this region",
            "create one (aws ec2 create-default-vpc), or set [network] aws_custom_vpc and aws_custom_subnet",
        )


def _key_pair(client: Any, region: CloudRegion) -> Iterator[Verdict]:
    name = "tovarin-key"
    names = [pair["KeyName"] for pair in client.describe_key_pairs()["KeyPairs"]]
    if name in names:
        yield ok("", name)
    else:
        yield warn(
            "",
            f"there is no {name}, which launches name unless told otherwise",
            f"{command_for(region, 'keypair create', name)}, or launch with --key-pair",
        )


def _instances(client: Any, access: Access) -> Iterator[Verdict]:
    pages = list(_pages(client, access))
    instances = [instance for page in pages for instance in page]
    known = {type_def.instance_type for type_def in CloudInstances.instance_type_list}
    unknown = sorted({instance["InstanceType"] for instance in instances} - known)
    for name, line in _lines_to_add(client, unknown).items():
        yield failed(
            "",
            f"the list of instance types lacks {name}, which stops every listing",
            f"refresh the list: {command_for(access.region, 'types', '--update')}; or add to the file of"
            f" [cloud] instance_types_file, under [instance_types]: {line}",
        )
    if len(pages) > 1:
        yield failed(
            "",
            f"there are {len(instances)} instances, and only the first page of {len(pages[0])} is listed:"
            f" {len(instances) - len(pages[0])} are missing from every listing",
            "end nodes that are not needed, or spread them over user names",
        )
    elif not unknown:
        yield ok("", f"{len(instances)} under the user name {access.user_name}, terminated ones included")


def _pages(client: Any, access: Access) -> Iterator[list[Any]]:
    """The user's instances, page by page as EC2 gives them out; listings read the first one alone."""
    more: dict[str, str] = {}
    while True:
        response = client.describe_instances(
            Filters=[{"Name": f"tag:{TAG_USER_NAME}", "Values": [access.user_name]}], **more
        )
        yield [instance for group in response["Reservations"] for instance in group["Instances"]]
        if not response.get("NextToken"):
            return
        more = {"NextToken": response["NextToken"]}


def _lines_to_add(client: Any, names: list[str]) -> dict[str, str]:
    """The lines of the file of types for these names, in the form in which people write them."""
    if not names:
        return {}
    try:
        described = describe_types(client, names)
    except Exception:
        # A right that nothing else needs: without it the numbers are left to be filled in.
        described = {}
    sizes = {name: described.get(name, {"cpu_count": 1, "memory_mib": 1024}) for name in names}
    return {
        name: f'"{name}" = {{ {", ".join(f"{key} = {json.dumps(value)}" for key, value in size.items())} }}'
        for name, size in sizes.items()
    }
