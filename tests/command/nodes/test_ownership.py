"""Two users of one account: nobody's command touches a node that is not his."""

from __future__ import annotations

import json
from pathlib import Path

import pytest

from stage.ec2 import USER_NAME, Ec2World
from stage.fault import Answer, document
from tests.command.conftest import Run
from tests.command.subcommands.test_lifecycle import state
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.command.nodes import inventory
from tovarincore.command.nodes.inventory import list_nodes


def store_user_name(ec2: Ec2World, user_name: str) -> None:
    """Put a user name into the store behind the command's back, as an older version may have done."""
    manager = CloudConfManager()
    manager.set_cloud_conf(ec2.region, CloudConf(ec2.auth, "placeholder"))
    text = manager.path.read_text().replace('"placeholder"', json.dumps(user_name))
    manager.path.write_text(text)


@pytest.mark.parametrize("user_name", ["*", "flow-use?", "flow*", "a\\*"])
@pytest.mark.parametrize(
    "command",
    [("terminate", "--yes"), ("stop",), ("start",), ("reboot",), ("show",), ("orphans", "--yes", "--end")],
    ids=lambda command: str(command[0]),
)
def test_a_user_name_that_is_a_pattern_reaches_no_node(
    run: Run, ec2: Ec2World, command: tuple[str, ...], user_name: str
) -> None:
    """EC2 would list every user's nodes: the command refuses before it asks."""
    theirs = ec2.run_instance("cold-1", user_name="somebody-else")
    store_user_name(ec2, user_name)
    name, *options = command
    with ec2.faults() as endpoint:
        result = run(name, "us-east-1", *options, "cold-1")
        assert endpoint.actions() == []
    assert result.exit_code == 4
    assert "[AWS.us-east-1]: user_name is not allowed" in result.stderr
    assert "EC2 reads these as patterns" in result.stderr
    assert state(ec2, theirs) == "running"


def test_a_user_name_that_is_a_pattern_is_not_stored(run: Run, ec2: Ec2World) -> None:
    """It is refused where it would come from."""
    result = run("configure", "us-east-1", "--user-name", "team-*")
    assert result.exit_code == 4
    assert "'team-*' cannot be a user name; allowed are" in result.stderr
    stored = CloudConfManager().get_cloud_conf(ec2.region)
    assert stored is not None
    assert stored.user_name == USER_NAME


@pytest.mark.parametrize("command", ["terminate", "stop", "start", "reboot"])
def test_a_node_in_a_listing_that_bears_another_name_is_left_alone(
    run: Run, ec2: Ec2World, command: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The tag is compared once more: a listing that is too long, for whatever reason, ends nothing."""
    theirs = ec2.run_instance("cold-1", user_name="somebody-else")
    mine = ec2.run_instance("cold-2")

    def list_everything(access: inventory.Access) -> list[inventory.CloudNode]:
        nodes = list_nodes(access)
        nodes[0].instance_id, nodes[0].name = theirs, "cold-1"
        return nodes

    monkeypatch.setattr("tovarincore.command.nodes.selection.list_nodes", list_everything)
    options = ["--yes"] if command == "terminate" else []
    result = run(command, "us-east-1", "cold-1", *options)
    assert result.exit_code == 6
    assert result.stderr.splitlines() == [
        f"error: {theirs}: not launched under the user name {USER_NAME}; nothing was changed",
        "  try: list your nodes: tovarin-nodes list us-east-1",
    ]
    assert (state(ec2, theirs), state(ec2, mine)) == ("running", "running")


def listing_of_everybody(ec2: Ec2World) -> Answer:
    """What EC2 would answer if it did not filter: this user's node, somebody else's, and nobody's."""
    items = "".join(
        f"<item><instanceId>i-{number}</instanceId><instanceType>t3.small</instanceType>"
        "<instanceState><code>16</code><name>running</name></instanceState><dnsName>127.0.0.1</dnsName>"
        "<launchTime>2026-01-31T10:00:00Z</launchTime>"
        f"<tagSet><item><key>Name</key><value>cold-{number}</value></item>{tag}</tagSet></item>"
        for number, tag in enumerate(
            [
                f"<item><key>tovarin_username</key><value>{name}</value></item>"
                for name in (USER_NAME, "other")
            ]
            + [""]
        )
    )
    return document(
        "DescribeInstances",
        f"<reservationSet><item><instancesSet>{items}</instancesSet></item></reservationSet>",
    )


@pytest.mark.parametrize(
    "command",
    [("list", "--no-probe", "-o", "name"), ("orphans",), ("stop", "--all", "--strangers", "--dry-run")],
    ids=lambda command: str(command[0]),
)
def test_a_listing_shows_the_user_s_own_instances_alone(
    run: Run, ec2: Ec2World, command: tuple[str, ...]
) -> None:
    """The tags in EC2's answer are compared with the user name; a list asks for nothing more."""
    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstances", listing_of_everybody(ec2))
        result = run(command[0], "us-east-1", *command[1:], "--verbose")
        assert command[0] != "list" or endpoint.actions() == ["DescribeInstances"]
    assert result.exit_code == 0, result.output
    assert "cold-0" in result.stdout
    assert "cold-1" not in result.stdout and "cold-2" not in result.stdout
    assert "2 instances of other users were listed by EC2 and are left out" in result.stderr


@pytest.mark.parametrize("command", ["terminate", "stop", "start", "reboot"])
def test_the_dash_of_a_missing_uuid_is_no_name(run: Run, ec2: Ec2World, command: str) -> None:
    """An instance without uuid and name is listed with dashes; they mean no node, its id does."""
    tags = [{"Key": "tovarin_username", "Value": USER_NAME}]
    bare = ec2.run_instance(TagSpecifications=[{"ResourceType": "instance", "Tags": tags}])
    options = ["--yes"] if command == "terminate" else []
    result = run(command, "us-east-1", *options, "--", "-")
    assert result.exit_code == 3
    assert '"-" stands for a missing name or uuid and means no node' in result.stderr
    assert state(ec2, bare) == "running"
    assert run(command, "us-east-1", bare, *options).exit_code == 0


@pytest.mark.parametrize("command", ["terminate", "stop", "start", "reboot"])
def test_a_text_that_means_two_nodes_changes_none(run: Run, ec2: Ec2World, command: str) -> None:
    """Two of one name, and one named like the other's uuid, are offered by their ids."""
    first, second = ec2.run_instance("cold-1"), ec2.run_instance("cold-1")
    third, fourth = ec2.run_instance("cold-2"), ec2.run_instance("uuid-of-cold-2")
    options = ["--yes"] if command == "terminate" else []
    for text, ids in (("cold-1", (first, second)), ("uuid-of-cold-2", (third, fourth))):
        result = run(command, "us-east-1", text, *options)
        assert result.exit_code == 3
        assert f'"{text}" means 2 nodes: {ids[0]} (running), {ids[1]} (running)' in result.stderr
    assert {state(ec2, known) for known in (first, second, third, fourth)} == {"running"}


def test_an_instance_id_means_its_node_whatever_others_are_called(run: Run, ec2: Ec2World) -> None:
    """A node named like another one's id does not get in its way."""
    first = ec2.run_instance("cold-1")
    second = ec2.run_instance(first)
    assert run("terminate", "us-east-1", first, "--yes").exit_code == 0
    assert (state(ec2, first), state(ec2, second)) == ("terminated", "running")


def test_a_local_region_needs_no_user_name(run: Run, no_account: Path) -> None:
    """Only EC2 reads patterns; elsewhere the name is just text."""
    assert run("configure", "local", "--user-name", "a*").exit_code == 0
