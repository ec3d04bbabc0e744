"""What was launched from this machine."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from stage.ec2 import Ec2World
from stage.fault import LOST
from tests.command.conftest import Run


def test_launches_are_listed_and_those_cut_short_are_open(
    run: Run, run_json: Callable[..., Any], ec2: Ec2World
) -> None:
    """A lost answer leaves a node and an open request; a refusal leaves neither."""
    launch = ("launch", "us-east-1", "--type", "t3.small")
    assert run(*launch, "--name", "cold-1").exit_code == 0
    assert run(*launch, "--name", "cold-2", "--key-pair", "none").exit_code == 3
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", LOST)
        assert run(*launch, "--name", "cold-3").exit_code == 5
    result = run("history", "us-east-1", "--json")
    assert "tovarin-nodes orphans us-east-1" in result.stdout
    found = [(item["name"], item["outcome"], item["region"]) for item in run_json("history")]
    assert found == [("cold-1", "launched", "AWS:us-east-1"), ("cold-3", "open", "AWS:us-east-1")]
    assert len(run_json("history", "--count", "1")) == 1
    assert run_json("history", "local") == []


def test_an_empty_history_is_a_sentence(run: Run, ec2: Ec2World) -> None:
    """Nothing was launched."""
    assert run("history").stdout == "Nothing was launched from this machine.\n"
