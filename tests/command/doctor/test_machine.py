"""What the doctor sees of this machine's settings."""

from __future__ import annotations

from pathlib import Path

from stage.settings import settings_of
from tovarincore.command.doctor.machine import check_settings
from tovarincore.command.doctor.verdicts import Level


def test_a_list_of_types_that_cannot_be_read_is_a_failure(tmp_path: Path) -> None:
    """The user's file of types is read before anything relies on it."""
    with settings_of(tmp_path, {"cloud": {"instance_types_file": "/nowhere/types.toml"}}):
        verdict = check_settings()
    assert verdict.level is Level.FAIL
    assert "/nowhere/types.toml" in verdict.text
