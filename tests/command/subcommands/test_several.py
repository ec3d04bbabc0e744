"""Several launches at once."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from stage.ec2 import Ec2World
from stage.fault import SERVED, ec2_error
from tests.command.conftest import Run
from tovarincore.fleet import Ledger

LAUNCH = ("launch", "us-east-1", "--type", "t3.small")
NO_CAPACITY = ec2_error("InsufficientInstanceCapacity", "no capacity", 500)


def test_several_are_launched_with_a_line_each(run: Run, ec2: Ec2World) -> None:
    """Without a terminal every node is a line, and the result a count; the ledger has all."""
    result = run(*LAUNCH, "--count", "3", "--at-once", "2", "--name", "cold-{:02}")
    assert (result.exit_code, result.stdout) == (0, "3 launched\n"), result.output
    told = [line.split(" (")[0] for line in result.stderr.splitlines() if line.startswith("launched")]
    assert sorted(told) == [f"launched cold-0{number}" for number in (1, 2, 3)]
    assert {entry.instance_id for entry in Ledger().entries()} == {
        instance["InstanceId"] for instance in ec2.instances()
    }


def test_a_repeated_launch_makes_only_what_is_absent(
    run: Run, run_json: Callable[..., Any], ec2: Ec2World
) -> None:
    """The same command can be given until everything is there."""
    command = (*LAUNCH, "--count", "2", "--if-absent", "--name", "cold")
    assert [node["name"] for node in run_json(*command)] == ["cold-1", "cold-2"]
    assert run(*command).stdout == "0 launched, 2 there already\n"
    assert len(ec2.instances()) == 2


def test_the_next_type_is_tried_without_capacity(run_json: Callable[..., Any], ec2: Ec2World) -> None:
    """--or-type may be given several times."""
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", NO_CAPACITY, NO_CAPACITY, SERVED)
        (node,) = run_json(*LAUNCH, "--or-type", "t3.large")
    assert node["instance_type"] == "t3.large"


def test_what_was_not_launched_is_named(run: Run, ec2: Ec2World) -> None:
    """One line each, the count, and an error that says what to do."""
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", SERVED, NO_CAPACITY)
        result = run(*LAUNCH, "--count", "2", "--at-once", "1", "--name", "cold-{}")
    assert (result.exit_code, result.stdout) == (1, "1 launched, 1 not launched\n")
    assert "cold-2 was not launched: no capacity" in result.stderr
    assert "error: EC2 refused: no capacity" in result.stderr


@pytest.mark.parametrize(
    "arguments, words",
    [
        (("--count", "2", "--wait"), "--wait is for one node"),
        (("--count", "2", "--name", "*"), "name of a node"),
    ],
)
def test_what_makes_no_sense_is_refused(
    run: Run, ec2: Ec2World, arguments: tuple[str, ...], words: str
) -> None:
    """Nothing is launched."""
    result = run(*LAUNCH, *arguments)
    assert result.exit_code == 2
    assert words in result.stderr
    assert ec2.instances() == []
