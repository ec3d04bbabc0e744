"""The report of what works and what does not."""

from __future__ import annotations

import json
from pathlib import Path

from stage.ec2 import Ec2World
from stage.fault import unauthorized
from tests.command.conftest import Run

Verdicts = dict[str, tuple[str, str, str]]


def verdicts(text: str) -> Verdicts:
    """Level, text and remedy by subject; the last line of a subject."""
    return {
        entry["subject"]: (entry["verdict"], entry["text"], entry["remedy"])
        for entry in json.loads(text)["items"]
    }


def test_a_healthy_account_has_nothing_that_fails(run: Run, ec2: Ec2World) -> None:
    """Each line is ok, but for the emulator's address and the group, which is looked for and not made."""
    ec2.run_instance("cold-1")
    result = run("doctor", "us-east-1", "--json")
    assert (result.exit_code, result.stderr) == (0, "")
    assert {subject: level for subject, (level, _, _) in verdicts(result.stdout).items()} == {
        "configuration": "ok",
        "worker connection": "ok",
        "AWS:us-east-1 connection": "warn",
        "AWS:us-east-1 credentials": "ok",
        "AWS:us-east-1 clock": "ok",
        "AWS:us-east-1 network": "ok",
        "AWS:us-east-1 security group": "warn",
        "AWS:us-east-1 images": "ok",
        "AWS:us-east-1 key pair": "ok",
        "AWS:us-east-1 instances": "ok",
        "AWS:us-east-1 worker token": "warn",
    }
    assert ec2.security_groups() == []


def test_with_launch_there_is_a_dry_run(run: Run, ec2: Ec2World) -> None:
    """The last line tells whether EC2 would launch, and the group is there afterwards."""
    result = run("doctor", "us-east-1", "--launch")
    assert result.exit_code == 0, result.output
    assert result.stdout.splitlines()[-1] == "ok      AWS:us-east-1 dry run: EC2 would launch a t3.small"
    assert len(ec2.security_groups()) == 1
    assert ec2.instances() == []


def test_a_refused_dry_run_is_a_failure_with_a_remedy(run: Run, ec2: Ec2World) -> None:
    """The line says what EC2 said, the exit code that something does not work."""
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", unauthorized())
        result = run("doctor", "us-east-1", "--launch", "--json")
    assert result.exit_code == 1
    level, text, remedy = verdicts(result.stdout)["AWS:us-east-1 dry run"]
    assert (level, "not authorized" in text, "account's owner" in remedy) == ("fail", True, True)


def test_without_a_region_all_that_can_be_used_is_looked_at(run: Run, ec2: Ec2World) -> None:
    """The stored region and the engine are there; a missing engine that nobody asked for fails nothing."""
    ec2.set_setting("CONTAINER__ENGINE_URL", "unix:///nowhere/engine.sock")
    result = run("doctor", "--json")
    assert result.exit_code == 0, result.output
    found = verdicts(result.stdout)
    assert found["local engine"][0] == "warn"
    assert found["AWS:us-east-1 credentials"][0] == "ok"


def test_a_missing_engine_that_is_asked_about_fails(run: Run, ec2: Ec2World) -> None:
    """For the local region itself the engine is needed; it has no dry run."""
    ec2.set_setting("CONTAINER__ENGINE_URL", "unix:///nowhere/engine.sock")
    result = run("doctor", "local", "--launch", "--json")
    assert result.exit_code == 1
    found = verdicts(result.stdout)
    assert found["local engine"][0] == "fail"
    assert found["local:local dry run"][0] == "skipped"
    assert json.loads(result.stderr)["error"]["what"] == "one thing does not work"


def test_a_broken_configuration_is_the_only_line(run: Run, no_account: Path) -> None:
    """Where nothing can be read nothing else is looked at."""
    (no_account / "core.toml").write_text("[cloud]\nregions_file = 1\n")
    result = run("doctor", "--json")
    assert result.exit_code == 1
    (entry,) = json.loads(result.stdout)["items"]
    assert (entry["subject"], entry["verdict"]) == ("configuration", "fail")
    assert "[cloud] regions_file" in entry["text"]
