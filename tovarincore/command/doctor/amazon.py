"""What ``doctor`` looks at in an Amazon region, by describing things only."""

from collections.abc import Callable, Iterator
from datetime import datetime, timezone
from email.utils import parsedate_to_datetime
from typing import Any

from tovarincore.cloud_def import AWSCloudAuth, CloudInstances, CloudRegion, SecurityGroupRules
from tovarincore.cloud_node import AWSNodeManager, cloud_manager_glbl
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.doctor.sdk_settings import check_sdk_settings
from tovarincore.command.doctor.verdicts import Verdict, failed, ok, skipped, warn
from tovarincore.core_conf import core_conf_glbl

__all__ = ["check_amazon"]

PAGE_SIZE = 1000
"""EC2 gives at most this many instances in the one answer that the provider reads."""
_CLOCK_WARN_SECONDS = 60
# EC2 refuses requests whose signature is older or newer than this.
_CLOCK_FAIL_SECONDS = 300
_SHORTEST_SUBNET = 10


def check_amazon(region: CloudRegion) -> Iterator[Verdict]:
    """Look at everything in a region that launches and listings rely on."""
    key = region.key
    try:
        access = open_region(region)
        provider = cloud_manager_glbl.get_node_manager(region)
        assert isinstance(provider, AWSNodeManager)
        assert isinstance(access.auth, AWSCloudAuth)
        yield from check_sdk_settings(key, access.auth)
        client: Any = provider._get_client()
        # Every identity that may launch may describe networks: what fails here fails everywhere.
        response = client.describe_vpcs(Filters=[{"Name": "isDefault", "Values": ["true"]}])
    except Exception as error:
        yield failed(f"{key} credentials", error)
        yield skipped(f"{key} account", "not looked at, since EC2 cannot be asked")
        return
    yield ok(f"{key} credentials", f"EC2 accepts them; user name {access.user_name}")
    checks: tuple[tuple[str, Callable[[], Iterator[Verdict]]], ...] = (
        ("clock", lambda: _clock(response)),
        ("network", lambda: _network(client, response["Vpcs"])),
        ("security group", lambda: _security_group(client, provider)),
        ("images", lambda: _images(access)),
        ("key pair", lambda: _key_pair(client)),
        ("instances", lambda: _instances(client, access)),
    )
    for name, check in checks:
        subject = f"{key} {name}"
        try:
            for verdict in check():
                yield Verdict(subject, verdict.level, verdict.text, verdict.remedy)
        except Exception as error:
            yield failed(subject, error)


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
                f"[network] the subnet {subnet} lies in {found['VpcId']}, not in {vpc}",
                "let aws_custom_vpc name the subnet's network",
            )
            return
        if not vpc and found["VpcId"] not in [known["VpcId"] for known in default_vpcs]:
            yield failed(
                "",
                f"[network] the subnet {subnet} is not of the default network, the security group would be",
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
            "make one (aws ec2 create-default-vpc), or set [network] aws_custom_vpc and aws_custom_subnet",
        )


def _security_group(client: Any, provider: AWSNodeManager) -> Iterator[Verdict]:
    name = provider.tovarin_security_group_name
    groups = client.describe_security_groups(Filters=[{"Name": "group-name", "Values": [name]}])[
        "SecurityGroups"
    ]
    group_id = provider._get_security_group_id(name)
    if group_id is None:
        yield warn("", f"there is no {name} yet", "nothing: a launch or a dry run makes it")
        return
    if len(groups) > 1:
        yield warn(
            "",
            f"{len(groups)} networks have a group {name}; launches use {group_id}",
            "if that is the wrong one, set [network] aws_custom_vpc and aws_custom_subnet",
        )
    existing = provider._list_inbound_security_group_rules(group_id)
    missing = [rule for rule in SecurityGroupRules.inbound_list if rule not in existing]
    if missing:
        ports = ", ".join(f"{rule.from_port}-{rule.to_port}/{rule.ip_protocol}" for rule in missing)
        yield warn(
            "",
            f"{group_id} lacks the rules {ports}",
            "nothing: a launch or a dry run adds them, for every address",
        )
    else:
        yield ok("", f"{group_id} has all rules")


def _images(access: Access) -> Iterator[Verdict]:
    templates, _ = cloud_manager_glbl.list_current_instance_templates(access.region, access.auth)
    if templates:
        yield ok("", f"{len(templates)} public images")
    else:
        yield warn(
            "", "no public image", "choose one with --template: tovarin-nodes templates REGION --private"
        )


def _key_pair(client: Any) -> Iterator[Verdict]:
    name = "tovarin-key"
    names = [pair["KeyName"] for pair in client.describe_key_pairs()["KeyPairs"]]
    if name in names:
        yield ok("", name)
    else:
        yield warn(
            "",
            f"there is no {name}, which launches name unless told otherwise",
            f"tovarin-nodes keypair create REGION {name}, or launch with --key-pair",
        )


def _instances(client: Any, access: Access) -> Iterator[Verdict]:
    response = client.describe_instances(
        Filters=[{"Name": "tag:tovarin_username", "Values": [access.user_name]}]
    )
    instances = [instance for group in response["Reservations"] for instance in group["Instances"]]
    known = {type_def.instance_type for type_def in CloudInstances.instance_type_list}
    unknown = sorted({instance["InstanceType"] for instance in instances} - known)
    for name, line in _lines_to_add(client, unknown).items():
        yield failed(
            "",
            f"the list of instance types lacks {name}, which stops every listing",
            f"add to the file of [cloud] instance_types_file, under [instance_types]: {line}",
        )
    if response.get("NextToken") or (instances and len(instances) % PAGE_SIZE == 0):
        certain = "nodes are" if response.get("NextToken") else "nodes may be"
        yield failed(
            "",
            f"the listing holds exactly one page of {len(instances)} instances: {certain} missing from it",
            "end nodes that are not needed, or spread them over user names",
        )
    elif not unknown:
        yield ok("", f"{len(instances)} under the user name {access.user_name}, terminated ones included")


def _lines_to_add(client: Any, names: list[str]) -> dict[str, str]:
    if not names:
        return {}
    try:
        described = client.describe_instance_types(InstanceTypes=names)["InstanceTypes"]
    except Exception:
        # A right that nothing else needs: without it the numbers are left to be filled in.
        described = []
    lines = {name: f'"{name}" = {{ cpu_count = 1, memory_mib = 1024 }}' for name in names}
    for entry in described:
        name = entry["InstanceType"]
        fields = [
            f"cpu_count = {entry['VCpuInfo']['DefaultVCpus']}",
            f"memory_mib = {entry['MemoryInfo']['SizeInMiB']}",
        ]
        gpus = entry.get("GpuInfo", {}).get("Gpus", [])
        if gpus:
            fields.append(f"gpu_count = {sum(gpu['Count'] for gpu in gpus)}")
            fields.append(f'gpu_model = "{gpus[0]["Manufacturer"]} {gpus[0]["Name"]}"')
        lines[name] = f'"{name}" = {{ {", ".join(fields)} }}'
    return lines
