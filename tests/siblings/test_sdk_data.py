"""The opt-in that lets the SDK's service descriptions be shared between sessions."""

from __future__ import annotations

import subprocess
import sys
import threading
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import boto3
import pytest

from tovarincore.sdk_data import (
    service_descriptions_shared,
    share_service_descriptions,
    stop_sharing_service_descriptions,
)

KEYS = {"aws_access_key_id": "id", "aws_secret_access_key": "secret"}
GENUINE = boto3.Session


@pytest.fixture
def sharing() -> Iterator[None]:
    share_service_descriptions()
    yield
    stop_sharing_service_descriptions()


def description(session: Any) -> Any:
    """The parsed description of EC2 that clients of the session work with."""
    loader = session._session.get_component("data_loader")
    return loader.load_service_model("ec2", "service-2")


def test_sessions_share_the_parsed_description(sharing: None) -> None:
    """Two sessions with different credentials hold the very same description, and the clients work."""
    first = boto3.Session(**KEYS)
    second = boto3.Session(**KEYS | {"aws_access_key_id": "other"})
    assert description(first) is description(second)
    assert first.client("ec2", region_name="eu-central-1").meta.service_model.service_name == "ec2"
    assert second.get_credentials().access_key == "other"


def test_sessions_do_not_share_without_the_call() -> None:
    """Importing the module changes nothing."""
    assert boto3.Session is GENUINE
    assert description(boto3.Session(**KEYS)) is not description(boto3.Session(**KEYS))


def test_another_call_undoes_it() -> None:
    """Afterwards the SDK's own class stands there again, however often sharing was asked for."""
    share_service_descriptions()
    share_service_descriptions()
    assert boto3.Session is not GENUINE
    assert issubclass(boto3.Session, GENUINE)
    stop_sharing_service_descriptions()
    assert boto3.Session is GENUINE
    stop_sharing_service_descriptions()
    assert boto3.Session is GENUINE


def test_bodies_share_until_the_last_one_ends() -> None:
    """Overlapping bodies share one description; afterwards the SDK's own class stands there again."""
    with service_descriptions_shared():
        with service_descriptions_shared():
            first = boto3.Session(**KEYS)
        stop_sharing_service_descriptions()
        assert description(boto3.Session(**KEYS)) is description(first)
    assert boto3.Session is GENUINE


def test_what_a_program_asked_for_outlasts_a_body(sharing: None) -> None:
    """A body does not take away what the program switched on before or meanwhile."""
    before = boto3.Session(**KEYS)
    with service_descriptions_shared():
        share_service_descriptions()
    assert description(boto3.Session(**KEYS)) is description(before)


def test_a_session_class_that_somebody_put_there_meanwhile_stays(monkeypatch: pytest.MonkeyPatch) -> None:
    """Undoing does not undo what others did."""
    mine = type("Mine", (GENUINE,), {})
    # First of all, so that this is what comes back at the end.
    monkeypatch.setattr(boto3, "Session", GENUINE)
    share_service_descriptions()
    monkeypatch.setattr(boto3, "Session", mine)
    stop_sharing_service_descriptions()
    assert boto3.Session is mine


def test_credentials_and_profiles_are_read_again_by_each_session(
    sharing: None, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A changed file, environment or profile is seen by the next session."""
    file = tmp_path / "credentials"
    monkeypatch.setenv("AWS_SHARED_CREDENTIALS_FILE", str(file))
    monkeypatch.delenv("AWS_PROFILE", raising=False)
    keys = []
    for number in ("one", "two"):
        file.write_text(f"[work]\naws_access_key_id = {number}\naws_secret_access_key = secret\n")
        keys.append(boto3.Session(profile_name="work").get_credentials().access_key)
    monkeypatch.setenv("AWS_ACCESS_KEY_ID", "three")
    monkeypatch.setenv("AWS_SECRET_ACCESS_KEY", "secret")
    keys.append(boto3.Session().get_credentials().access_key)
    assert keys == ["one", "two", "three"]


def test_a_session_with_a_botocore_session_of_its_own_is_left_alone(sharing: None) -> None:
    """By name and by position."""
    import botocore.session

    own = botocore.session.get_session()
    assert boto3.Session(botocore_session=own)._session is own
    assert boto3.Session("id", "secret", None, None, own)._session is own
    assert description(boto3.Session(**KEYS)) is not description(boto3.Session(botocore_session=own))


def test_another_data_path_is_another_set_of_descriptions(
    sharing: None, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The SDK's setting for additional descriptions keeps its effect."""
    before = boto3.Session(**KEYS)
    monkeypatch.setenv("AWS_DATA_PATH", str(tmp_path))
    after = boto3.Session(**KEYS)
    paths = after._session.get_component("data_loader").search_paths
    assert paths[0] == str(tmp_path)
    assert description(before) is not description(after)


def test_the_folders_to_look_into_do_not_grow_with_each_session(sharing: None) -> None:
    """Every session of the SDK appends its folder."""
    for _ in range(5):
        session = boto3.Session(**KEYS)
    paths = session._session.get_component("data_loader").search_paths
    assert len(paths) == len(set(paths))


def test_threads_may_make_sessions_at_once(sharing: None) -> None:
    """All get the same loader."""
    loaders: list[Any] = []
    barrier = threading.Barrier(8)

    def make() -> None:
        barrier.wait()
        loaders.append(boto3.Session(**KEYS)._session.get_component("data_loader"))

    threads = [threading.Thread(target=make) for _ in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(loaders) == 8
    assert len({id(loader) for loader in loaders}) == 1


def test_without_the_sdk_the_call_says_so() -> None:
    """And the module can be imported without it."""
    program = """
import sys
sys.modules["boto3"] = None
from tovarincore.sdk_data import share_service_descriptions, stop_sharing_service_descriptions
stop_sharing_service_descriptions()
try:
    share_service_descriptions()
except ImportError as error:
    print("boto3" in str(error))
"""
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True, check=True)
    assert done.stdout == "True\n"
