"""Storing a region's credentials."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from tests.command.conftest import Run
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion

REGION = CloudRegion(name="us-east-1", cloud="AWS")


def stored() -> CloudConf | None:
    """What the store holds for the region."""
    return CloudConfManager().get_cloud_conf(REGION)


def test_a_profile_is_stored_with_the_user_name(run: Run, no_account: Path) -> None:
    """A named profile needs no secret."""
    result = run("configure", "us-east-1", "--user-name", "ada", "--profile", "work")
    assert result.exit_code == 0, result.output
    assert result.stdout == "AWS:us-east-1: user name ada; profile work; no worker token stored\n"
    assert stored() == CloudConf(AWSCloudAuth(aws_profile="work"), "ada")


def test_secrets_are_asked_for_and_never_shown(run: Run, no_account: Path) -> None:
    """Secret key, session token and worker token come from standard input and appear nowhere."""
    arguments = ["--user-name", "ada", "--key-id", "AKIAEXAMPLE", "--session-token", "--worker-token"]
    result = run("configure", "us-east-1", *arguments, answer="hidden-1\nhidden-2\nhidden-3\n")
    assert result.exit_code == 0, result.output
    assert "hidden" not in result.output
    assert "AKIAEXAMPLE" not in result.output
    auth = AWSCloudAuth("", "AKIAEXAMPLE", "hidden-1", "hidden-2")
    assert stored() == CloudConf(auth, "ada", "hidden-3")


def test_what_is_not_given_stays(run: Run, no_account: Path) -> None:
    """A new worker token leaves the credentials, new credentials leave the token."""
    run("configure", "us-east-1", "--user-name", "ada", "--profile", "work")
    run("configure", "us-east-1", "--worker-token", answer="token-1\n")
    run("configure", "us-east-1", "--sdk")
    assert stored() == CloudConf(AWSCloudAuth(), "ada", "token-1")


def test_without_options_it_shows_what_is_stored(
    run: Run, run_json: Callable[..., Any], no_account: Path
) -> None:
    """Nothing is written, and JSON says the same as the line."""
    assert run("configure", "us-east-1").stdout == "Nothing is stored for AWS:us-east-1.\n"
    assert not (no_account / "cloud.toml").exists()
    run("configure", "us-east-1", "--user-name", "ada", "--profile", "work")
    assert run_json("configure", "us-east-1") == {
        "region": "AWS:us-east-1",
        "configured": True,
        "user_name": "ada",
        "credentials": "profile work",
        "worker_token": False,
    }


def test_a_region_is_forgotten_only_after_asking(run: Run, no_account: Path) -> None:
    """No answer and no leave the store as it is; yes empties it."""
    run("configure", "us-east-1", "--user-name", "ada", "--profile", "work")
    assert run("configure", "us-east-1", "--delete").exit_code == 1
    assert run("configure", "us-east-1", "--delete", answer="n\n").exit_code == 1
    assert stored() is not None
    assert run("configure", "us-east-1", "--delete", answer="y\n").exit_code == 0
    assert stored() is None


@pytest.mark.parametrize(
    "arguments, words",
    [
        (["us-east-1", "--profile", "work"], "an Amazon region needs a user name"),
        (["us-east-1", "--user-name", "ada"], "an Amazon region needs a user name"),
        (["us-east-1", "--profile", "a", "--key-id", "b"], "exclude each other"),
        (["us-east-1", "--session-token"], "goes with an access key"),
        (["us-east-1", "--user-name", "ada", "--key-id", "a"], "no secret access key was given"),
        (["local", "--profile", "work"], "has no Amazon credentials"),
    ],
)
def test_options_that_do_not_go_together_are_refused(
    run: Run, no_account: Path, arguments: list[str], words: str
) -> None:
    """A line says what is wrong, and nothing is stored."""
    result = run("configure", *arguments)
    assert result.exit_code == 2
    assert words in result.stderr
    assert not (no_account / "cloud.toml").exists()


def test_the_local_region_can_have_a_token(run: Run, no_account: Path) -> None:
    """Regions without credentials store a worker token alone."""
    result = run("configure", "local", "--worker-token", answer="token-1\n")
    assert result.stdout == "local:local: user name -; no credentials needed; worker token stored\n"
