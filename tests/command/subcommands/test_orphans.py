"""Nodes that this command has not launched."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from stage.ec2 import Ec2World
from tests.command.conftest import Run
from tovarincore.fleet import Ledger


def test_only_nodes_that_are_not_in_the_ledger_are_listed(
    run: Run, run_json: Callable[..., Any], ec2: Ec2World
) -> None:
    """A launched node is none, a stranger under the same user name is one, a terminated one is not."""
    run("launch", "us-east-1", "--type", "t3.small", "--name", "cold-1")
    stranger, gone = ec2.run_instance("ready-2"), ec2.run_instance("cold-3")
    ec2.run_instance("cold-4", user_name="somebody-else")
    ec2.raw.terminate_instances(InstanceIds=[gone])
    (orphan,) = run_json("orphans", "us-east-1")
    assert (orphan["instance_id"], orphan["ready"]) == (stranger, True)
    assert orphan["launched"].endswith("+00:00")
    header, row = run("orphans", "us-east-1").stdout.splitlines()
    assert header.split() == ["NAME", "INSTANCE", "ID", "STATE", "WORKER", "TYPE", "AGE", "ADDRESS"]
    assert row.split()[:4] == ["ready-2", stranger, "Running", "ready"]
    assert " min  " in row


def test_only_a_named_orphan_is_ended_after_asking(run: Run, ec2: Ec2World) -> None:
    """A launched node cannot be ended here; an orphan is, once the answer is yes."""
    run("launch", "us-east-1", "--type", "t3.small", "--name", "cold-1")
    stranger, other = ec2.run_instance("cold-2"), ec2.run_instance("cold-3")
    assert run("orphans", "us-east-1", "--end", "cold-1", "--yes").exit_code == 3
    assert run("orphans", "us-east-1", "--end", "cold-2").exit_code == 1
    assert run("orphans", "us-east-1", "--end", "cold-2", answer="y\n").exit_code == 0
    states = {entry["InstanceId"]: entry["State"]["Name"] for entry in ec2.instances()}
    assert (states[stranger], states[other]) == ("terminated", "running")


def test_no_orphans_is_a_sentence(run: Run, ec2: Ec2World) -> None:
    """An empty account has none."""
    assert run("orphans", "us-east-1").stdout == "No orphans in the region us-east-1.\n"


def test_launches_that_were_cut_short_are_no_orphans(run: Run, ec2: Ec2World) -> None:
    """A node with the uuid of an open request is noted, and told."""
    instance_id = ec2.run_instance("cold-1")
    Ledger().intend("AWS:us-east-1", "uuid-of-cold-1", "cold-1", "t3.small")
    result = run("orphans", "us-east-1")
    assert result.stdout == "No orphans in the region us-east-1.\n"
    assert f"cold-1 ({instance_id}) belongs to a launch that was cut short: noted" in result.stderr
    assert [entry.instance_id for entry in Ledger().entries()] == [instance_id]
    assert Ledger().open_intents() == []
