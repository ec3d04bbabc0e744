"""What can be wrong around the command: one clear line each, from processes as people start them."""

from __future__ import annotations

from pathlib import Path

import pytest

from stage.ec2 import Ec2World
from stage.fault import GARBAGE, ec2_error, unauthorized
from stage.ports import refusing_port
from tests.command.conftest import Run, finish, start_command
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth


def lines_of(*arguments: str, code: int) -> list[str]:
    """The lines on standard error of a command that fails with this code and says nothing else."""
    ended, stdout, stderr = finish(start_command(*arguments))
    assert (ended, stdout) == (code, ""), stderr
    return stderr.splitlines()


def test_a_wrong_region(no_account: Path) -> None:
    """The name is repeated with what it may have meant."""
    assert lines_of("list", "eu-centrall-1", code=2) == [
        'error: there is no region "eu-centrall-1"; did you mean "eu-central-1"?',
        "  try: list the regions with: tovarin-nodes regions",
    ]


def test_no_credentials(no_account: Path) -> None:
    """A region for which nothing is stored says how to store something."""
    assert lines_of("list", "us-east-1", code=4) == [
        "error: no credentials are stored for the region us-east-1",
        "  try: store them with: tovarin-nodes configure us-east-1 --user-name NAME --profile PROFILE",
    ]


def test_no_network(ec2: Ec2World) -> None:
    """Where nothing answers the line names the address."""
    with refusing_port() as closed:
        url = f"http://127.0.0.1:{closed}"
        ec2.send_requests_to(url)
        first, second = lines_of("list", "us-east-1", code=5)
    assert first == f'error: EC2 cannot be reached: Could not connect to the endpoint URL: "{url}/"'
    assert second.endswith("tovarin-nodes doctor us-east-1")


def test_refused_permissions(ec2: Ec2World) -> None:
    """An encoded refusal is said in words, with whom to ask and how it is read."""
    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstances", unauthorized())
        first, second = lines_of("list", "us-east-1", code=6)
    assert first == (
        "error: EC2 refused DescribeInstances: You are not authorized to perform this operation."
        " (UnauthorizedOperation)"
    )
    assert second.startswith("  try: ask the account's owner for the right to do this")


def test_refused_credentials(run: Run, ec2: Ec2World) -> None:
    """Wrong keys lead to storing others."""
    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstances", ec2_error("AuthFailure", "cannot validate the credentials", 401))
        result = run("list", "us-east-1")
    assert result.exit_code == 6
    assert "tovarin-nodes configure us-east-1" in result.stderr


def test_something_that_is_not_ec2(run: Run, ec2: Ec2World) -> None:
    """An answer in another language is not shown, only said to be one."""
    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstances", GARBAGE)
        result = run("list", "us-east-1")
    assert result.exit_code == 5
    assert "the answer is not one of EC2" in result.stderr
    assert len(result.stderr.splitlines()) == 2


def test_nothing_that_signs_requests(run: Run, ec2: Ec2World) -> None:
    """A store that leaves it to the SDK, and an SDK that finds nothing, are one line."""
    CloudConfManager().set_cloud_conf(ec2.region, CloudConf(AWSCloudAuth(), "ada"))
    result = run("list", "us-east-1")
    assert result.exit_code == 4
    assert result.stderr.startswith("error: the Amazon SDK finds no credentials\n")


@pytest.mark.parametrize("command", [["list"], ["doctor"]])
def test_a_profile_that_does_not_exist(run: Run, ec2: Ec2World, command: list[str]) -> None:
    """The profile is named, by the doctor as by every other command."""
    CloudConfManager().set_cloud_conf(ec2.region, CloudConf(AWSCloudAuth(aws_profile="gone"), "ada"))
    result = run(*command, "us-east-1")
    assert result.exit_code == (1 if command == ["doctor"] else 4)
    assert "the Amazon profile does not exist: The config profile (gone)" in result.output
