"""What the doctor sees of this machine's settings."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import pytest

from stage.settings import settings_of
from tovarincore.command.doctor.machine import check_settings, check_worker_settings
from tovarincore.command.doctor.verdicts import Level


@pytest.mark.parametrize(
    "worker, level, words",
    [
        ({}, Level.OK, "ws, port 8855"),
        ({"token": "t"}, Level.WARN, "the token is sent unencrypted"),
        ({"scheme": "wss", "token": "t"}, Level.OK, "wss"),
        ({"scheme": "wss", "verify_certificates": False}, Level.WARN, "not verified"),
        ({"ca_file": "/nowhere/ca.pem"}, Level.FAIL, "ca_file cannot be used"),
    ],
)
def test_risky_and_broken_worker_settings_are_named(
    tmp_path: Path, worker: dict[str, Any], level: Level, words: str
) -> None:
    """An open token and unverified certificates are warnings, an unreadable file is a failure."""
    with settings_of(tmp_path, {"worker": worker}):
        (verdict,) = check_worker_settings()
    assert verdict.level is level
    assert words in verdict.text


def test_a_list_of_types_that_cannot_be_read_is_a_failure(tmp_path: Path) -> None:
    """The user's file of types is read before anything relies on it."""
    with settings_of(tmp_path, {"cloud": {"instance_types_file": "/nowhere/types.toml"}}):
        verdict = check_settings()
    assert verdict.level is Level.FAIL
    assert "/nowhere/types.toml" in verdict.text
