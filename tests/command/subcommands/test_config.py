"""The settings from the command line."""

from __future__ import annotations

import stat
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from tests.command.conftest import Run
from tovarincore.core_conf import core_conf_glbl


def test_a_setting_is_stored_and_comments_stay(run: Run, no_account: Path) -> None:
    """The file keeps its words, order and mode; the value is the one that counts from then on."""
    path = no_account / "core.toml"
    path.write_text("# of mine\n[worker]\nport = 9000 # not the usual one\n")
    path.chmod(0o640)
    assert run("config", "set", "worker.port", "9001").exit_code == 0
    assert run("config", "set", "command.region", "us-east-1").exit_code == 0
    text = path.read_text()
    assert text.startswith("# of mine\n[worker]\nport = 9001 # not the usual one\n")
    assert (core_conf_glbl.worker__port, core_conf_glbl.command__region) == (9001, "us-east-1")
    assert stat.S_IMODE(path.stat().st_mode) == 0o640


def test_a_value_that_is_not_allowed_leaves_the_file_as_it_was(run: Run, no_account: Path) -> None:
    """What could not be read afterwards is taken back, and the reason is the reader's own."""
    path = no_account / "core.toml"
    path.write_text("[worker]\nport = 9000\n")
    result = run("config", "set", "worker.port", "99999")
    assert result.exit_code == 4
    assert "[worker] port: 99999 is not allowed" in result.stderr
    assert path.read_text() == "[worker]\nport = 9000\n"
    assert core_conf_glbl.worker__port == 9000


@pytest.mark.parametrize(
    "key, value, words",
    [
        ("worker.prot", "1", 'there is no setting "worker.prot"; did you mean "worker.port"?'),
        ("worker.port", "many", "worker.port is a whole number"),
        ("worker.verify_certificates", "perhaps", "worker.verify_certificates is true or false"),
    ],
)
def test_typing_errors_are_found_first(run: Run, no_account: Path, key: str, value: str, words: str) -> None:
    """They are errors of usage, and nothing is written."""
    result = run("config", "set", key, value)
    assert (result.exit_code, words in result.stderr) == (2, True)
    assert (no_account / "core.toml").read_text() == ""


def test_a_secret_is_read_unseen_and_never_shown(run: Run, no_account: Path) -> None:
    """It comes from standard input, is kept for its owner alone, and is masked wherever it is listed."""
    path = no_account / "core.toml"
    stored = run("config", "set", "worker.token", answer="a-token-of-the-worker\n")
    shown = run("config", "show", "worker")
    assert (stored.exit_code, shown.exit_code) == (0, 0)
    assert "a-token-of-the-worker" in path.read_text()
    assert "a-token-of-the-worker" not in stored.output + shown.output
    assert stat.S_IMODE(path.stat().st_mode) == 0o600


def test_each_value_says_where_it_comes_from(
    run_json: Callable[..., Any], no_account: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Default, file and environment are told apart; a key that the user made up is listed too."""
    (no_account / "core.toml").write_text(
        '[worker]\nport = 9000\npath = "/w"\n[worker_addresses]\na = "h:1"\n'
    )
    monkeypatch.setenv("TOVARIN_WORKER__PATH", "/other")
    core_conf_glbl.reload()
    found = {item["key"]: (item["value"], item["source"]) for item in run_json("config", "show")}
    assert found["worker.port"] == (9000, "file")
    assert found["worker.path"] == ("/other", "environment (TOVARIN_WORKER__PATH)")
    assert found["worker.scheme"] == ("ws", "default")
    assert found["worker_addresses.a"] == ("h:1", "file")


def test_a_setting_can_be_taken_out_again(run: Run, no_account: Path) -> None:
    """The default holds; a second time there is nothing to take out."""
    run("config", "set", "worker.port", "9001")
    assert run("config", "unset", "worker.port").stdout.startswith("worker.port is no longer in ")
    assert run("config", "unset", "worker.port").stdout.startswith("worker.port was not in ")
    assert core_conf_glbl.worker__port == 8855


def test_the_path_stands_alone_for_other_programs(run: Run, no_account: Path) -> None:
    """One line that a shell can put into a command."""
    assert run("config", "path").stdout == f"{no_account / 'core.toml'}\n"
