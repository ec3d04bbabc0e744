"""What the doctor sees of the way to workers."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import pytest

from stage.settings import settings_of
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import K8sRegion
from tovarincore.command.doctor.verdicts import Level
from tovarincore.command.doctor.workers import check_token, check_worker_settings

LAB = K8sRegion(name="lab")


@pytest.mark.parametrize(
    "worker, level, words",
    [
        ({}, Level.OK, "ws, port 8855"),
        ({"token": "t"}, Level.WARN, "the token travels over plain ws"),
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


@pytest.mark.parametrize(
    "stored, worker, level, words",
    [
        (None, {}, Level.WARN, "asked without a token: whoever reaches one can use it"),
        ("region-token", {}, Level.WARN, "the stored token travels over plain ws"),
        ("region-token", {"scheme": "wss"}, Level.OK, "stored for the region"),
        (None, {"scheme": "wss", "token": "t"}, Level.OK, "the one of [worker] token"),
    ],
    ids=["no token", "plain", "encrypted", "setting"],
)
def test_no_token_and_one_that_can_be_read_on_its_way_are_warned_of(
    tmp_path: Path,
    stored: str | None,
    worker: dict[str, Any],
    level: Level,
    words: str,
) -> None:
    """The token of the region counts before that of the settings; neither is shown."""
    with settings_of(tmp_path, {"worker": worker}):
        if stored:
            CloudConfManager().set_cloud_conf(LAB, CloudConf(None, "", stored))
        (verdict,) = check_token(LAB)
    assert (verdict.level, words in verdict.text) == (level, True)
    assert "region-token" not in verdict.text + verdict.remedy
