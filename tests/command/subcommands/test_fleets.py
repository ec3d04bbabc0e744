"""Choosing many nodes, and changing them."""

from __future__ import annotations

import json
from collections.abc import Callable
from datetime import datetime, timedelta, timezone
from pathlib import Path
from typing import Any

import pytest

from stage.ec2 import Ec2World
from tests.command.conftest import Run
from tovarincore.fleet import Ledger

LAUNCH = ("launch", "us-east-1", "--type", "t3.small")


def names(ec2: Ec2World, *states: str) -> list[str]:
    """The names of the instances that are in one of the states."""
    return sorted(
        tag["Value"]
        for entry in ec2.instances()
        if entry["State"]["Name"] in states
        for tag in entry["Tags"]
        if tag["Key"] == "Name"
    )


def launch(run: Run, count: int, name: str = "cold-{}") -> None:
    """Launch nodes that are in the ledger then."""
    for number in range(1, count + 1):
        result = run(*LAUNCH, "--name", name.format(number))
        assert result.exit_code == 0, result.output


def backdate(path: Path, ago: timedelta) -> None:
    """Let the launches in the ledger be older."""
    lines = [json.loads(line) for line in path.read_text().splitlines()]
    for line in lines:
        line["launched"] = (datetime.now(timezone.utc) - ago).isoformat(timespec="seconds")
    path.write_text("".join(json.dumps(line) + "\n" for line in lines))


def test_what_would_happen_is_listed_and_asked(run: Run, ec2: Ec2World) -> None:
    """No answer changes nothing; yes ends them all, one line each."""
    launch(run, 4)
    asked = run("terminate", "us-east-1", "--all", answer="n\n")
    assert asked.exit_code == 1
    lines = asked.stderr.splitlines()
    assert [line.split(" (")[0] for line in lines[:4]] == ["cold-1", "cold-2", "cold-3", "cold-4"]
    assert lines[4] == "Terminate these 4 nodes in AWS:us-east-1? [y/N]: n"
    assert len(names(ec2, "running")) == 4
    ended = run("terminate", "us-east-1", "--all", answer="y\n")
    assert ended.exit_code == 0
    assert ended.stdout.count("is shutting down") == 4
    assert names(ec2, "terminated") == ["cold-1", "cold-2", "cold-3", "cold-4"]


def test_a_dry_run_only_lists(run: Run, run_json: Callable[..., Any], ec2: Ec2World) -> None:
    """Nothing is asked and nothing is done."""
    launch(run, 2)
    with ec2.faults() as endpoint:
        listed = run_json("stop", "us-east-1", "--all", "--dry-run")
        assert "StopInstances" not in endpoint.actions()
    assert [node["name"] for node in listed] == ["cold-1", "cold-2"]
    assert "cold-2" in run("terminate", "us-east-1", "cold-2", "--dry-run").stdout


def test_only_nodes_of_the_ledger_are_meant_unless_told(run: Run, ec2: Ec2World) -> None:
    """A stranger's node with a fitting name is left out, and said to be."""
    launch(run, 1, "web-{:02}")
    ec2.run_instance("web-stranger")
    left = run("terminate", "us-east-1", "--match", "web-*", "--yes")
    assert left.exit_code == 0
    assert "1 not launched from here, left out: --strangers takes them too" in left.stderr
    assert names(ec2, "running") == ["web-stranger"]
    assert run("terminate", "us-east-1", "--match", "web-*", "--strangers", "--yes").exit_code == 0
    assert names(ec2, "running") == []


def test_a_pattern_chooses_by_name_and_only_fitting_states(run: Run, ec2: Ec2World) -> None:
    """start takes what is stopped, stop what runs."""
    launch(run, 2, "web-{}")
    launch(run, 1, "db-{}")
    assert run("stop", "us-east-1", "--match", "web-*", "--yes").stdout.count("is stopping") == 2
    assert names(ec2, "stopped") == ["web-1", "web-2"]
    again = run("stop", "us-east-1", "--match", "web-*", "--yes")
    assert (again.exit_code, again.stdout) == (0, "No nodes to stop in the region us-east-1.\n")
    assert run("start", "us-east-1", "--all", "--yes").stdout.count("is starting") == 2
    assert run("reboot", "us-east-1", "web-1", "db-1", "--yes").stdout.count("is rebooting") == 2


def test_old_nodes_are_chosen_by_the_ledgers_time(run: Run, ec2: Ec2World) -> None:
    """Younger ones stay."""
    launch(run, 1, "old-{}")
    backdate(Ledger().path, timedelta(hours=13))
    launch(run, 1, "new-{}")
    assert run("terminate", "us-east-1", "--older-than", "12h", "--yes").exit_code == 0
    assert (names(ec2, "terminated"), names(ec2, "running")) == (["old-1"], ["new-1"])


def test_the_age_of_strangers_is_asked_of_ec2(run: Run, ec2: Ec2World) -> None:
    """They have just been launched."""
    ec2.run_instance("cold-1")
    options = ("--strangers", "--yes")
    assert "No nodes" in run("terminate", "us-east-1", "--older-than", "1h", *options).stdout
    assert run("terminate", "us-east-1", "--older-than", "0s", *options).exit_code == 0
    assert names(ec2, "terminated") == ["cold-1"]


def test_idle_nodes_are_those_that_every_look_found_idle(
    run: Run, ec2: Ec2World, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A node without a look for a while, a busy one and a silent one are not."""
    launch(run, 3, "ready-{}")
    launch(run, 1, "cold-{}")
    load = {"ready-1": 1.0, "ready-2": 1.0, "ready-3": 90.0}
    monkeypatch.setattr(
        "tovarincore.webs_client.WebSocketClient.refresh_system_stat",
        lambda client: setattr(client.node, "cpu_percent", load[client.node.name]),
    )
    first = run("terminate", "us-east-1", "--idle", "30m", "--yes")
    assert "no idle node has been looked at for that long" in first.stderr
    path = Ledger().path.with_name("activity.json")
    looks = json.loads(path.read_text())
    assert len(looks) == 2
    now = datetime.now(timezone.utc)
    for key, minutes in zip(looks, (5, 11), strict=True):
        looks[key] = {
            "idle_since": (now - timedelta(hours=1)).isoformat(),
            "seen": (now - timedelta(minutes=minutes)).isoformat(),
        }
    path.write_text(json.dumps(looks))
    assert run("terminate", "us-east-1", "--idle", "30m", "--yes").exit_code == 0
    assert names(ec2, "terminated") == ["ready-1"]


@pytest.mark.parametrize(
    "arguments, words",
    [
        ((), "say which nodes are meant"),
        (("cold-1", "--all"), "but not both"),
        (("--idle", "soon"), "is no time"),
        (("--older-than", "12"), "give a number and s, m, h or d"),
    ],
)
def test_a_choice_that_is_none_is_refused(
    run: Run, ec2: Ec2World, arguments: tuple[str, ...], words: str
) -> None:
    """Nothing is listed or ended."""
    result = run("terminate", "us-east-1", *arguments)
    assert result.exit_code == 2
    assert words in result.stderr
