"""Which regions a sub-command works in."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from stage.ec2 import Ec2World
from stage.fault import unauthorized
from tests.command.conftest import Run
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion
from tovarincore.cloud_node import cloud_manager_glbl

OTHER = CloudRegion(name="eu-west-1", cloud="AWS")


@pytest.fixture
def two_regions(ec2: Ec2World) -> Ec2World:
    """A second region with stored credentials, on the same endpoint."""
    CloudConfManager().set_cloud_conf(OTHER, CloudConf(ec2.auth, "flow-user"))
    return ec2


def test_a_region_of_the_settings_needs_not_be_given(
    run: Run, run_json: Callable[..., Any], ec2: Ec2World
) -> None:
    """It stands for the argument of every sub-command; one that is given comes first."""
    instance_id = ec2.run_instance("cold-1")
    ec2.set_setting("COMMAND__REGION", "us-east-1")
    assert run_json("list", "--no-probe")[0]["instance_id"] == instance_id
    assert run_json("show", "cold-1")["instance_id"] == instance_id
    assert run_json("stop", "us-east-1", "cold-1")["requested"] == "stopping"
    ended = run_json("terminate", "cold-1", instance_id, "--yes")
    assert [item["instance_id"] for item in ended] == [instance_id]


def test_an_option_names_the_region_too(run: Run, run_json: Callable[..., Any], ec2: Ec2World) -> None:
    """Then every word is a node's."""
    instance_id = ec2.run_instance("us-east-1")
    assert run_json("show", "-r", "us-east-1", "us-east-1")["instance_id"] == instance_id
    assert "give -r once" in run("show", "-r", "us-east-1", "-r", "local", "x").stderr


@pytest.mark.parametrize(
    "arguments, code, words",
    [
        (["list"], 2, "no region is given"),
        (["show", "us-east-1"], 2, "Missing argument 'NODE'"),
        (["show", "us-east-1", "a", "b"], 2, "Got unexpected extra argument"),
        (["terminate", "cold-1", "--yes"], 2, 'there is no region "cold-1"'),
        (["list", "US-EAST-1"], 2, 'did you mean "us-east-1"?'),
        (["list", "k8s:lab"], 2, "write it into the file of the setting [cloud] regions_file"),
        (["list", "-A", "us-east-1"], 2, "-A means all regions"),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else "",
)
def test_a_region_or_node_that_is_missing_is_said_to_be(
    run: Run, ec2: Ec2World, arguments: list[str], code: int, words: str
) -> None:
    """Nothing is guessed where the words do not fit."""
    result = run(*arguments)
    assert (result.exit_code, words in result.stderr) == (code, True)


def test_several_regions_are_listed_in_one_table(
    run: Run, run_json: Callable[..., Any], two_regions: Ec2World
) -> None:
    """A column names the region; -A lists all that can be used, which a region without its engine cannot."""
    two_regions.run_instance("cold-1")
    result = run("list", "us-east-1", "-r", "eu-west-1")
    assert result.exit_code == 0, result.output
    header, row = result.stdout.splitlines()
    assert (header.split()[0], row.split()[:2]) == ("REGION", ["AWS:us-east-1", "cold-1"])
    two_regions.set_setting("CONTAINER__ENGINE_URL", "unix:///nowhere/engine.sock")
    everywhere = run("list", "-A", "--no-probe")
    assert (everywhere.exit_code, everywhere.stderr) == (0, "")
    assert "cold-1" in everywhere.stdout


def test_a_region_that_fails_does_not_keep_the_others(run: Run, two_regions: Ec2World) -> None:
    """What was found is shown, the failure is a note and the exit code."""
    two_regions.run_instance("cold-1")
    CloudConfManager().set_cloud_conf(OTHER, CloudConf(AWSCloudAuth(aws_profile="gone"), "flow-user"))
    result = run("list", "-r", "us-east-1", "-r", "eu-west-1", "--no-probe")
    assert result.exit_code == 4
    assert "cold-1" in result.stdout
    assert "AWS:eu-west-1: the Amazon profile does not exist" in result.stderr


def test_another_profile_signs_the_requests(run: Run, ec2: Ec2World) -> None:
    """By option or setting it takes the place of what is stored; the user name stays."""
    given = run("list", "us-east-1", "--profile", "gone")
    vars(cloud_manager_glbl)["_node_manager_hashset"].clear()
    ec2.set_setting("COMMAND__PROFILE", "gone-too")
    configured = run("launch", "us-east-1", "--type", "t3.small")
    assert (given.exit_code, configured.exit_code) == (4, 4)
    assert "The config profile (gone)" in given.stderr
    assert "The config profile (gone-too)" in configured.stderr


def test_verbose_tells_of_each_request(run: Run, ec2: Ec2World) -> None:
    """Where it goes, what signs it, what came of it and how long it took, without a secret."""
    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstances", unauthorized())
        result = run("list", "us-east-1", "--verbose")
    first, second, *_ = result.stderr.splitlines()
    assert first == f"DescribeInstances: asking {endpoint.url}/, signed with the stored access key"
    assert second.startswith("DescribeInstances: status 403 after ")
    assert run("list", "us-east-1").stderr == ""
