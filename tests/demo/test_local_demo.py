"""Tests of the local demo, on a real engine where one can run."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import pytest

from demo.local import NEWEST_FIRST, run_local_demo
from stage.engine import EngineNotRunnable
from stage.engine_docker import DockerServer

ROOT = Path(__file__).resolve().parents[2]


def test_the_local_demo_shows_a_workers_life() -> None:
    """Every step checks what it shows; the end says that all were right."""
    done = subprocess.run(
        [sys.executable, "-X", "dev", "-W", "error", "-m", "demo", "--local", "--json"],
        cwd=ROOT,
        capture_output=True,
        text=True,
        timeout=180,
        check=False,
    )
    title, start, *steps, outcome = map(json.loads, done.stdout.splitlines())
    if not start["ok"]:
        pytest.skip(f"no container engine can run here: {start['failed_checks'][0]}")
    assert (done.returncode, done.stderr) == (0, "")
    assert title["demo"] == "Tovarin cloud nodes in local containers"
    assert [step["failed_checks"] for step in steps] == [[]] * len(steps)
    assert steps[1]["said"] == [", ".join(NEWEST_FIRST)]
    assert [row["ready"] for step in steps for row in step.get("nodes", [])].count("yes") == 3
    assert steps[-1]["nodes"] == []
    assert (outcome["ok"], outcome["went_wrong"]) == (True, [])


def test_a_machine_without_an_engine_is_told_why(
    monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    """The demo ends with status 1 and the reason in its first step."""

    def refuse(server: DockerServer) -> None:
        raise EngineNotRunnable("starting a container engine needs root")

    monkeypatch.setattr(DockerServer, "_check_machine", refuse)
    assert run_local_demo(json_lines=True) == 1
    _, start, outcome = map(json.loads, capsys.readouterr().out.splitlines())
    assert start["failed_checks"] == ["starting a container engine needs root"]
    assert outcome["ok"] is False
