"""Launches of several nodes in which something goes wrong: what is launched, known and told, case by case."""

from __future__ import annotations

import errno
import os
import signal
from collections import Counter
from collections.abc import Callable
from typing import Any

import pytest

from stage.ec2 import Ec2World
from stage.fault import LOST, SERVED, Answer, ec2_error, throttled
from tests.command.conftest import Run, finish, start_command
from tests.fleet.accounts import HASTY
from tests.fleet.test_killed import Watched
from tovarincore.fleet import Ledger, Patience

LAUNCH = ("launch", "us-east-1", "--type", "t3.small", "--name", "cold-{:02}")
SHORT = Patience(seconds=0.3, first_pause=0.01, longest_pause=0.05, unseen_seconds=0.1)


@pytest.fixture
def patient(monkeypatch: pytest.MonkeyPatch) -> Callable[[Patience], None]:
    """Sets how long the command's launches go on."""

    def set_patience(patience: Patience) -> None:
        monkeypatch.setattr("tovarincore.fleet.launching.Patience", lambda: patience)

    set_patience(HASTY)
    return set_patience


def names(ec2: Ec2World) -> Counter[str]:
    """How many instances EC2 has of each name."""
    tags = [{tag["Key"]: tag["Value"] for tag in entry["Tags"]} for entry in ec2.instances()]
    return Counter(entry["Name"] for entry in tags)


def assert_known(ec2: Ec2World, open_intents: int = 0) -> None:
    """The ledger knows every instance, by its id or as an open request, and no name is there twice."""
    noted = {entry.instance_id for entry in Ledger().entries()}
    intents = Ledger().open_intents()
    assert len(intents) == open_intents
    instances = {entry["InstanceId"]: entry for entry in ec2.instances()}
    assert noted <= set(instances)
    for instance_id in set(instances) - noted:
        tags = {tag["Key"]: tag["Value"] for tag in instances[instance_id]["Tags"]}
        assert tags["tovarin_uuid"] in {intent.uuid for intent in intents}
    assert set(names(ec2).values()) <= {1}


THROTTLED = [throttled()] * 6
"""More than the SDK repeats by itself."""


@pytest.mark.parametrize(
    "answers, patience, launched, code, intents",
    [
        pytest.param([*THROTTLED, SERVED], HASTY, 4, 0, 0, id="throttled at first"),
        pytest.param([SERVED, SERVED, *THROTTLED, SERVED], HASTY, 4, 0, 0, id="throttled in the middle"),
        pytest.param([SERVED, SERVED, throttled()], SHORT, 2, 8, 0, id="throttled for ever"),
        pytest.param([LOST, SERVED], HASTY, 4, 0, 0, id="lost at first"),
        pytest.param([SERVED, SERVED, LOST, LOST, SERVED], HASTY, 4, 0, 0, id="lost in the middle"),
    ],
)
def test_a_fault_of_a_moment(
    run: Run,
    ec2: Ec2World,
    patient: Callable[[Patience], None],
    answers: list[Answer],
    patience: Patience,
    launched: int,
    code: int,
    intents: int,
) -> None:
    """What can be repeated is repeated, and what EC2 did although its answer was lost is found."""
    patient(patience)
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", *answers)
        result = run(*LAUNCH, "--count", "4", "--at-once", "2")
    assert result.exit_code == code, result.output
    assert len(ec2.instances()) == launched
    assert_known(ec2, intents)


def test_missing_capacity(run: Run, ec2: Ec2World, patient: object) -> None:
    """It lets the other type be tried; without one nothing is launched."""
    missing = ec2_error("InsufficientInstanceCapacity", "none is left")
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", missing)
        result = run(*LAUNCH, "--count", "2")
        assert result.exit_code == 1 and "none is left" in result.stderr
        assert ec2.instances() == []
        endpoint.script("RunInstances", missing, SERVED)
        assert run(*LAUNCH, "--count", "2", "--at-once", "1", "--or-type", "t3.large").exit_code == 0
    assert {entry["InstanceType"] for entry in ec2.instances()} == {"t3.large"}
    assert_known(ec2)


def test_an_answer_is_lost_and_nothing_can_be_listed(
    run: Run, ec2: Ec2World, patient: Callable[[Patience], None]
) -> None:
    """The command says that the node may be there; the ledger has its uuid, and orphans finds it."""
    patient(SHORT)
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", LOST)
        endpoint.script("DescribeInstances", throttled())
        result = run(*LAUNCH, "--count", "1", "--same-name")
    assert result.exit_code == 5, result.output
    assert "cold-01 may have been launched" in result.stderr
    assert_known(ec2, open_intents=1)


@pytest.mark.parametrize(
    "moment, number",
    [
        ("CreateSecurityGroup is served", 1),
        ("RunInstances arrives", 1),
        ("RunInstances is served", 1),
        ("RunInstances arrives", 6),
        ("RunInstances is served", 10),
    ],
)
def test_ctrl_c_at_a_moment(ec2: Ec2World, moment: str, number: int) -> None:
    """What is under way ends and is noted with its id, and the exit code is 130."""
    seen = Counter[str]()

    def tell(event: str) -> None:
        seen[event] += 1
        if event == moment and seen[event] == number:
            process.send_signal(signal.SIGINT)

    with Watched(ec2.endpoint.url, tell) as endpoint:
        ec2.send_requests_to(endpoint.url)
        process = start_command(*LAUNCH, "--count", "20", "--at-once", "4", "--same-name")
        code, _, stderr = finish(process)
    assert code == 130, stderr
    assert "the ledger has all of them" in stderr
    assert len(ec2.instances()) < 20
    assert_known(ec2)


@pytest.mark.parametrize("lines, launched", [(0, 0), (1, 1), (2, 1), (3, 2)])
def test_the_disk_is_full(
    run: Run, ec2: Ec2World, patient: object, monkeypatch: pytest.MonkeyPatch, lines: int, launched: int
) -> None:
    """No node is asked for whose request cannot be noted; one whose id cannot be is known by its request."""
    write = os.pwrite
    written: list[bytes] = []

    def until_full(descriptor: int, data: bytes, place: int) -> int:
        if len(written) >= lines:
            raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))
        written.append(data)
        return write(descriptor, data, place)

    with monkeypatch.context() as full:
        full.setattr("os.pwrite", until_full)
        result = run(*LAUNCH, "--count", "4", "--at-once", "1")
    assert result.exit_code == 4, result.output
    assert "No space left on device" in result.stderr
    assert len(ec2.instances()) == launched
    assert_known(ec2, open_intents=lines % 2)


def test_two_launches_of_the_same_names_at_once(ec2: Ec2World) -> None:
    """With --if-absent the second one waits for the first, and finds all that it made."""
    command = (*LAUNCH, "--count", "5", "--if-absent")
    processes = [start_command(*command) for _ in range(2)]
    ended: list[Any] = [finish(process) for process in processes]
    assert [code for code, _, _ in ended] == [0, 0], ended
    assert sorted(stdout for _, stdout, _ in ended) == ["0 launched, 5 there already\n", "5 launched\n"]
    assert_known(ec2)
    assert sum(names(ec2).values()) == 5


def test_names_that_other_nodes_have_are_refused(run: Run, ec2: Ec2World) -> None:
    """Unless that is asked for; nothing is launched then."""
    ec2.run_instance("cold-02")
    result = run(*LAUNCH, "--count", "3")
    assert result.exit_code == 2
    assert 'others of your nodes are named "cold-02"; nothing was launched' in result.stderr
    assert len(ec2.instances()) == 1
    assert run(*LAUNCH, "--count", "3", "--same-name").exit_code == 0
    assert len(ec2.instances()) == 4
