"""The nodes of a region, and one of them."""

from __future__ import annotations

import json
import re
from collections.abc import Callable
from typing import Any

import pytest

from stage.ec2 import Ec2World
from stage.patience import in_time
from tests.command.conftest import Run, send_to_worker
from tovarincore.testing.reference_worker import ReferenceWorker


def test_nodes_show_state_and_why_a_worker_is_not_ready(run: Run, ec2: Ec2World) -> None:
    """One row per node: the ready one is called ready, the other says what is wrong."""
    ready, cold = ec2.run_instance("ready-1"), ec2.run_instance("cold-1")
    result = run("list", "us-east-1")
    assert (result.exit_code, result.stderr) == (0, "")
    header, *rows = result.stdout.splitlines()
    assert header.split() == ["NAME", "INSTANCE", "ID", "STATE", "WORKER", "TYPE", "ADDRESS"]
    assert rows[0].split()[:4] == ["ready-1", ready, "Running", "ready"]
    assert rows[1].startswith(f"cold-1   {cold}  Running  port closed or unreachable  ")


def test_terminated_nodes_are_hidden_unless_asked_for(
    run: Run, run_json: Callable[..., Any], ec2: Ec2World
) -> None:
    """The listing leaves them out and says how many; --all shows them."""
    gone = ec2.run_instance("cold-1")
    ec2.raw.terminate_instances(InstanceIds=[gone])
    result = run("list", "us-east-1")
    assert result.stdout == "No nodes in the region us-east-1.\n"
    assert result.stderr == "1 terminated or shutting down: --all shows them\n"
    (node,) = run_json("list", "us-east-1", "--all")
    assert (node["instance_id"], node["state"], node["ready"]) == (gone, "Terminated", False)


def test_without_probes_no_worker_is_asked(
    run_json: Callable[..., Any], ec2: Ec2World, healthy_worker: ReferenceWorker
) -> None:
    """--no-probe leaves the workers alone and readiness open."""
    ec2.run_instance("ready-1")
    before = healthy_worker.requests
    (node,) = run_json("list", "us-east-1", "--no-probe")
    assert (node["ready"], healthy_worker.requests) == (None, before)


def test_silent_workers_are_asked_all_at_once(
    run_json: Callable[..., Any], ec2: Ec2World, healthy_worker: ReferenceWorker
) -> None:
    """Twelve workers that never answer take about as long as one: two seconds."""
    for number in range(12):
        ec2.run_instance(f"silent-{number}")
    with ReferenceWorker(answer=False) as silent:
        send_to_worker("silent-*", silent.port)
        with in_time(2):
            nodes = run_json("list", "us-east-1")
    assert [node["ready"] for node in nodes] == [False] * 12
    assert "no answer within 2 s" in nodes[0]["not_ready_because"]


def test_a_node_is_shown_with_its_load(run: Run, run_json: Callable[..., Any], ec2: Ec2World) -> None:
    """Name, id and uuid all find it; a ready worker tells its machine's load."""
    instance_id = ec2.run_instance("ready-1")
    document = run_json("show", "us-east-1", "ready-1")
    assert document["instance_id"] == instance_id
    assert document["ready"] is True
    assert document["memory_total_bytes"] > 0
    for wanted in (instance_id, "uuid-of-ready-1"):
        lines = run("show", "us-east-1", wanted).stdout.splitlines()
        assert lines[0].split() == ["Name", "ready-1"]
    assert any(line.startswith("Memory in use") and line.endswith("MiB") for line in lines)


def test_a_node_that_is_not_there_is_not_found(run: Run, ec2: Ec2World) -> None:
    """An unknown name is an error with its own code."""
    result = run("show", "us-east-1", "nobody")
    assert result.exit_code == 3
    assert result.stderr.splitlines() == [
        'error: there is no node "nobody" in this region',
        "  try: list your nodes: tovarin-nodes list us-east-1 --all",
    ]


def test_a_name_of_two_nodes_is_not_guessed(run: Run, ec2: Ec2World) -> None:
    """With two nodes of a name the ids are offered; one that is terminated does not count."""
    first, second = ec2.run_instance("cold-1"), ec2.run_instance("cold-1")
    result = run("show", "us-east-1", "cold-1")
    assert result.exit_code == 3
    assert f'"cold-1" means 2 nodes: {first} (running), {second} (running)' in result.stderr
    ec2.raw.terminate_instances(InstanceIds=[first])
    assert second in run("show", "us-east-1", "cold-1").stdout


def test_a_type_that_only_the_sdk_knows_is_listed(run: Run, ec2: Ec2World) -> None:
    """Without its size, which no file has."""
    ec2.run_instance("cold-1", InstanceType="mac1.metal")
    assert "mac1.metal" in run("list", "us-east-1").stdout
    assert re.search("^mac1.metal +- +- +0", run("types", "us-east-1").stdout, re.MULTILINE)


@pytest.mark.usefixtures("older_sdk")
def test_an_unknown_type_leads_to_the_doctor(run: Run, ec2: Ec2World) -> None:
    """An instance that stops the listing is explained by what to do about it."""
    ec2.run_instance("cold-1", InstanceType="mac1.metal")
    result = run("list", "us-east-1")
    assert result.exit_code == 4
    assert "a type that is not in the list of instance types" in result.stderr
    assert "tovarin-nodes doctor us-east-1 names the type" in result.stderr


def test_a_region_that_fails_is_told_once(run: Run, run_json: Callable[..., Any], ec2: Ec2World) -> None:
    """By its name; nodes of the others are listed, and nobody says that there are none."""
    ec2.run_instance("cold-1")
    result = run("list", "-r", "us-east-1", "-r", "eu-west-1", "--no-probe")
    assert result.exit_code == 4 and "cold-1" in result.stdout
    assert result.stderr.splitlines()[0].startswith("error: AWS:eu-west-1: no credentials are stored")
    assert result.stderr.count("no credentials") == 1
    both = run("list", "-r", "eu-west-1", "-r", "eu-west-2")
    assert both.stdout == ""
    assert [line.split(": no")[0] for line in both.stderr.splitlines()[:2]] == [
        "AWS:eu-west-2",
        "error: AWS:eu-west-1",
    ]
    document = json.loads(run("list", "-r", "us-east-1", "-r", "eu-west-1", "--no-probe", "--json").stdout)
    assert [note.split(": ")[0] for note in document["notes"]] == ["AWS:eu-west-1"]
