"""Starting, stopping, rebooting and terminating."""

from __future__ import annotations

import json
import signal
import subprocess
import time
from collections.abc import Callable
from typing import Any

import pytest

from stage.ec2 import Ec2World
from stage.fault import Answer, ec2_error
from tests.command.conftest import Run, finish, start_command
from tovarincore.cloud_node import cloud_manager_glbl


def state(ec2: Ec2World, instance_id: str) -> str:
    """The state of an instance as EC2 has it."""
    (found,) = [entry for entry in ec2.instances() if entry["InstanceId"] == instance_id]
    return str(found["State"]["Name"])


def test_a_node_is_stopped_started_and_rebooted(run: Run, ec2: Ec2World) -> None:
    """Each command sends its request for the named node and says what happens."""
    instance_id = ec2.run_instance("cold-1")
    assert run("stop", "us-east-1", "cold-1").stdout == f"cold-1 ({instance_id}) is stopping\n"
    assert state(ec2, instance_id) == "stopped"
    assert run("start", "us-east-1", "cold-1").stdout == f"cold-1 ({instance_id}) is starting\n"
    assert state(ec2, instance_id) == "running"
    with ec2.faults() as endpoint:
        assert run("reboot", "us-east-1", "cold-1").stdout == f"cold-1 ({instance_id}) is rebooting\n"
        assert "RebootInstances" in endpoint.actions()


def test_terminate_asks_first(run: Run, ec2: Ec2World) -> None:
    """No, and no answer at all, leave the node alone; yes ends it."""
    instance_id = ec2.run_instance("cold-1")
    question = f"Terminate cold-1 ({instance_id}, running) in AWS:us-east-1? [y/N]: "
    refused = run("terminate", "us-east-1", "cold-1", answer="n\n")
    assert (refused.exit_code, refused.stderr) == (1, question + "n\nerror: nothing was changed\n")
    unanswered = run("terminate", "us-east-1", "cold-1")
    assert unanswered.exit_code == 1
    assert "answer it in advance with --yes" in unanswered.stderr
    assert state(ec2, instance_id) == "running"
    agreed = run("terminate", "us-east-1", "cold-1", answer="y\n")
    assert agreed.exit_code == 0
    assert agreed.stdout == f"cold-1 ({instance_id}) is shutting down\n"
    assert state(ec2, instance_id) == "terminated"


def test_ctrl_c_at_the_question_ends_nothing(ec2: Ec2World) -> None:
    """The process says so and ends with 130, as wherever Ctrl-C is pressed."""
    instance_id = ec2.run_instance("cold-1")
    process = start_command("terminate", "us-east-1", "cold-1", stdin=subprocess.PIPE)
    assert process.stderr is not None
    asked = ""
    while not asked.endswith("[y/N]: "):
        asked += process.stderr.read(1)
    process.send_signal(signal.SIGINT)
    code, stdout, stderr = finish(process)
    assert (code, stdout, stderr) == (130, "", "\nerror: interrupted: nothing was changed\n")
    assert state(ec2, instance_id) == "running"


def test_several_nodes_are_ended_at_once(run_json: Callable[..., Any], ec2: Ec2World) -> None:
    """Every named node is ended, one named twice once."""
    first, second = ec2.run_instance("cold-1"), ec2.run_instance("cold-2")
    ended = run_json("terminate", "us-east-1", "cold-1", second, first, "--yes")
    assert [entry["instance_id"] for entry in ended] == [first, second]
    assert {state(ec2, first), state(ec2, second)} == {"terminated"}


def test_a_name_that_is_not_there_ends_nothing(run: Run, ec2: Ec2World) -> None:
    """A typing error among several names is found before anything is ended."""
    instance_id = ec2.run_instance("cold-1")
    assert run("terminate", "us-east-1", "cold-1", "cold-9", "--yes").exit_code == 3
    assert state(ec2, instance_id) == "running"


def test_a_node_that_cannot_be_ended_does_not_keep_the_others(run: Run, ec2: Ec2World) -> None:
    """A protected instance is reported, the next one is ended anyway."""
    protected, other = ec2.run_instance("cold-1"), ec2.run_instance("cold-2")
    ec2.raw.modify_instance_attribute(InstanceId=protected, DisableApiTermination={"Value": True})
    result = run("terminate", "us-east-1", "cold-1", "cold-2", "--yes", "--json")
    assert result.exit_code == 1
    assert [entry["terminated"] for entry in json.loads(result.stdout)["items"]] == [False, True]
    assert (state(ec2, protected), state(ec2, other)) == ("running", "terminated")


def test_a_state_that_does_not_allow_it_is_explained(run: Run, ec2: Ec2World) -> None:
    """EC2's refusal is one line with its code."""
    ec2.run_instance("cold-1")
    with ec2.faults() as endpoint:
        endpoint.script("StartInstances", ec2_error("IncorrectInstanceState", "it is stopping"))
        result = run("start", "us-east-1", "cold-1")
    assert result.exit_code == 1
    assert result.stderr.splitlines() == [
        "error: EC2 refused StartInstances: it is stopping (IncorrectInstanceState)",
        "  try: look at its state: tovarin-nodes show us-east-1 NODE",
    ]


def test_a_question_never_precedes_json(run: Run, ec2: Ec2World) -> None:
    """A program that reads documents is told to answer in advance, and nothing is ended."""
    instance_id = ec2.run_instance("cold-1")
    result = run("terminate", "us-east-1", "cold-1", "--json", answer="y\n")
    assert (result.exit_code, result.stdout) == (2, "")
    error = json.loads(result.stderr)["error"]
    assert error["remedy"] == "answer it in advance with --yes"
    assert state(ec2, instance_id) == "running"


@pytest.mark.parametrize(
    "number, why, code",
    [(signal.SIGINT, "interrupted", 130), (signal.SIGALRM, "the 60 s of --timeout are over", 7)],
    ids=["ctrl-c", "timeout"],
)
def test_what_is_cut_short_says_what_may_have_happened(
    run: Run, ec2: Ec2World, monkeypatch: pytest.MonkeyPatch, number: signal.Signals, why: str, code: int
) -> None:
    """The request was on its way: its end is not known, and how to find out is said."""
    instance_id = ec2.run_instance("cold-1")
    monkeypatch.setattr(cloud_manager_glbl, "stop_node", lambda *arguments: signal.raise_signal(number))
    result = run("stop", "us-east-1", "cold-1", "--timeout", "60")
    assert (result.exit_code, result.stdout) == (code, "")
    assert result.stderr.splitlines() == [
        f"error: {why}: cold-1 ({instance_id}) may be stopping anyway",
        f"  try: look at its state: tovarin-nodes show us-east-1 {instance_id}",
    ]


def test_a_request_that_takes_too_long_is_given_up(run: Run, ec2: Ec2World) -> None:
    """The time of --timeout ends the wait for an answer, whatever the libraries underneath catch."""
    ec2.run_instance("cold-1")
    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstances", Answer(delay=30.0, hang_up=True))
        start = time.monotonic()
        result = run("list", "us-east-1", "--timeout", "1")
        elapsed = time.monotonic() - start
    assert (result.exit_code, result.stderr) == (7, "error: the 1 s of --timeout are over\n")
    assert elapsed < 25
