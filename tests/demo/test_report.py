"""Tests of the report that the demos print."""

from __future__ import annotations

import io
import json

import pytest

from demo.report import DemoStopped, Report
from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, CloudRegion, NodeState


def node(name: str, ready: bool) -> CloudNode:
    """A running node."""
    return CloudNode(
        region=CloudRegion(name="us-east-1", cloud="AWS"),
        instance_id="i-1",
        instance_type_def=CloudInstanceTypeDef(instance_type="t3.small", cpu_count=2, memory_mib=2048),
        name=name,
        dns_address="node.example",
        state=NodeState.RUNNING,
        ready=ready,
    )


def test_steps_that_show_what_they_should_end_with_status_0() -> None:
    """The text names each step with its number, what it said and its table."""
    out = io.StringIO()
    report = Report(json_lines=False, out=out)
    report.open("A demo", {"region": "us-east-1"})
    with report.step("Look") as step:
        step.say("a line")
        step.expect("colour", "blue", "blue")
        step.show_nodes([node("first", True), node("second-with-a-long-name", False)])
    assert report.close() == 0
    lines = out.getvalue().splitlines()
    assert lines[:2] == ["A demo", "  region: us-east-1"]
    assert lines[3].startswith(" 1. Look")
    assert lines[3].endswith("  ok")
    assert lines[4:9] == [
        "    a line",
        "    nodes:",
        "      id   name                     state    ready  address",
        "      i-1  first                    Running  yes    node.example",
        "      i-1  second-with-a-long-name  Running  no     node.example",
    ]
    assert lines[-1].startswith("All 1 steps showed what they should")


def test_a_check_that_does_not_hold_stops_the_demo_with_status_1() -> None:
    """The step, what was wanted and what was seen are named."""
    out = io.StringIO()
    report = Report(json_lines=False, out=out)
    with pytest.raises(DemoStopped, match="Look"), report.step("Look") as step:
        step.expect("colour", "red", "blue")
    assert report.close() == 1
    assert "WRONG" in out.getvalue()
    assert "! colour: wanted 'blue', saw 'red'" in out.getvalue()
    assert out.getvalue().splitlines()[-1].endswith(": Look.")


def test_an_exception_in_a_step_counts_as_a_failed_check() -> None:
    """The exception's traceback is part of what is printed."""
    out = io.StringIO()
    report = Report(json_lines=False, out=out)
    with pytest.raises(DemoStopped), report.step("Look"):
        raise LookupError("nothing there")
    assert report.close() == 1
    assert "LookupError: nothing there" in out.getvalue()
    assert "Traceback" in out.getvalue()


def test_a_demo_without_steps_has_not_shown_anything() -> None:
    """Nothing checked is nothing shown: status 1."""
    assert Report(json_lines=False, out=io.StringIO()).close() == 1


def test_json_lines_carry_the_same_as_the_text() -> None:
    """One object per line: the facts, each step with its tables and checks, the outcome."""
    out = io.StringIO()
    report = Report(json_lines=True, out=out)
    report.open("A demo", {"region": "us-east-1"})
    with report.step("Look") as step:
        step.say("a line")
        step.show_nodes([node("first", True)])
    with pytest.raises(DemoStopped), report.step("Look again") as step:
        step.expect("colour", "red", "blue")
    report.close()
    opening, look, again, outcome = [json.loads(line) for line in out.getvalue().splitlines()]
    assert opening == {"demo": "A demo", "region": "us-east-1"}
    assert look.pop("seconds") >= 0
    assert look == {
        "step": 1,
        "name": "Look",
        "ok": True,
        "said": ["a line"],
        "failed_checks": [],
        "nodes": [
            {"id": "i-1", "name": "first", "state": "Running", "ready": "yes", "address": "node.example"}
        ],
    }
    assert (again["ok"], again["failed_checks"]) == (False, ["colour: wanted 'blue', saw 'red'"])
    assert (outcome["ok"], outcome["steps"], outcome["went_wrong"]) == (False, 2, ["Look again"])


def test_an_empty_table_says_so() -> None:
    """No nodes is a fact worth printing."""
    out = io.StringIO()
    report = Report(json_lines=False, out=out)
    with report.step("Look") as step:
        step.show_nodes([])
    assert "    nodes: none" in out.getvalue().splitlines()
