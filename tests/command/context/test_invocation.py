"""Options and arguments that the sub-commands share."""

from __future__ import annotations

from pathlib import Path

from tests.command.conftest import Run


def test_a_misspelt_region_gets_a_suggestion(run: Run, no_account: Path) -> None:
    """The nearest name is offered."""
    result = run("list", "us-east-11")
    assert result.exit_code == 2
    assert result.stderr.startswith('error: there is no region "us-east-11"; did you mean "us-east-1"?\n')


def test_a_region_may_be_given_by_its_key(run: Run, no_account: Path) -> None:
    """Kind and name find the region, and remedies name it as a person types it."""
    result = run("list", "AWS:us-east-1")
    assert result.exit_code == 4
    assert result.stderr.splitlines() == [
        "error: no credentials are stored for the region us-east-1",
        "  try: store them with: tovarin-nodes configure us-east-1 --user-name NAME --profile PROFILE",
    ]


def test_a_broken_configuration_is_named(run: Run, no_account: Path) -> None:
    """An error of the configuration file ends every command with that file's name."""
    (no_account / "core.toml").write_text("[worker]\nprot = 1\n")
    result = run("list", "local")
    assert result.exit_code == 4
    assert 'unknown key "prot" in section [worker]; did you mean "port"?' in result.stderr
