"""Named contexts: several accounts, each with a separate store and ledger."""

from __future__ import annotations

import os
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from stage.ec2 import Ec2World
from stage.ec2_endpoint import ACCESS_KEY_ID, SECRET_ACCESS_KEY
from tests.command.conftest import Run


def configure(run: Run, context: str, user_name: str) -> None:
    """Make a context in which a user has the region us-east-1."""
    result = run("configure", "us-east-1", "--context", context, "--user-name", user_name, "--sdk")
    assert result.exit_code == 0, result.output


def test_each_context_has_its_own_user_and_ledger(
    run: Run, run_json: Callable[..., Any], ec2: Ec2World, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A node launched in one is neither listed nor noted in the other; without a context all is as before."""
    # Where the SDK looks by itself.
    monkeypatch.setenv("AWS_ACCESS_KEY_ID", ACCESS_KEY_ID)
    monkeypatch.setenv("AWS_SECRET_ACCESS_KEY", SECRET_ACCESS_KEY)
    store = os.environ["TOVARIN_CLOUD_CONF"]
    configure(run, "client-a", "ada")
    configure(run, "client-b", "bob")
    launched = run("launch", "us-east-1", "--type", "t3.small", "--name", "cold-1", "--context", "client-a")
    assert launched.exit_code == 0, launched.output
    nodes = {
        name: [node["name"] for node in run_json("--context", name, "list", "us-east-1", "--no-probe")]
        for name in ("client-a", "client-b")
    }
    assert nodes == {"client-a": ["cold-1"], "client-b": []}
    assert len(run_json("history", "--context=client-a")) == 1
    assert run_json("history", "--context=client-b") == []
    assert run_json("list", "us-east-1", "--no-probe") == []
    assert os.environ["TOVARIN_CLOUD_CONF"] == store


def test_the_setting_chooses_a_context_for_all_commands(
    run: Run, run_json: Callable[..., Any], no_account: Path
) -> None:
    """The option wins over it; the list says which one is in use."""
    configure(run, "client-a", "ada")
    configure(run, "client-b", "bob")
    assert run("config", "set", "command.context", "client-a").exit_code == 0
    assert "user name ada" in run("configure", "us-east-1").stdout
    assert "user name bob" in run("configure", "us-east-1", "--context", "client-b").stdout
    listed = run_json("config", "contexts")
    assert [(entry["name"], entry["in_use"]) for entry in listed] == [("client-a", True), ("client-b", False)]
    assert listed[0]["store"] == str(no_account / "contexts" / "client-a" / "cloud.toml")


def test_a_misspelt_context_is_an_error_everywhere_but_where_it_is_made(run: Run, no_account: Path) -> None:
    """Another account's nodes must not be taken for one's own; the way out stays open."""
    configure(run, "client-a", "ada")
    result = run("list", "us-east-1", "--context", "clint-a")
    assert (result.exit_code, 'did you mean "client-a"?' in result.stderr) == (2, True)
    assert run("config", "set", "command.context", "gone").exit_code == 0
    assert run("list", "us-east-1").exit_code == 2
    assert run("config", "unset", "command.context").exit_code == 0


def test_the_name_of_a_context_cannot_lead_elsewhere(run: Run, no_account: Path) -> None:
    """It becomes the name of a folder."""
    result = run("configure", "us-east-1", "--context", "../elsewhere", "--user-name", "ada", "--sdk")
    assert (result.exit_code, "cannot be the name of a context" in result.stderr) == (2, True)
    assert not (no_account.parent / "elsewhere").exists()
