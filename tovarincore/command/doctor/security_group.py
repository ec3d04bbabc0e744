"""What ``doctor`` looks at of the product's security group: its rules, and what they let in."""

from collections.abc import Iterator
from typing import Any

from tovarincore.cloud_def import SecurityGroupRule, SecurityGroupRules
from tovarincore.cloud_node import AWSNodeManager
from tovarincore.command.doctor.verdicts import Verdict, ok, warn
from tovarincore.core_conf import core_conf_glbl

__all__ = ["check_security_group"]

_NAME = AWSNodeManager.tovarin_security_group_name
_EVERYWHERE = ("0.0.0.0/0", "::/0")


def check_security_group(client: Any) -> Iterator[Verdict]:
    """Look at the group that launches use; verdicts have no subject yet.

    :param client: EC2 client of the region
    """
    named = [{"Name": "group-name", "Values": [_NAME]}]
    groups = client.describe_security_groups(Filters=named)["SecurityGroups"]
    conf = core_conf_glbl
    if conf.network__aws_custom_vpc and conf.network__aws_custom_subnet:
        used = [group for group in groups if group["VpcId"] == conf.network__aws_custom_vpc]
    else:
        used = groups
    if not used:
        yield warn("", f"there is no {_NAME} yet", "nothing: a launch or a dry run creates it")
        yield from _open_and_plain("a launch will open")
        return
    group_id = used[0]["GroupId"]
    if len(groups) > 1:
        yield warn(
            "",
            f"{len(groups)} networks have a group {_NAME}; launches use {group_id}",
            "if that is the wrong one, set [network] aws_custom_vpc and aws_custom_subnet",
        )
    yield from _rules(client, group_id)


def _rules(client: Any, group_id: str) -> Iterator[Verdict]:
    filters = [{"Name": "group-id", "Values": [group_id]}]
    answer = client.describe_security_group_rules(Filters=filters)["SecurityGroupRules"]
    inbound = [rule for rule in answer if not rule["IsEgress"]]
    existing = [SecurityGroupRule(rule["FromPort"], rule["ToPort"], rule["IpProtocol"]) for rule in inbound]
    missing = [rule for rule in SecurityGroupRules.inbound_list if rule not in existing]
    if missing:
        ports = ", ".join(f"{rule.from_port}-{rule.to_port}/{rule.ip_protocol}" for rule in missing)
        yield warn(
            "",
            f"{group_id} lacks the rules {ports}",
            "nothing: a launch or a dry run adds them, for every address",
        )
        yield from _open_and_plain("a launch will open")
        return
    yield ok("", f"{group_id} has all rules")
    if any(_lets_everybody_in(rule) for rule in inbound):
        yield from _open_and_plain(f"{group_id} opens")


def _lets_everybody_in(rule: Any) -> bool:
    everywhere = rule.get("CidrIpv4") in _EVERYWHERE or rule.get("CidrIpv6") in _EVERYWHERE
    port = core_conf_glbl.worker__port
    # -1 stands for all ports.
    return everywhere and (rule["FromPort"] == -1 or rule["FromPort"] <= port <= rule["ToPort"])


def _open_and_plain(who: str) -> Iterator[Verdict]:
    if core_conf_glbl.worker__scheme == "ws":
        yield warn(
            "",
            f"{who} port {core_conf_glbl.worker__port} to every address, and workers speak plain ws there:"
            " anybody on the way reads and changes what is said",
            'set [worker] scheme = "wss", or narrow the rule to the addresses you come from',
        )
