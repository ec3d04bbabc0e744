"""Tests of the demo as a person runs it, and of what it does when a step goes wrong."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest

from demo.ec2_tour import HEALTHY, NODE_NAMES, run_ec2_demo
from tovarincore.cloud_def import CloudAuth, CloudRegion
from tovarincore.cloud_node import CloudManager

ROOT = Path(__file__).resolve().parents[2]
# Under a minute is promised on an ordinary machine; a busy one may take longer.
PATIENCE_SECONDS = 180


def start_demo(*arguments: str) -> subprocess.Popen[str]:
    """Start `python -m demo` with warnings as errors, in an environment that would mislead it."""
    misleading = {"AWS_PROFILE": "no-such-profile", "HTTP_PROXY": "http://127.0.0.1:1"}
    return subprocess.Popen(
        # Without -X dev, under which asyncio complains on standard error of a machine that is busy.
        [sys.executable, "-W", "error", "-m", "demo", *arguments],
        cwd=ROOT,
        env={**os.environ, **misleading},
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )


def finish(demo: subprocess.Popen[str]) -> tuple[int, str, str]:
    """Exit status, standard output and standard error of a demo, once it has ended."""
    with demo:
        try:
            out, err = demo.communicate(timeout=PATIENCE_SECONDS)
        finally:
            demo.kill()
        return demo.returncode, out, err


def json_lines(text: str) -> list[dict[str, Any]]:
    """The objects of a JSON lines text."""
    return [json.loads(line) for line in text.splitlines()]


def test_the_demo_shows_every_step_as_json_lines() -> None:
    """All steps are right, the node's states follow each other, and the security group is shown."""
    status, out, err = finish(start_demo("--json"))
    assert (status, err) == (0, "")
    _opening, *steps, outcome = json_lines(out)
    assert all(step["ok"] for step in steps)
    assert outcome["ok"]
    assert outcome["steps"] == len(steps)
    states = [node["state"] for step in steps for node in step.get("nodes", []) if node["name"] == HEALTHY]
    assert states == [
        "Starting",
        "Running",
        # The table of the step that ends the silent one.
        "Running",
        "Stopping",
        "Stopped",
        "Starting",
        "Running",
        "Starting",
        "Running",
        "Shutting-down",
        "Terminated",
        "Terminated",
    ]
    assert [rule["protocol"] for rule in steps[-1]["inbound rules"]] == ["tcp"]
    (refused,) = [step for step in steps if "refuses" in step["name"]]
    assert "ami-0123456789abcdef0" in refused["said"][0]


@pytest.mark.thorough(reason="the other form shows the steps, and test_report.py the text")
def test_the_demo_reads_well_for_a_person() -> None:
    """The text names every node with state, readiness and address, and ends with the verdict."""
    status, out, err = finish(start_demo())
    assert (status, err) == (0, "")
    assert "Dry run of a launch" in out
    for name in NODE_NAMES:
        assert name in out
    assert ".amazonaws.com" in out
    assert "EC2 says: " in out
    assert "steps showed what they should" in out.splitlines()[-1]


class ForgetfulManager(CloudManager):
    """A facade whose stop does nothing."""

    def stop_node(self, region: CloudRegion, auth: CloudAuth | None, instance_id: str) -> None:
        """Do nothing."""


def test_a_step_that_goes_wrong_is_named_and_ends_with_status_1(capsys: pytest.CaptureFixture[str]) -> None:
    """A stop that does not stop is noticed; the steps that build on it are not tried."""
    assert run_ec2_demo(json_lines=True, manager=ForgetfulManager()) == 1
    *_, failed, outcome = json_lines(capsys.readouterr().out)
    assert failed["name"] == "Stop the node"
    assert not failed["ok"]
    assert "recorded state" in failed["failed_checks"][0]
    assert outcome["went_wrong"] == ["Stop the node"]


def test_an_unknown_option_is_refused() -> None:
    """A misspelt option is not silently ignored."""
    status, _, err = finish(start_demo("--jsno"))
    assert status == 2
    assert "--jsno" in err
