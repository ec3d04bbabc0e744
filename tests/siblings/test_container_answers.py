"""What the container helper makes of answers that no engine should give."""

from __future__ import annotations

import gzip
import json
import logging
import traceback
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import IO, Any

import pytest

from stage.engine_api import EngineApi
from stage.patience import SETUP_SECONDS
from stage.settings import settings_of
from tovarincore._container_helper.bounded_client import MOST_ANSWER_BYTES
from tovarincore.cloud_def import NodeState
from tovarincore.container_helper import UUID_LABEL, ContainerError, ContainerHelper
from tovarincore.core_def import OPResultErrorCode

CANARY = "canary-token-of-the-worker"
GOOD = {
    "Id": "id-1",
    "Names": ["/tovarin-worker"],
    "State": "exited",
    "Labels": {UUID_LABEL: "uuid-1"},
    "Ports": [],
}


@pytest.fixture
def api(tmp_path: Path) -> Iterator[EngineApi]:
    """The endpoint, set as the engine in the configuration."""
    with EngineApi() as api:
        engine = {"engine_url": api.url, "operation_seconds": SETUP_SECONDS}
        with settings_of(tmp_path, {"container": engine, "worker": {"token": CANARY}}):
            yield api


def _http(body: bytes, *headers: bytes, status: bytes = b"200 OK") -> Callable[[IO[bytes]], object]:
    head = b"\r\n".join([b"HTTP/1.1 " + status, b"Content-Length: %d" % len(body), *headers])

    def answer(connection: IO[bytes]) -> None:
        try:
            connection.write(head + b"\r\n\r\n" + body)
        except OSError:
            # Nobody reads the rest.
            pass

    return answer


def _gzip_bomb() -> Callable[[IO[bytes]], object]:
    # Not made where the tests are collected, which is in each process.
    return _http(gzip.compress(b" " * (64 << 20)), b"Content-Encoding: gzip")


@pytest.mark.parametrize(
    "answer",
    [
        pytest.param((200, None), id="empty"),
        pytest.param((200, {"hello": "world"}), id="object"),
        pytest.param(_http(b"null"), id="null"),
        pytest.param(_http(b"[" * 100_000), id="deep"),
        pytest.param(_http(b'{"a":' * 100_000), id="deep-objects"),
        pytest.param(_http(b"[]" + b" " * MOST_ANSWER_BYTES), id="big"),
        pytest.param(_http(b"\xff\xfe\x00"), id="not-text"),
        pytest.param(_http(b"[]", b"Content-Encoding: br"), id="unknown-encoding"),
        pytest.param(_http(b"no gzip", b"Content-Encoding: gzip"), id="broken-gzip"),
        pytest.param(lambda connection: _gzip_bomb()(connection), id="gzip-bomb"),
        pytest.param(_http(b"", b"Location: http://127.0.0.1:1/", status=b"307 Moved"), id="moved"),
        pytest.param(_http(b"[" + b'{"Id": 1},' * 10 + b"{}]"), id="unreadable"),
        pytest.param((200, [GOOD | {"Id": "../../images"}]), id="id-as-path"),
        pytest.param((200, [GOOD | {"Labels": {UUID_LABEL: "../x"}}]), id="uuid-as-path"),
        pytest.param((200, [GOOD | {"Labels": [1]}]), id="labels"),
        pytest.param((200, [GOOD | {"State": None}]), id="state"),
        pytest.param((200, [GOOD | {"Ports": [None]}]), id="ports"),
        pytest.param((500, {"message": {"deep": [CANARY]}}), id="error-of-another-kind"),
    ],
)
def test_an_answer_that_cannot_be_read_is_an_error_and_no_empty_listing(api: EngineApi, answer: Any) -> None:
    """Neither a foreign exception nor None leaves the helper: there may be a container after all."""
    api.answers["GET", "/containers/json"] = answer
    with pytest.raises(ContainerError) as caught:
        ContainerHelper().get_existing_node()
    assert CANARY not in "".join(traceback.format_exception(caught.value))
    node, result = ContainerHelper().run_tvr_container_image("1.0")
    assert (node, result.error) == (None, True)
    assert ContainerHelper().delete_tovarin_container().error


def test_a_longer_answer_is_not_taken_into_memory(api: EngineApi) -> None:
    """The text says how much is accepted."""
    api.answers["GET", "/images/json"] = _http(b"[" + b"[]," * MOST_ANSWER_BYTES + b"0]")
    with pytest.raises(ContainerError, match=f"longer than {MOST_ANSWER_BYTES} bytes") as caught:
        ContainerHelper().list_tvr_container_image_versions()
    assert caught.value.error_code is OPResultErrorCode.PROTOCOL_ERROR


def test_one_container_that_cannot_be_read_is_skipped_and_named(
    api: EngineApi, caplog: pytest.LogCaptureFixture
) -> None:
    """The worker's is found beside it."""
    bad = [None, 7, GOOD | {"Id": "bad-1", "Names": None}, GOOD | {"Id": "bad-2", "Names": [3]}]
    api.answers["GET", "/containers/json"] = (200, [*bad, GOOD])
    with caplog.at_level(logging.WARNING):
        node = ContainerHelper().get_existing_node()
    assert node is not None
    assert (node.uuid, node.state) == ("uuid-1", NodeState.STOPPED)
    assert caplog.messages == [
        "skipped in the container engine's list: container without an id: an entry is a NoneType, container "
        "without an id: an entry is a int, container 'bad-1': Names is a NoneType, container 'bad-2': a "
        "name in Names is a int"
    ]


def test_a_flood_of_containers_that_cannot_be_read_is_one_line(
    api: EngineApi, caplog: pytest.LogCaptureFixture
) -> None:
    """The log is not the place for a megabyte of somebody's answer."""
    api.answers["GET", "/containers/json"] = (200, [*([None] * 100_000), GOOD])
    with caplog.at_level(logging.WARNING):
        assert ContainerHelper().get_existing_node() is not None
    (line,) = caplog.messages
    assert line.endswith(", and 99995 others")
    assert len(line) < 1000


def test_one_image_that_cannot_be_read_is_skipped_and_named(
    api: EngineApi, caplog: pytest.LogCaptureFixture
) -> None:
    """The versions of the others are listed; a tag that is no version is none."""
    tags = ["tovarin-worker:1.0", "tovarin-worker:1.2", "tovarin-worker:../x", "tovarin-worker:" + "9" * 5000]
    images = [{"Id": "sha256:bad", "RepoTags": "x"}, "y", {"RepoTags": None}, {"RepoTags": tags}]
    api.answers["GET", "/images/json"] = (200, images)
    with caplog.at_level(logging.WARNING):
        assert ContainerHelper().list_tvr_container_image_versions() == ["1.2", "1.0"]
    assert "image 'sha256:bad': RepoTags is a str" in caplog.text


def test_the_token_is_in_no_text_and_in_no_log(api: EngineApi, caplog: pytest.LogCaptureFixture) -> None:
    """Not even when the engine repeats it and every library logs at DEBUG on the root logger."""
    api.answers["GET", "/containers/json"] = (200, [])
    api.answers["POST", "/containers/create"] = (400, {"message": f"invalid: TOVARIN_WORKER_TOKEN={CANARY}"})
    with caplog.at_level(logging.DEBUG):
        _, result = ContainerHelper().run_tvr_container_image("1.0")
        api.answers["GET", "/containers/json"] = (500, {"message": f"{CANARY} " * 1000})
        with pytest.raises(ContainerError) as caught:
            ContainerHelper().get_existing_node()
    assert any(f"TOVARIN_WORKER_TOKEN={CANARY}" in json.dumps(request.body) for request in api.requests)
    shown = [str(result), *traceback.format_exception(caught.value), caplog.text]
    assert [text for text in shown if CANARY in text] == []
    assert "invalid: TOVARIN_WORKER_TOKEN=***" in str(result.msg)
    assert len(str(caught.value)) < 1000


@pytest.mark.parametrize("place", ["tcp://{}@127.0.0.1:1", "http://{}@h:99999", "nonsense://{}@h", "{}@"])
def test_a_login_in_the_engines_address_is_not_shown(tmp_path: Path, place: str) -> None:
    """The address is part of the text that says that nobody answers there."""
    url = place.format(f"someone:{CANARY}")
    with settings_of(tmp_path, {"container": {"engine_url": url}}):
        _, result = ContainerHelper().run_tvr_container_image("1.0")
    assert result.error
    assert CANARY not in str(result)
