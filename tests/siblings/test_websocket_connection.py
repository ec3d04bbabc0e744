"""One web-socket connection to a worker, with peers that do not behave as one."""

from pathlib import Path

import pytest

from stage import worker_peers as peers
from stage.patience import SETUP_SECONDS
from stage.settings import settings_of
from stage.worker_timeouts import node_at
from tovarincore.api_def import PingRequest
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.webs_client import WebSocketClient


def ping_each(folder: Path, behaviour: peers.Behaviour, *, times: int = 1) -> tuple[list[OPResult], int]:
    """Return the results of pings over one client, and how many connections they took."""
    with peers.Peer(behaviour) as peer:
        settings = {"worker": {"port": peer.port, "max_message_bytes": 1024}}
        with settings_of(folder, settings), WebSocketClient(node_at("127.0.0.1"), SETUP_SECONDS) as client:
            return [client.api_get_op_result(PingRequest()) for _ in range(times)], peer.accepted


@pytest.mark.parametrize(
    ("behaviour", "code", "why"),
    [
        (peers.closes_at_once, "CONNECTION_FAILED", "ended during the web-socket handshake"),
        (peers.resets_after_request, "CONNECTION_FAILED", "broke while receiving"),
        (peers.answers_http(b"SSH-2.0-server\r\n"), "PROTOCOL_ERROR", "not a web-socket's"),
        (peers.answers_http(b"\xff\xfe\r\n\r\n"), "PROTOCOL_ERROR", "not a web-socket's"),
        (peers.answers_http(b"HTTP/1.1 101 Hi\r\n\r\n"), "PROTOCOL_ERROR", "not a web-socket's"),
        (
            peers.answers_http(b"HTTP/1.1 101 Hi\r\n" + b"a: b\r\n" * 999),
            "PROTOCOL_ERROR",
            "too many HTTP headers",
        ),
        (peers.answers_http(b"HTTP/1.1 101 " + b"x" * 99999), "PROTOCOL_ERROR", "line too long"),
        (peers.answers_http(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"), "PROTOCOL_ERROR", "status 200"),
        (peers.answers_http(b"HTTP/1.1 302 Found\r\nLocation: /\r\n\r\n"), "PROTOCOL_ERROR", "status 302"),
        (
            peers.answers_http(b"HTTP/1.1 404 No\r\nContent-Length: 0\r\n\r\n"),
            "PROTOCOL_ERROR",
            "[worker] path",
        ),
        (
            peers.answers_http(b"HTTP/1.1 403 No\r\nContent-Length: 0\r\n\r\n"),
            "UNAUTHENTICATED",
            "status 403",
        ),
        (
            peers.answers_http(b"HTTP/1.1 503 No\r\nContent-Length: 0\r\n\r\n"),
            "CONNECTION_FAILED",
            "status 503",
        ),
        (peers.answers_text(lambda request: b"hello"), "PROTOCOL_ERROR", "not JSON"),
        (peers.answers_text(lambda request: b"\xff"), "PROTOCOL_ERROR", "not UTF-8"),
        (peers.answers_text(lambda request: b"[" * 999), "PROTOCOL_ERROR", "nested more than 32 deep"),
        (peers.answers_text(lambda request: b"{}", opcode=0x82), "PROTOCOL_ERROR", "binary message"),
        (peers.answers_text(lambda request: b"{}", opcode=0x80), "PROTOCOL_ERROR", "web-socket protocol"),
        (peers.answers_text(lambda request: b"{}", opcode=0x83), "PROTOCOL_ERROR", "web-socket protocol"),
        (peers.answers_text(lambda request: b"{}", opcode=0xC1), "PROTOCOL_ERROR", "web-socket protocol"),
        (peers.answers_text(lambda request: b"x" * 2000), "PROTOCOL_ERROR", "more than 1024 bytes"),
        (peers.answers_text(lambda request: b"?", opcode=0x88), "PROTOCOL_ERROR", "web-socket protocol"),
    ],
)
def test_a_peer_that_is_no_worker_is_an_error_result(
    tmp_path: Path, behaviour: peers.Behaviour, code: str, why: str
) -> None:
    """At once, with the code of its kind and a text that says what was wrong."""
    (result,), _ = ping_each(tmp_path, behaviour)
    assert result.error
    assert result.error_code is OPResultErrorCode[code], result
    assert why in (result.msg or ""), result


def test_a_polite_good_bye_instead_of_a_reply_is_a_lost_connection(tmp_path: Path) -> None:
    """Code and reason of the worker are passed on."""

    def says_good_bye(conversation: peers.Conversation) -> None:
        conversation.open()
        conversation.message()
        conversation.protocol.send_close(1013, "too many clients")
        conversation.connected.sendall(b"".join(conversation.protocol.data_to_send()))
        conversation.hold()

    (result,), _ = ping_each(tmp_path, says_good_bye)
    assert result.error_code is OPResultErrorCode.CONNECTION_FAILED
    assert "closed the connection (code 1013, 'too many clients')" in (result.msg or "")


def test_pings_and_pieces_on_the_way_do_not_disturb(tmp_path: Path) -> None:
    """A reply may come in pieces, with pings between them, which are answered with the next request."""
    pongs: list[bytes] = []

    def chatters(conversation: peers.Conversation) -> None:
        conversation.open()
        text = conversation.message().encode()
        conversation.connected.sendall(b"\x89\x02hi" + b"\x01" + bytes([len(text) - 5]) + text[:-5])
        conversation.connected.sendall(b"\x89\x02ho" + b"\x80\x05" + text[-5:])
        pongs.append(conversation.connected.recv(4096))

    results, _ = ping_each(tmp_path, chatters, times=2)
    assert results[0].success
    # Final frame, opcode 10, masked, two bytes.
    assert pongs[0].startswith(b"\x8a\x82")


def test_a_reply_and_a_good_bye_at_once_are_a_reply(tmp_path: Path) -> None:
    """The next request finds the connection closed and opens another one."""

    def leaves(conversation: peers.Conversation) -> None:
        conversation.open()
        text = conversation.message().encode()
        conversation.connected.sendall(b"\x81" + bytes([len(text)]) + text + b"\x88\x02\x03\xe8")
        conversation.hold()

    results, connections = ping_each(tmp_path, leaves, times=3)
    assert all(result.success for result in results)
    assert connections == 3


def test_extensions_that_were_not_offered_are_refused(tmp_path: Path) -> None:
    """Nothing is decompressed: a small message stays small."""

    def compresses(conversation: peers.Conversation) -> None:
        answer = conversation.handshake_answer()
        more = b"\r\nSec-WebSocket-Extensions: permessage-deflate\r\n\r\n"
        conversation.connected.sendall(answer.removesuffix(b"\r\n\r\n") + more)
        conversation.hold()

    (result,), _ = ping_each(tmp_path, compresses)
    assert result.error_code is OPResultErrorCode.PROTOCOL_ERROR


def test_the_handshake_asks_for_the_configured_path(tmp_path: Path) -> None:
    """The worker's own address stands in the header Host."""
    requests: list[tuple[str, str]] = []

    def records(conversation: peers.Conversation) -> None:
        request = conversation.request()
        requests.append((request.path, request.headers["Host"]))

    with peers.Peer(records) as peer:
        settings = {"worker": {"port": peer.port, "path": "/worker?x=1"}}
        with settings_of(tmp_path, settings), WebSocketClient(node_at("127.0.0.1"), SETUP_SECONDS) as client:
            client.api_get_op_result(PingRequest())
        assert requests == [("/worker?x=1", f"127.0.0.1:{peer.port}")]
