"""Amazon credentials into sessions, settings into clients, under one lock for the whole process."""

from __future__ import annotations

import warnings
from collections.abc import Callable
from types import ModuleType
from typing import Any

import boto3
import botocore.config
import botocore.exceptions
import pytest

from tests.fakes import AWS_REGION, LOCKED, RELEASED, CallLog, Fake, FakeLock, call, recording
from tests.providers.aws.conftest import AUTH, Amazon
from tovarincore.cloud_def import AWSCloudAuth, CloudAuth


@pytest.fixture
def session(aws: Amazon, monkeypatch: pytest.MonkeyPatch) -> Fake:
    """The session that the SDK makes, recording; the manager makes its clients itself again."""
    session = Fake(aws.log, "session", client="the client")
    monkeypatch.setattr(boto3, "Session", recording(aws.log, "Session", lambda **settings: session))
    del aws.manager._get_client
    return session


@pytest.fixture
def lock(aws: Amazon, session: Fake, monkeypatch: pytest.MonkeyPatch) -> FakeLock:
    """A recording lock in the place of the module's."""
    lock = FakeLock(aws.log)
    monkeypatch.setattr(aws.module, "aws_node_manager_client_lock", lock)
    return lock


def test_the_constructor_keeps_credentials_and_user(aws: Amazon) -> None:
    """After what the base constructor sets, in this order."""
    manager = aws.module.AWSNodeManager(AWS_REGION, username="ada", auth=AUTH)
    assert manager.auth is AUTH
    assert manager.username == "ada"
    assert list(vars(manager))[-2:] == ["auth", "username"]
    assert manager.region is AWS_REGION


@pytest.mark.parametrize(
    ("auth", "username"),
    [(None, "u"), (CloudAuth(), "u"), ("AWSCloudAuth", "u"), (AUTH, None), (None, None)],
    ids=["no auth", "another auth", "a text", "no user", "nothing"],
)
def test_the_constructor_refuses_what_is_no_amazon_account(aws: Amazon, auth: Any, username: Any) -> None:
    """An assertion without a message, and neither attribute is set."""
    made: list[Any] = []

    class Watched(aws.module.AWSNodeManager):  # type: ignore[misc, name-defined]
        def __new__(cls, *args: Any) -> Any:
            made.append(super().__new__(cls))
            return made[0]

    with pytest.raises(AssertionError) as caught:
        Watched(AWS_REGION, auth, username)
    assert caught.value.args == ()
    assert "region" in vars(made[0])
    assert not {"auth", "username"} & set(vars(made[0]))


def test_an_empty_user_and_a_subclass_of_the_credentials_are_accepted(aws: Amazon) -> None:
    """Identity with None and isinstance are what is tested."""

    class Derived(AWSCloudAuth):
        pass

    manager = aws.module.AWSNodeManager(AWS_REGION, Derived(), "")
    assert manager.username == ""


def test_without_assertions_the_constructor_takes_anything(run_optimised: Callable[[str], str]) -> None:
    """As Python's own assertions, they vanish when the interpreter optimises."""
    assert (
        run_optimised("m = cloud_node.AWSNodeManager(None, None, None); print(m.auth, m.username)")
        == "None None\n"
    )


def test_a_profile_alone_makes_the_session_even_beside_keys(aws: Amazon, session: Fake) -> None:
    """The keys are not handed on."""
    auth = AWSCloudAuth("work", "id", "secret", "token")
    assert aws.module.AWSNodeManager._create_session(auth) is session
    assert aws.log == [call("Session", profile_name="work")]


@pytest.mark.parametrize("profile", ["", None])
def test_without_a_profile_the_three_keys_make_the_session(aws: Amazon, session: Fake, profile: Any) -> None:
    """In the SDK's order; the token may be missing."""
    assert aws.manager._create_session(AWSCloudAuth(profile, "id", "secret", None)) is session
    assert aws.log == [
        call("Session", aws_access_key_id="id", aws_secret_access_key="secret", aws_session_token=None)
    ]


def test_an_unknown_profile_is_the_sdks_own_error(
    cloud_node: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Unchanged, from the real SDK."""
    monkeypatch.setenv("AWS_CONFIG_FILE", "/nonexistent")
    monkeypatch.setenv("AWS_SHARED_CREDENTIALS_FILE", "/nonexistent")
    with pytest.raises(botocore.exceptions.ProfileNotFound):
        cloud_node.AWSNodeManager._create_session(AWSCloudAuth(aws_profile="nobody"))


def test_a_client_is_made_afresh_for_the_region_under_the_lock(aws: Amazon, lock: FakeLock) -> None:
    """Settings first, then lock, session and client, then the lock is free; nothing is kept."""
    assert aws.manager._get_client() == "the client"
    config: Any = dict(aws.log[2].kwargs)["config"]
    once = [
        LOCKED,
        call("Session", aws_access_key_id="id", aws_secret_access_key="secret", aws_session_token=None),
        call("session.client", "ec2", region_name="eu-central-1", config=config, verify=True),
        RELEASED,
    ]
    assert aws.log == once
    assert config.proxies == {}
    assert isinstance(config, botocore.config.Config)
    aws.log.clear()
    aws.manager._get_client()
    assert aws.log.names == [entry.name for entry in once]
    assert list(vars(aws.manager))[-2:] == ["auth", "username"]


@pytest.mark.parametrize(("bypass", "verify"), [(True, False), (False, True), (1, False), ("", True)])
def test_certificates_are_verified_unless_settings_bypass_it(
    aws: Amazon, lock: FakeLock, bypass: Any, verify: bool
) -> None:
    """A plain boolean, whatever the setting is."""
    aws.conf.network__bypass_ssl_verification = bypass
    aws.manager._get_client()
    assert dict(aws.log[2].kwargs)["verify"] is verify


def test_the_configuration_asks_for_one_attempt_and_the_proxies_of_the_settings(
    aws: Amazon, lock: FakeLock, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Exactly the two values, under http and https."""
    monkeypatch.setattr(botocore.config, "Config", recording(aws.log, "Config", "config"))
    aws.conf.proxy_enabled = True
    aws.conf.get_proxy_conf_tuple = recording(aws.log, "proxies", ("http://a", "http://b"))
    aws.manager._get_client()
    config = call(
        "Config",
        retries={"max_attempts": 1, "mode": "standard"},
        proxies={"http": "http://a", "https": "http://b"},
    )
    assert aws.log[:3] == [call("proxies"), config, LOCKED]
    assert list(dict(config.kwargs)["proxies"]) == list(dict(aws.log[1].kwargs)["proxies"])
    assert list(dict(aws.log[1].kwargs)["retries"]) == ["max_attempts", "mode"]
    assert dict(aws.log[4].kwargs)["config"] == "config"


def test_proxies_are_not_asked_for_when_they_are_switched_off(aws: Amazon, lock: FakeLock) -> None:
    """Settings without them serve, since the method does not exist."""
    assert not hasattr(aws.conf, "get_proxy_conf_tuple")
    assert aws.manager._get_client() == "the client"


@pytest.mark.parametrize("proxies", [(), ("a",), ("a", "b", "c")], ids=len)
def test_proxies_that_are_no_pair_are_a_value_error_before_the_lock(
    aws: Amazon, lock: FakeLock, proxies: Any
) -> None:
    """The interpreter's own unpacking error."""
    aws.conf.proxy_enabled = True
    aws.conf.get_proxy_conf_tuple = lambda: proxies
    with pytest.raises(ValueError, match=r"values to unpack \(expected 2"):
        aws.manager._get_client()
    assert aws.log == []


@pytest.mark.parametrize("at", ["Session", "client"])
@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_a_failure_to_make_the_client_frees_the_lock(
    aws: Amazon,
    lock: FakeLock,
    session: Fake,
    monkeypatch: pytest.MonkeyPatch,
    at: str,
    kind: type[BaseException],
) -> None:
    """The error passes through unchanged."""
    fault = kind("broken")
    if at == "Session":
        monkeypatch.setattr(boto3, "Session", recording(aws.log, "Session", fault))
    else:
        session.answers["client"] = fault
    with pytest.raises(kind) as caught:
        aws.manager._get_client()
    assert caught.value is fault
    assert fault.__context__ is None
    assert aws.log[0] == LOCKED
    assert aws.log[-1] == RELEASED
    assert aws.log.names.count("release") == 1


def test_an_override_of_the_session_takes_effect(aws: Amazon, lock: FakeLock) -> None:
    """It is looked up on the manager and called with its credentials."""
    aws.manager._create_session = recording(
        aws.log, "_create_session", Fake(aws.log, "own", client="own client")
    )
    assert aws.manager._get_client() == "own client"
    assert aws.log[1] == call("_create_session", AUTH)
    assert aws.log[1].args[0] is AUTH


def test_the_real_sdk_makes_a_client_with_these_settings(cloud_node: ModuleType, log: CallLog) -> None:
    """Region and configuration arrive; no request is sent."""
    manager = cloud_node.AWSNodeManager(AWS_REGION, AUTH, "ada")
    with warnings.catch_warnings():
        # Old interpreters draw a notice of end of support from the SDK.
        warnings.simplefilter("ignore")
        client = manager._get_client()
    assert client.meta.region_name == "eu-central-1"
    assert client.meta.config.retries["mode"] == "standard"
    assert client.meta.config.proxies == {}
    client.close()
