"""Watching nodes."""

from __future__ import annotations

import json
import signal
from collections.abc import Callable
from types import SimpleNamespace
from typing import Any

import pytest

from stage.ec2 import Ec2World
from stage.fault import SERVED, throttled, unauthorized
from tests.command.conftest import Run, finish, start_command
from tovarincore.command.nodes import activity
from tovarincore.command.subcommands import waiting
from tovarincore.fleet import Ledger


@pytest.fixture
def pauses(monkeypatch: pytest.MonkeyPatch) -> list[float]:
    """The pauses between refreshes, which take no time."""
    made: list[float] = []
    monkeypatch.setattr(waiting, "time", SimpleNamespace(sleep=made.append))
    return made


def test_watching_refreshes_no_faster_than_the_floor(run: Run, ec2: Ec2World, pauses: list[float]) -> None:
    """A shorter interval is raised to five seconds, and that is said."""
    instance_id = ec2.run_instance("ready-1")
    result = run("watch", "us-east-1", "--every", "0.1", "--count", "2")
    assert result.exit_code == 0
    assert pauses == [5.0]
    assert result.stderr == "note: refreshing every 5 seconds, which is the least\n"
    assert result.stdout.count(instance_id) == 2


def test_each_refresh_is_one_line_of_json(run: Run, ec2: Ec2World, pauses: list[float]) -> None:
    """A program reads a list of nodes per line."""
    ec2.run_instance("ready-1")
    lines = run("watch", "us-east-1", "--count", "2", "--json").stdout.splitlines()
    documents = [json.loads(line) for line in lines]
    assert [[node["ready"] for node in document["items"]] for document in documents] == [[True], [True]]
    assert {(document["version"], document["kind"]) for document in documents} == {(1, "nodes")}
    assert pauses == [10.0]


def test_a_lost_refresh_does_not_end_the_watch(
    run: Run, ec2: Ec2World, monkeypatch: pytest.MonkeyPatch
) -> None:
    """An unreachable EC2 is told and watching goes on; missing rights end it."""
    ec2.run_instance("ready-1")
    url = ec2.endpoint.url
    with ec2.faults() as refusing:
        refusing.script("DescribeInstances", unauthorized())
        destinations = iter(["http://127.0.0.1:9", url, refusing.url])
        ec2.send_requests_to(url)
        clock = SimpleNamespace(sleep=lambda seconds: ec2.send_requests_to(next(destinations)))
        monkeypatch.setattr(waiting, "time", clock)
        result = run("watch", "us-east-1", "--count", "9")
    assert result.exit_code == 6
    assert result.stdout.count("ready-1") == 2
    assert result.stderr.count("error: EC2 cannot be reached") == 1
    assert "error: EC2 refused DescribeInstances" in result.stderr


def test_ctrl_c_ends_the_watch_with_one_line(ec2: Ec2World) -> None:
    """The process ends with 130."""
    process = start_command("watch", "us-east-1")
    assert process.stdout is not None
    assert process.stdout.readline().startswith("AWS:us-east-1 at ")
    process.send_signal(signal.SIGINT)
    code, _, stderr = finish(process)
    assert (code, stderr) == (130, "error: interrupted: stopped watching\n")


def test_a_busy_ec2_does_not_end_the_watch(run: Run, ec2: Ec2World, pauses: list[float]) -> None:
    """Not even at first: the watch waits longer, and goes on."""
    ec2.run_instance("ready-1")
    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstances", *[throttled()] * 4, SERVED)
        result = run("watch", "us-east-1", "--count", "3")
    assert result.exit_code == 0, result.output
    assert pauses == [20.0, 40.0]
    assert result.stdout.count("ready-1") == 1


def test_several_nodes_are_waited_for(run: Run, run_json: Callable[..., Any], ec2: Ec2World) -> None:
    """Each is told; a program gets them all."""
    ids = [ec2.run_instance(f"ready-{number}") for number in (1, 2)]
    result = run("wait", "us-east-1", "ready-1", "ready-2")
    assert (result.exit_code, result.stdout.count(" is ready")) == (0, 2), result.output
    found = run_json("wait", "us-east-1", "ready-1", "ready-2")
    assert [(node["instance_id"], node["ready"]) for node in found] == [(each, True) for each in ids]


def test_other_states_are_waited_for(run: Run, ec2: Ec2World) -> None:
    """A stopped node is stopped; one that runs is not within the time; one that is gone will never be."""
    stopped, running, gone = (ec2.run_instance(f"cold-{number}") for number in (1, 2, 3))
    ec2.raw.stop_instances(InstanceIds=[stopped])
    ec2.raw.terminate_instances(InstanceIds=[gone])
    assert run("wait", "us-east-1", stopped, "--for", "stopped").stdout == f"cold-1 ({stopped}) is stopped\n"
    late = run("wait", "us-east-1", stopped, running, "--for", "stopped", "--timeout", "0")
    assert late.exit_code == 7
    assert f"cold-2 ({running}) is not stopped: it is running" in late.stderr
    never = run("wait", "us-east-1", gone, "--for", "running")
    assert never.exit_code == 1
    assert "1 of 1 nodes do not get running any more" in never.stderr
    assert run("wait", "us-east-1", gone, "--for", "terminated").exit_code == 0


@pytest.mark.parametrize("command", [("list",), ("watch", "--count", "1")], ids=["list", "watch"])
def test_looks_count_for_the_option_idle(
    run: Run, ec2: Ec2World, monkeypatch: pytest.MonkeyPatch, command: tuple[str, ...]
) -> None:
    """A look for another purpose is noted too, and one that cannot be noted is shown all the same."""
    instance_id = ec2.run_instance("ready-1")
    monkeypatch.setattr(activity, "IDLE_PERCENT", 101.0)
    assert run(command[0], "us-east-1", *command[1:]).exit_code == 0
    (node,) = ec2.listed()
    assert node.instance_id == instance_id
    assert activity.idle_since(node) is not None
    path = Ledger().path.with_name("activity.json")
    path.write_text("nonsense")
    assert "ready-1" in run(command[0], "us-east-1", *command[1:]).stdout
