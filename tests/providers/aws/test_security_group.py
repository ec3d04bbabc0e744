"""The product's security group: found or made in the right network, its inbound rules completed."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any

import pytest

from tests.fakes import ODD_RESPONSES, Fake, Logged, call, client_error, handled, recording, refusal
from tests.providers.aws.conftest import Amazon
from tovarincore.cloud_def import SecurityGroupRule

NAME = "tovarin-security-group"
NOT_THERE = f"Security Group : {NAME} Not Exists"
RULES = [SecurityGroupRule(port, port + 1, "tcp", f"rule {port}") for port in (10, 20, 30, 40, 50)]


@pytest.fixture(autouse=True)
def rules(aws: Amazon, monkeypatch: pytest.MonkeyPatch) -> None:
    """Five rules that the group must have."""
    monkeypatch.setattr(aws.module, "SecurityGroupRules", SimpleNamespace(inbound_list=list(RULES)))


def reported(*rules: SecurityGroupRule, egress: Any = False) -> list[dict[str, Any]]:
    """Return rules as EC2 reports them."""
    return [
        {"IsEgress": egress, "FromPort": r.from_port, "ToPort": r.to_port, "IpProtocol": r.ip_protocol}
        for r in rules
    ]


def permission(rule: SecurityGroupRule) -> dict[str, Any]:
    """Return what EC2 is asked to allow for a rule."""
    return {
        "FromPort": rule.from_port,
        "IpProtocol": rule.ip_protocol,
        "ToPort": rule.to_port,
        "IpRanges": [{"CidrIp": "0.0.0.0/0", "Description": rule.description}],
    }


def replace(aws: Amazon, **answers: Any) -> None:
    """Put recording functions in the place of methods of the manager."""
    for name, answer in answers.items():
        setattr(aws.manager, name, recording(aws.log, name, answer))


def test_a_group_that_exists_is_not_made_but_its_rules_are_reconciled(aws: Amazon) -> None:
    """Looked up by name, id returned."""
    replace(
        aws, _get_security_group_id="sg-1", _create_security_group=None, _add_not_existing_inbound_rules=None
    )
    assert aws.manager._check_and_get_security_group_id() == "sg-1"
    assert aws.log == [call("_get_security_group_id", NAME), call("_add_not_existing_inbound_rules", "sg-1")]


@pytest.mark.parametrize("missing", [None, ""])
def test_a_group_that_does_not_exist_is_made_and_then_reconciled(aws: Amazon, missing: Any) -> None:
    """With a debug line first; the new id is returned."""
    replace(
        aws,
        _get_security_group_id=missing,
        _create_security_group="sg-2",
        _add_not_existing_inbound_rules=None,
    )
    assert aws.manager._check_and_get_security_group_id() == "sg-2"
    assert aws.log == [
        call("_get_security_group_id", NAME),
        Logged("debug", f"Security Group does not exist. Creating : {NAME}"),
        call("_create_security_group", NAME),
        call("_add_not_existing_inbound_rules", "sg-2"),
    ]


def test_the_groups_name_can_be_overridden(aws: Amazon) -> None:
    """On a subclass or an instance, since it is read through self."""
    replace(aws, _get_security_group_id="sg-1", _add_not_existing_inbound_rules=None)
    aws.manager.tovarin_security_group_name = "own"
    aws.manager._check_and_get_security_group_id()
    assert aws.log[0] == call("_get_security_group_id", "own")


def test_the_default_network_is_the_first_that_ec2_reports(aws: Amazon) -> None:
    """Its id comes back as a text."""
    aws.ec2.answers["describe_vpcs"] = {"Vpcs": [{"VpcId": "vpc-1"}, {"VpcId": "vpc-2"}]}
    assert aws.manager._get_default_vpc_id() == "vpc-1"
    filters = [{"Name": "isDefault", "Values": ["true"]}]
    assert aws.log == [call("_get_client"), call("ec2.describe_vpcs", Filters=filters)]
    aws.ec2.answers["describe_vpcs"] = {"Vpcs": [{"VpcId": 7}]}
    assert aws.manager._get_default_vpc_id() == "7"


@pytest.mark.parametrize(
    ("response", "error"), [({"Vpcs": []}, IndexError), ({}, KeyError), ({"Vpcs": [{}]}, KeyError)], ids=repr
)
def test_an_account_without_a_default_network_fails_with_the_lookups_error(
    aws: Amazon, response: Any, error: type[Exception]
) -> None:
    """Nothing is caught or logged."""
    aws.ec2.answers["describe_vpcs"] = response
    with pytest.raises(error):
        aws.manager._get_default_vpc_id()
    assert aws.log.events == []


def test_the_first_group_of_that_name_wins(aws: Amazon) -> None:
    """Without a network of the user's the name alone is asked for."""
    aws.ec2.answers["describe_security_groups"] = {
        "SecurityGroups": [{"GroupId": "sg-1"}, {"GroupId": "sg-2"}]
    }
    assert aws.manager._get_security_group_id("g") == "sg-1"
    filters = [{"Name": "group-name", "Values": ["g"]}]
    assert aws.log == [call("_get_client"), call("ec2.describe_security_groups", Filters=filters)]


@pytest.mark.parametrize(
    ("vpc", "subnet", "used"), [("vpc-9", "subnet-9", True), ("vpc-9", "", False), ("", "subnet-9", False)]
)
def test_the_users_network_is_used_only_with_a_subnet(aws: Amazon, vpc: str, subnet: str, used: bool) -> None:
    """For the lookup and for the making alike; otherwise the default network is asked for."""
    aws.conf.network__aws_custom_vpc, aws.conf.network__aws_custom_subnet = vpc, subnet
    aws.ec2.answers["describe_security_groups"] = {}
    aws.ec2.answers["create_security_group"] = {"GroupId": "sg-3"}
    replace(aws, _get_default_vpc_id="vpc-default")
    aws.manager._get_security_group_id("g")
    filters = [{"Name": "group-name", "Values": ["g"]}]
    if used:
        filters.append({"Name": "vpc-id", "Values": [vpc]})
    assert aws.log[1] == call("ec2.describe_security_groups", Filters=filters)
    aws.log.clear()
    assert aws.manager._create_security_group("g") == "sg-3"
    made = call(
        "ec2.create_security_group",
        Description="Tovarin AI security group",
        GroupName="g",
        VpcId=vpc if used else "vpc-default",
    )
    asked = [] if used else [call("_get_default_vpc_id")]
    assert aws.log == [*asked, call("_get_client"), made, Logged("info", "Security Group : g created")]


def test_the_network_is_tested_before_the_subnet(aws: Amazon) -> None:
    """An unset network leaves the subnet unread; a network in use is read again for its filter."""
    order: list[str] = []

    class Watched:
        def __init__(self, vpc: str) -> None:
            self.vpc = vpc

        def __getattr__(self, name: str) -> str:
            order.append(name)
            return self.vpc if name == "network__aws_custom_vpc" else "subnet-9"

    aws.ec2.answers["describe_security_groups"] = {}
    aws.manager.core_conf = Watched("")
    aws.manager._get_security_group_id("g")
    assert order == ["network__aws_custom_vpc"]
    order.clear()
    aws.manager.core_conf = Watched("vpc-9")
    aws.manager._get_security_group_id("g")
    assert order == ["network__aws_custom_vpc", "network__aws_custom_subnet", "network__aws_custom_vpc"]


@pytest.mark.parametrize("response", [{}, {"SecurityGroups": []}, {"SecurityGroups": ()}], ids=repr)
def test_no_group_in_the_response_is_none_and_one_debug_line(aws: Amazon, response: Any) -> None:
    """No list, or an empty one."""
    aws.ec2.answers["describe_security_groups"] = response
    assert aws.manager._get_security_group_id(NAME) is None
    assert aws.log.events == [Logged("debug", NOT_THERE)]


ERRORS = [refusal("Odd"), *(client_error(response) for response, _ in ODD_RESPONSES.values())]


@pytest.mark.parametrize("error", ERRORS, ids=lambda error: repr(error.response))
def test_a_refused_lookup_counts_as_a_missing_group(aws: Amazon, error: Any) -> None:
    """Whatever the shape of the refusal; the debug line carries its traceback."""
    aws.ec2.answers["describe_security_groups"] = error
    assert aws.manager._get_security_group_id(NAME) is None
    assert aws.log.events == [Logged("debug", NOT_THERE, error)]
    assert handled() is None


def test_a_client_that_is_refused_counts_as_a_missing_group_too(aws: Amazon) -> None:
    """Making the client belongs to the guarded lookup."""
    error = refusal("Odd")
    replace(aws, _get_client=error)
    assert aws.manager._get_security_group_id(NAME) is None
    assert aws.log.events == [Logged("debug", NOT_THERE, error)]


@pytest.mark.parametrize("error", [TimeoutError(), KeyboardInterrupt(), ValueError("x")], ids=repr)
def test_any_other_failure_of_the_lookup_propagates(aws: Amazon, error: BaseException) -> None:
    """Nothing is logged."""
    aws.ec2.answers["describe_security_groups"] = error
    with pytest.raises(type(error)) as caught:
        aws.manager._get_security_group_id(NAME)
    assert caught.value is error
    assert aws.log.events == []


def test_a_group_without_an_id_is_a_key_error(aws: Amazon) -> None:
    """In the lookup, and in what EC2 says of a group just made, which has been logged by then."""
    aws.ec2.answers["describe_security_groups"] = {"SecurityGroups": [{}]}
    with pytest.raises(KeyError, match="GroupId"):
        aws.manager._get_security_group_id("g")
    aws.ec2.answers["create_security_group"] = {}
    replace(aws, _get_default_vpc_id="vpc")
    with pytest.raises(KeyError, match="GroupId"):
        aws.manager._create_security_group("g")
    assert aws.log.events == [Logged("info", "Security Group : g created")]


def test_inbound_rules_are_listed_in_order_and_egress_rules_skipped(aws: Amazon) -> None:
    """One request; a rule is made of ports and protocol alone, by position."""
    listed = [*reported(RULES[1]), *reported(RULES[0], egress=True), *reported(RULES[2], egress=0)]
    aws.ec2.answers["describe_security_group_rules"] = {"SecurityGroupRules": listed}
    rules = aws.manager._list_inbound_security_group_rules("sg-1")
    assert [(type(r), r.from_port, r.to_port, r.ip_protocol) for r in rules] == [
        (SecurityGroupRule, 20, 21, "tcp"),
        (SecurityGroupRule, 30, 31, "tcp"),
    ]
    filters = [{"Name": "group-id", "Values": ["sg-1"]}]
    assert aws.log == [call("_get_client"), call("ec2.describe_security_group_rules", Filters=filters)]


def test_a_rule_is_constructed_by_position(aws: Amazon, monkeypatch: pytest.MonkeyPatch) -> None:
    """A replaced rule class of the module takes effect."""
    monkeypatch.setattr(aws.module, "SecurityGroupRule", recording(aws.log, "rule", "a rule"))
    aws.ec2.answers["describe_security_group_rules"] = {"SecurityGroupRules": reported(RULES[0])}
    assert aws.manager._list_inbound_security_group_rules("sg-1") == ["a rule"]
    assert aws.log[-1] == call("rule", 10, 11, "tcp")


@pytest.mark.parametrize("key", ["IsEgress", "FromPort", "ToPort", "IpProtocol"])
def test_a_reported_rule_without_a_key_is_a_key_error(aws: Amazon, key: str) -> None:
    """So is a response without rules."""
    (rule,) = reported(RULES[0])
    del rule[key]
    for response, missing in (({"SecurityGroupRules": [rule]}, key), ({}, "SecurityGroupRules")):
        aws.ec2.answers["describe_security_group_rules"] = response
        with pytest.raises(KeyError, match=missing):
            aws.manager._list_inbound_security_group_rules("sg-1")


def test_rules_are_added_in_one_request_open_to_every_address(aws: Amazon) -> None:
    """In the order given; its result is discarded."""
    aws.ec2.answers["authorize_security_group_ingress"] = "discarded"
    assert aws.manager._add_inbound_security_group_rules("sg-1", RULES[:2]) is None
    permissions = [permission(RULES[0]), permission(RULES[1])]
    assert aws.log == [
        call("_get_client"),
        call("ec2.authorize_security_group_ingress", GroupId="sg-1", IpPermissions=permissions),
    ]
    sent = dict(aws.log[1].kwargs)["IpPermissions"][0]
    assert list(sent) == ["FromPort", "IpProtocol", "ToPort", "IpRanges"]
    assert list(sent["IpRanges"][0]) == ["CidrIp", "Description"]


def test_two_of_five_rules_missing_are_added_by_one_request_in_order(aws: Amazon) -> None:
    """Each rule has its debug line: the needed one when it is missing, else the one that was found."""
    listed = reported(RULES[4], RULES[0], RULES[2]) + reported(RULES[1], egress=True)
    aws.ec2.answers["describe_security_group_rules"] = {"SecurityGroupRules": listed}
    assert aws.manager._add_not_existing_inbound_rules("sg-1") is None
    added = [permission(RULES[1]), permission(RULES[3])]
    assert aws.log.names.count("ec2.describe_security_group_rules") == 1
    assert aws.log[-3:-1] == [
        call("_get_client"),
        call("ec2.authorize_security_group_ingress", GroupId="sg-1", IpPermissions=added),
    ]
    bare = {r.from_port: SecurityGroupRule(r.from_port, r.to_port, r.ip_protocol) for r in RULES}
    assert [event.message for event in aws.log.events] == [
        f"Inbound Rule Found : {bare[10]}",
        f"Inbound Rule Not Found : {RULES[1]}",
        f"Inbound Rule Found : {bare[30]}",
        f"Inbound Rule Not Found : {RULES[3]}",
        f"Inbound Rule Found : {bare[50]}",
        "Added not existing rules",
    ]
    assert {event.level for event in aws.log.events} == {"debug"}


def test_nothing_is_added_when_every_rule_exists(aws: Amazon) -> None:
    """And a debug line says so."""
    aws.ec2.answers["describe_security_group_rules"] = {"SecurityGroupRules": reported(*RULES)}
    aws.manager._add_not_existing_inbound_rules("sg-1")
    assert "ec2.authorize_security_group_ingress" not in aws.log.names
    assert aws.log[-1] == Logged("debug", "All rules exists. Nothing to do")


def test_the_rule_of_ec2_stands_on_the_left_of_the_comparison(aws: Amazon) -> None:
    """The first that is equal is found, and no more are compared."""
    compared: list[Any] = []

    class Rule:
        def __init__(self, name: str) -> None:
            self.name = name

        def __eq__(self, other: object) -> bool:
            compared.append((self.name, other))
            return self.name == "b"

    replace(aws, _list_inbound_security_group_rules=[Rule("a"), Rule("b"), Rule("c")])
    aws.module.SecurityGroupRules.inbound_list = ["needed"]
    aws.manager._add_not_existing_inbound_rules("sg-1")
    assert compared == [("a", "needed"), ("b", "needed")]


def test_the_parts_are_called_on_the_manager_itself(aws: Amazon) -> None:
    """Overrides of the listing and of the adding take effect."""
    replace(aws, _list_inbound_security_group_rules=[], _add_inbound_security_group_rules=None)
    aws.manager._add_not_existing_inbound_rules("sg-1")
    assert aws.log.names == ["_list_inbound_security_group_rules", "_add_inbound_security_group_rules"]
    assert aws.log[-2] == call("_add_inbound_security_group_rules", "sg-1", RULES)


@pytest.mark.parametrize(
    ("request_", "operation"),
    [
        ("describe_vpcs", lambda manager: manager._get_default_vpc_id()),
        ("create_security_group", lambda manager: manager._create_security_group("g")),
        ("describe_security_group_rules", lambda manager: manager._add_not_existing_inbound_rules("sg")),
        (
            "authorize_security_group_ingress",
            lambda manager: manager._add_inbound_security_group_rules("sg", []),
        ),
    ],
)
def test_refusals_of_everything_but_the_lookup_propagate(aws: Amazon, request_: str, operation: Any) -> None:
    """Unlogged, for the launch to report."""
    aws.ec2.answers["describe_vpcs"] = {"Vpcs": [{"VpcId": "vpc"}]}
    aws.ec2.answers[request_] = error = refusal("Odd")
    with pytest.raises(type(error)) as caught:
        operation(aws.manager)
    assert caught.value is error
    assert aws.log.events == []


def test_the_whole_way_uses_a_fresh_client_for_each_request(aws: Amazon) -> None:
    """From a missing group to its rules: five requests, five clients."""
    aws.ec2.answers.update(
        describe_security_groups={"SecurityGroups": []},
        describe_vpcs={"Vpcs": [{"VpcId": "vpc-1"}]},
        create_security_group={"GroupId": "sg-1"},
        describe_security_group_rules={"SecurityGroupRules": []},
    )
    assert aws.manager._check_and_get_security_group_id() == "sg-1"
    requests = ["describe_security_groups", "describe_vpcs", "create_security_group"]
    requests += ["describe_security_group_rules", "authorize_security_group_ingress"]
    assert aws.log.names == [name for request in requests for name in ("_get_client", f"ec2.{request}")]


def test_a_name_that_is_no_text_is_a_type_error(aws: Amazon) -> None:
    """Log lines are built by joining; inside the handler the failure chains to the refusal."""
    aws.ec2.answers["describe_security_groups"] = {}
    with pytest.raises(TypeError):
        aws.manager._get_security_group_id(5)
    aws.ec2.answers["describe_security_groups"] = error = refusal("Odd")
    with pytest.raises(TypeError) as caught:
        aws.manager._get_security_group_id(5)
    assert caught.value.__context__ is error
    aws.manager.logger = Fake(aws.log, "logger")
    aws.manager._get_security_group_id("g")
    assert aws.log[-1] == call("logger.debug", "Security Group : g Not Exists", exc_info=True)
