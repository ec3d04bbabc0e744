"""The messages between client and worker."""

import json
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from stage.patience import in_time
from tovarincore._transport.failure import Failure
from tovarincore._webs_client.messages import check_nesting, read_reply, read_system_stat, write_request
from tovarincore._webs_client.target import Target
from tovarincore.core_def import OPResultErrorCode

TARGET = Target(
    host="worker",
    port=1,
    name="worker",
    path="/",
    tls=None,
    token="to'k\\en",
    proxy=None,
    max_message_bytes=2**20,
    max_nesting=32,
)
PING = {"v": 1, "id": "7", "kind": "ping"}
STAT = {"cpu_percent": 12.5, "memory_used_bytes": 10, "memory_total_bytes": 20}

JSON = st.recursive(
    st.none() | st.booleans() | st.floats(allow_nan=False, allow_infinity=False) | st.text('"\\[]{},:ax'),
    lambda inner: st.lists(inner) | st.dictionaries(st.text('"\\[]{}a'), inner),
    max_leaves=30,
)


def failure_of(text: str) -> str:
    """Return the text of the failure that a reply causes."""
    with pytest.raises(Failure) as caught:
        read_reply(text, "ping", "7", TARGET)
    assert caught.value.error_code is OPResultErrorCode.PROTOCOL_ERROR
    return str(caught.value)


def depth_of(value: Any) -> int:
    """Return how deeply objects and lists are nested."""
    if isinstance(value, dict):
        return 1 + max(map(depth_of, value.values()), default=0)
    if isinstance(value, list):
        return 1 + max(map(depth_of, value), default=0)
    return 0


def test_a_request_carries_version_id_and_kind() -> None:
    """Nothing else travels."""
    assert json.loads(write_request("ping", "7")) == PING


@pytest.mark.parametrize("more", [{}, {"worker_id": "w"}, {"worker_id": None}, {"later": {"addition": [1]}}])
def test_a_reply_is_accepted_with_fields_that_are_not_known(more: dict[str, Any]) -> None:
    """A worker may tell more than this client understands."""
    assert read_reply(json.dumps(PING | more), "ping", "7", TARGET) == PING | more


@pytest.mark.parametrize(
    ("text", "why"),
    [
        ("", "not JSON"),
        ("hello", "not JSON"),
        ('{"v": 1, "x": NaN}', "not JSON"),
        ('{"v": ' + "9" * 5000 + "}", "not JSON"),
        ("[]", "not a JSON object"),
        ("3", "not a JSON object"),
        ("{}", "of version 'None' and this client speaks 1"),
        (json.dumps(PING | {"v": 2}), "of version '2' and this client speaks 1; update the older"),
        (json.dumps(PING | {"id": "8"}), "answers another request"),
        (json.dumps(PING | {"kind": "system_stat"}), "answers another request"),
        (json.dumps(PING | {"worker_id": ""}), "worker_id"),
        (json.dumps(PING | {"worker_id": 7}), "worker_id"),
        (json.dumps(PING | {"worker_id": "w" * 257}), "worker_id"),
        (json.dumps(PING | {"kind": "error"}), "refused the request ping ('None': 'None')"),
        (
            json.dumps(
                PING | {"kind": "error", "error": {"code": "unknown_kind", "message": "I only\nping"}}
            ),
            "refused the request ping ('unknown_kind': 'I only\\nping')",
        ),
    ],
)
def test_what_is_no_reply_is_refused_with_the_reason(text: str, why: str) -> None:
    """The text says what is wrong with it."""
    assert why in failure_of(text)


def test_a_long_text_of_the_peer_is_cut_and_made_printable() -> None:
    """A message stays a line, whatever the peer sends."""
    msg = failure_of("\x1b[31m\r\nü" + "x" * 5000)
    assert len(msg) < 400
    assert msg.isprintable()
    assert msg.isascii()


@pytest.mark.parametrize(
    "text",
    [
        "the to'k\\en",
        json.dumps(PING | {"v": "to'k\\en"}),
        json.dumps(
            PING | {"kind": "error", "error": {"code": "to'k\\en", "message": "x" * 195 + "to'k\\en"}}
        ),
    ],
)
def test_a_token_that_the_peer_sends_back_is_not_shown(text: str) -> None:
    """Neither whole nor cut off, although the peer's text is quoted."""
    msg = failure_of(text)
    assert "***" in msg
    assert "to" + "'k" not in msg
    assert "k\\\\en" not in msg


@given(JSON, st.integers(0, 6))
def test_nesting_is_counted_as_the_parser_would_recurse(value: Any, limit: int) -> None:
    """Brackets and quotes inside of texts count for nothing, however they are escaped."""
    text = json.dumps(value, ensure_ascii=False)
    if depth_of(value) <= limit:
        check_nesting(text, limit)
    else:
        with pytest.raises(Failure, match=f"more than {limit} deep"):
            check_nesting(text, limit)


@pytest.mark.parametrize("text", ["[" * 500_000, "]" * 500_000, "[{" * 250_000, "[]" * 250_000 + "["])
def test_brackets_that_do_not_match_are_refused_quickly(text: str) -> None:
    """Where the parser would recurse until it fails, nothing is parsed at all."""
    with in_time():
        assert "brackets" in failure_of(text)


def test_statistics_are_read() -> None:
    """Whole numbers will do for the load."""
    assert read_system_stat({"stat": STAT}) == (12.5, 10, 20)
    load = read_system_stat({"stat": STAT | {"cpu_percent": 100}})[0]
    assert (load, type(load)) == (100.0, float)


@pytest.mark.parametrize(
    ("stat", "why"),
    [
        (None, '"stat"'),
        ([], '"stat"'),
        (STAT | {"cpu_percent": None}, "cpu_percent"),
        (STAT | {"cpu_percent": True}, "cpu_percent"),
        (STAT | {"cpu_percent": "12"}, "cpu_percent"),
        (STAT | {"cpu_percent": -1}, "cpu_percent"),
        (STAT | {"cpu_percent": 100.1}, "cpu_percent"),
        (STAT | {"cpu_percent": float("inf")}, "cpu_percent"),
        (STAT | {"cpu_percent": float("nan")}, "cpu_percent"),
        (STAT | {"memory_used_bytes": 21}, "memory_used_bytes"),
        (STAT | {"memory_used_bytes": -1}, "memory_used_bytes"),
        (STAT | {"memory_used_bytes": 1.5}, "memory_used_bytes"),
        (STAT | {"memory_total_bytes": None}, "memory_total_bytes"),
        (STAT | {"memory_total_bytes": 2**63}, "memory_total_bytes"),
    ],
)
def test_statistics_that_cannot_be_true_are_refused(stat: Any, why: str) -> None:
    """The record of a node holds numbers that can be compared and added up."""
    with pytest.raises(Failure) as caught:
        read_system_stat({"stat": stat})
    assert caught.value.error_code is OPResultErrorCode.PROTOCOL_ERROR
    assert why in str(caught.value)
