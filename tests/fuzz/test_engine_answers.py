"""Container engines that answer anything: what leaves the helper is what it documents."""

from __future__ import annotations

import json
from collections.abc import Callable, Iterator
from contextlib import suppress
from pathlib import Path
from typing import IO, Any, NamedTuple

import pytest
from hypothesis import strategies as st

from stage.engine_api import EngineApi
from stage.settings import settings_of
from tests.fuzz.runner import search
from tovarincore.cloud_def import CloudNode, NodeState
from tovarincore.container_helper import UUID_LABEL, VERSION_LABEL, ContainerError, ContainerHelper

EXAMPLES = 30
# What one hostile answer of the longest kind may cost.
MOST_MEGABYTES = 400
PATHS = [
    ("GET", "/containers/json"),
    ("GET", "/images/json"),
    ("POST", "/containers/create"),
    ("POST", "/containers/id-1/start"),
    ("POST", "/containers/id-1/unpause"),
    ("POST", "/containers/id-1/stop"),
    ("POST", "/containers/id-1/restart"),
    ("DELETE", "/containers/id-1"),
]

anything = st.recursive(
    st.none() | st.booleans() | st.integers() | st.floats() | st.text(max_size=20),
    lambda inner: st.lists(inner, max_size=4) | st.dictionaries(st.text(max_size=8), inner, max_size=4),
    max_leaves=12,
)


def perhaps(*likely: Any) -> st.SearchStrategy[Any]:
    """One of the values that an engine gives, now and then anything."""
    return st.sampled_from(likely) | anything


def some_of(fields: dict[str, st.SearchStrategy[Any]]) -> st.SearchStrategy[Any]:
    """An object with some of the fields, now and then anything."""
    return st.fixed_dictionaries({}, optional=fields) | anything


PORT = some_of(
    {
        "IP": perhaps("127.0.0.1", "::1"),
        "PrivatePort": perhaps(8855),
        "PublicPort": perhaps(8855),
        "Type": perhaps("tcp", "udp"),
    }
)
LABELS = some_of({UUID_LABEL: perhaps("uuid-1"), VERSION_LABEL: perhaps("1.0")})
CONTAINER = some_of(
    {
        "Id": perhaps("id-1", "../../x", ""),
        "Names": perhaps(["/tovarin-worker"], ["/other"], None),
        "State": perhaps("running", "exited", "created", "paused", "removing", "dead"),
        "Labels": LABELS,
        "Ports": st.lists(PORT, max_size=3) | anything,
    }
)
IMAGE = some_of(
    {
        "Id": perhaps("sha256:0"),
        "RepoTags": perhaps(["tovarin-worker:1.0", "localhost/tovarin-worker:2"], None),
    }
)
VALUES = st.lists(CONTAINER, max_size=3) | st.lists(IMAGE, max_size=3) | CONTAINER | anything
BODIES = st.one_of(
    VALUES.map(lambda value: json.dumps(value).encode()),
    st.binary(max_size=200),
    st.sampled_from(
        [b"", b"null", b"[" * 50_000, b'{"a":' * 50_000, b"1" * 10_000, b"[" + b"[]," * 100_000 + b"0]"]
    ),
)


class Answer(NamedTuple):
    """An answer as it goes over the wire."""

    status: int
    headers: list[tuple[str, str]]
    body: bytes


HEADERS = st.lists(
    st.sampled_from(
        [
            ("Content-Type", "application/json"),
            ("Content-Encoding", "gzip"),
            ("Content-Encoding", "br"),
            ("Transfer-Encoding", "chunked"),
            ("Api-Version", "9999999.1"),
            ("Location", "http://127.0.0.1:1/"),
            ("Set-Cookie", "a=b"),
        ]
    ),
    max_size=2,
)
STATUSES = st.sampled_from([200, 200, 200, 201, 204, 301, 304, 307, 400, 401, 404, 409, 500, 503])
ANSWERS = st.builds(Answer, STATUSES, HEADERS, BODIES)


@pytest.fixture
def api(tmp_path: Path) -> Iterator[EngineApi]:
    """The endpoint, set as the engine in the configuration."""
    with EngineApi() as api:
        engine = {"engine_url": api.url, "operation_seconds": 0.5}
        with settings_of(tmp_path, {"container": engine, "worker": {"token": "t"}}):
            yield api


def writer(answer: Answer) -> Callable[[IO[bytes]], object]:
    """Sends an answer as it is."""
    head = "".join(f"{name}: {value}\r\n" for name, value in answer.headers)

    def write(connection: IO[bytes]) -> None:
        start = f"HTTP/1.1 {answer.status} X\r\nContent-Length: {len(answer.body)}\r\n{head}\r\n"
        # The client may have read enough.
        with suppress(OSError):
            connection.write(start.encode() + answer.body)

    return write


def expect_documented(helper: ContainerHelper) -> None:
    """Use every method; each gives what it documents, of the types that it documents."""
    with suppress(ContainerError):
        versions = helper.list_tvr_container_image_versions()
        assert all(isinstance(version, str) for version in versions)
    with suppress(ContainerError):
        node = helper.get_existing_node()
        assert node is None or isinstance(node, CloudNode)
        assert node is None or (isinstance(node.state, NodeState) and isinstance(node.uuid, str))
    for call in (helper.start_tovarin_container, helper.stop_tovarin_container):
        with suppress(ContainerError):
            assert call() is None
    node, result = helper.run_tvr_container_image("1.0")
    assert (node is not None) == result.success != result.error
    result = helper.delete_tovarin_container()
    assert result.success != result.error


def test_whatever_an_engine_answers_ends_as_documented(api: EngineApi) -> None:
    """No foreign exception, no other type, and no memory without bounds."""

    def check(answers: list[Answer]) -> None:
        for place, answer in zip(PATHS, answers, strict=True):
            api.answers[place] = writer(answer)
        api.requests.clear()
        expect_documented(ContainerHelper())

    search(st.lists(ANSWERS, min_size=len(PATHS), max_size=len(PATHS)), check, EXAMPLES, MOST_MEGABYTES)


def test_whatever_answers_the_first_question_ends_as_documented(api: EngineApi) -> None:
    """The endpoint may be no engine at all."""

    def check(answer: Answer) -> None:
        api.answers["GET", "/_ping"] = writer(answer)
        expect_documented(ContainerHelper())

    search(ANSWERS, check, EXAMPLES, MOST_MEGABYTES)
