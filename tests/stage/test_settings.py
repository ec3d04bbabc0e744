"""Tests of the settings, credentials and environment that demo, tests and benchmarks work with."""

from __future__ import annotations

import os
import stat
from pathlib import Path

import pytest

from stage.settings import FOREIGN_PREFIXES, environment, surroundings
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


def test_the_users_own_variables_are_hidden_and_come_back(monkeypatch: pytest.MonkeyPatch) -> None:
    """A profile, an engine or a setting of the user's never reaches the body."""
    monkeypatch.setenv("AWS_PROFILE", "somebody")
    monkeypatch.setenv("DOCKER_HOST", "tcp://engine.of.somebody:2375")
    monkeypatch.setenv("TOVARIN_NETWORK__AWS_CUSTOM_VPC", "vpc-of-somebody")
    monkeypatch.setenv("OTHER", "kept")
    before = dict(os.environ)
    with environment({"AWS_REGION": "us-east-1"}):
        assert [name for name in os.environ if name.startswith(FOREIGN_PREFIXES)] == ["AWS_REGION"]
        assert os.environ["OTHER"] == "kept"
    assert dict(os.environ) == before


def test_variables_come_back_after_an_exception() -> None:
    """What the body did to the environment is undone, whatever ended it."""
    before = dict(os.environ)
    with pytest.raises(LookupError), environment({"AWS_REGION": "us-east-1"}):
        os.environ["SOMETHING_NEW"] = "1"
        raise LookupError
    assert dict(os.environ) == before
