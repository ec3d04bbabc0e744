"""Several launches at once."""

from __future__ import annotations

import signal
from collections.abc import Callable
from typing import Any

import pytest

from stage.ec2 import Ec2World
from stage.fault import SERVED, ec2_error
from tests.command.conftest import Run, finish, start_command
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
        (("--count", "2", "--name", "web{"), "is no pattern of names"),
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


def test_several_are_waited_for(run: Run, ec2: Ec2World) -> None:
    """With --wait each is told once it is launched, and again once it is ready."""
    result = run(*LAUNCH, "--count", "3", "--name", "ready-{}", "--wait")
    assert result.exit_code == 0, result.output
    lines = result.stdout.splitlines()
    assert lines[0] == "3 launched"
    assert sorted(line.split(" (")[0] for line in lines[1:]) == ["ready-1", "ready-2", "ready-3"]
    assert all(line.endswith(" is ready") for line in lines[1:])


def test_ctrl_c_lets_no_launch_be_forgotten(ec2: Ec2World) -> None:
    """What is under way ends and is noted; the text says so, and the exit code is 130."""
    process = start_command(*LAUNCH, "--count", "40", "--at-once", "2", "--name", "cold-{}")
    assert process.stderr is not None
    while not process.stderr.readline().startswith("launched"):
        assert process.poll() is None
    process.send_signal(signal.SIGINT)
    code, _, stderr = finish(process)
    assert code == 130
    assert "interrupted: nodes may have been launched anyway, and the ledger has all of them" in stderr
    assert {entry.instance_id for entry in Ledger().entries()} == {
        instance["InstanceId"] for instance in ec2.instances()
    }
    assert Ledger().open_intents() == []
    assert 0 < len(ec2.instances()) < 40
