"""Tests of the settings, credentials and environment that a demo works with."""

from __future__ import annotations

import os
import stat
from pathlib import Path

import pytest

from demo.surroundings import surroundings
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion
from tovarincore.core_conf import core_conf_glbl

REGION = CloudRegion(name="us-east-1", cloud="AWS")


def credentials() -> CloudConf:
    """Credentials to store."""
    auth = AWSCloudAuth(aws_access_key_id="id", aws_secret_access_key="secret")
    return CloudConf(cloud_auth=auth, user_name="demo-user")


def test_settings_and_credentials_hold_inside_only() -> None:
    """Both are read through the package's own configuration, from files that are gone afterwards."""
    with surroundings("http://127.0.0.1:1", REGION, credentials(), {"worker": {"port": 4711}}):
        store = Path(os.environ["TOVARIN_CLOUD_CONF"])
        stored = CloudConfManager().get_cloud_conf(REGION)
        assert stored is not None
        assert stored.user_name == "demo-user"
        assert stat.S_IMODE(store.stat().st_mode) == 0o600
        assert core_conf_glbl.worker__port == 4711
    assert not store.exists()
    assert core_conf_glbl.worker__port != 4711


def test_an_exception_leaves_nothing_behind() -> None:
    """The environment and the settings come back after a demo that fails."""
    before = dict(os.environ)
    with (
        pytest.raises(LookupError),
        surroundings("http://127.0.0.1:1", REGION, credentials(), {"worker": {"port": 4711}}),
    ):
        raise LookupError
    assert dict(os.environ) == before
    assert core_conf_glbl.worker__port != 4711
