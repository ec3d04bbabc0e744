"""Watching nodes."""

from __future__ import annotations

import json
import signal
from types import SimpleNamespace

import pytest

from stage.ec2 import Ec2World
from stage.fault import SERVED, throttled, unauthorized
from tests.command.conftest import Run, finish, start_command
from tovarincore.command.subcommands import waiting


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
