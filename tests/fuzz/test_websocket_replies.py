"""Whatever a peer sends in place of a worker becomes a result of the client, and nothing is raised."""

from __future__ import annotations

import base64
import hashlib
import json
import re
from pathlib import Path
from typing import Any
from unittest import mock

from hypothesis import strategies as st

from stage.settings import settings_of
from stage.worker_timeouts import node_at
from tests.fuzz.runner import search
from tovarincore._transport.deadline import Deadline
from tovarincore._webs_client import connection
from tovarincore.api_def import PingRequest
from tovarincore.core_def import OPResultErrorCode
from tovarincore.webs_client import WebSocketClient

# Far more than the longest message that the settings of these tests allow.
MOST_MEGABYTES = 300
CANARY = "canary-token-42"

scalars = (
    st.none()
    | st.booleans()
    | st.integers()
    | st.integers(min_value=10**4400, max_value=10**4401)
    | st.floats()
    | st.text(max_size=20)
    | st.just(CANARY)
)
anything = st.recursive(
    scalars,
    lambda inner: st.lists(inner, max_size=4) | st.dictionaries(st.text(max_size=8), inner, max_size=4),
    max_leaves=12,
)
replies = st.fixed_dictionaries(
    {},
    optional={
        "v": st.just(1) | anything,
        "kind": st.sampled_from(["ping", "system_stat", "error"]) | anything,
        "id": st.just("ID") | anything,
        "worker_id": st.text(max_size=300) | anything,
        "error": st.fixed_dictionaries({}, optional={"code": anything, "message": anything}) | anything,
        "stat": st.fixed_dictionaries(
            {},
            optional={
                "cpu_percent": st.floats() | anything,
                "memory_used_bytes": st.integers() | anything,
                "memory_total_bytes": st.integers() | anything,
            },
        )
        | anything,
    },
)


def as_text(value: Any) -> str:
    """Write a value as JSON, also where JSON has no word for it."""
    try:
        return json.dumps(value)
    except ValueError:
        return "9" * 5000


deep = st.builds(
    lambda depth, sign: sign * depth, st.integers(0, 100_000), st.sampled_from(["[", '{"a":', "]"])
)
messages = replies.map(as_text) | anything.map(as_text) | st.text() | deep
frames = st.one_of(
    messages.map(lambda text: frame(0x81, text.encode("utf-8", "surrogatepass"))),
    st.builds(lambda first, data: frame(first, data), st.integers(0, 255), st.binary(max_size=300)),
    st.builds(lambda length: bytes([0x82, 127]) + length.to_bytes(8, "big"), st.integers(0, 2**64 - 1)),
    st.binary(max_size=300),
    st.sampled_from(
        [b"\x81\x03\xff\xfe\xfd", b"\x01\x01a\x00\x01b\x80\x00", b"\x88\x02\x03\xe8", b"\x89\x00" * 500]
    ),
)
handshakes = st.sampled_from(["right"] * 6 + ["cut", "wrong key", "status", "garbage", "endless"])


def frame(first: int, data: bytes) -> bytes:
    """A frame of a server, of whatever kind the first byte says."""
    length = len(data)
    if length < 126:
        return bytes([first, length]) + data
    if length < 65536:
        return bytes([first, 126]) + length.to_bytes(2, "big") + data
    return bytes([first, 127]) + length.to_bytes(8, "big") + data


class Script:
    """In place of a connection: answers the handshake in some way and then sends what it is given."""

    def __init__(self, handshake: str, sent: list[bytes]) -> None:
        self._handshake = handshake
        self._sent = list(sent)
        self._waiting = bytearray()
        self._shaken = False

    def send(self, data: bytes, deadline: Deadline) -> None:
        """Take a request: the first is the handshake's, whose answer depends on its key."""
        if self._shaken:
            return
        self._shaken = True
        key = re.search(rb"Sec-WebSocket-Key: (\S+)", data)
        assert key is not None
        accept = base64.b64encode(hashlib.sha1(key[1] + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest())
        head = b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        self._waiting += {
            "right": head + b"Sec-WebSocket-Accept: " + accept + b"\r\n\r\n",
            "cut": head,
            "wrong key": head + b"Sec-WebSocket-Accept: eA==\r\n\r\n",
            "status": b"HTTP/1.1 503 " + CANARY.encode() + b"\r\nContent-Length: 0\r\n\r\n",
            "garbage": b"\x16\x03\x01\x02\x00\x01" * 9 + b"\r\n\r\n",
            "endless": b"HTTP/1.1 101 x\r\n" + b"X-Y: z\r\n" * 5000,
        }[self._handshake]

    def receive(self, deadline: Deadline) -> bytes:
        """Return the next piece, of at most the size that a real connection gives."""
        deadline.remaining()
        if not self._waiting and self._sent:
            self._waiting += self._sent.pop(0)
        piece = bytes(self._waiting[:4096])
        del self._waiting[:4096]
        return piece

    def close(self) -> None:
        """There is nothing to close."""


def ask(value: tuple[str, list[bytes], bool]) -> None:
    """Ask a worker that behaves like this, and look at the result."""
    handshake, sent, stat = value
    client = WebSocketClient(node_at("10.0.0.1"), 5)
    with (
        mock.patch.object(connection, "_open_stream", lambda target, deadline: Script(handshake, sent)),
        mock.patch("secrets.token_hex", lambda size: "ID"),
    ):
        result = client.refresh_system_stat() if stat else client.api_get_op_result(PingRequest())
    assert result.success is not result.error
    assert result.success or isinstance(result.error_code, OPResultErrorCode)
    message = result.msg or ""
    assert message.isprintable() and len(message) < 6000
    assert CANARY not in message
    # What the last handler caught would be a mistake of ours anyway.
    assert "stumble" not in message
    if result.success and stat:
        assert 0 <= (client.node.memory_used_bytes or 0) <= (client.node.memory_total_bytes or 0)
    if not result.success:
        assert client.node.system_stat_time is None


def test_every_answer_becomes_a_result(tmp_path: Path) -> None:
    """Handshakes, frames and messages of every kind; the token that a peer sends back is not shown."""
    conversation = st.tuples(handshakes, st.lists(frames, max_size=4), st.booleans())
    with settings_of(tmp_path, {"worker": {"token": CANARY, "max_message_bytes": 100_000}}):
        search(conversation, ask, 200, MOST_MEGABYTES)
