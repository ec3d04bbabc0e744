"""Byte streams under a deadline."""

import resource
import socket
import ssl
import threading
from contextlib import ExitStack
from pathlib import Path

import pytest

from stage import worker_peers as peers
from stage.certificates import make_server_certificate
from stage.patience import SETUP_SECONDS, in_time
from stage.settings import settings_of
from stage.worker_timeouts import node_at
from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore._webs_client import streams
from tovarincore._webs_client.errors import ConnectionLost
from tovarincore.api_def import PingRequest
from tovarincore.core_def import OPResultErrorCode
from tovarincore.testing.reference_worker import ReferenceWorker
from tovarincore.webs_client import WebSocketClient


def test_ipv6_is_spoken() -> None:
    """An address in brackets-free form, as nodes carry it."""
    if not socket.has_ipv6:
        pytest.skip("this machine has no IPv6")
    try:
        listening = socket.create_server(("::1", 0), family=socket.AF_INET6)
    except OSError as error:
        pytest.skip(f"IPv6 is switched off here: {error}")
    with listening:
        streams.connect("::1", listening.getsockname()[1], Deadline(SETUP_SECONDS)).close()


def test_descriptors_beyond_a_thousand_do() -> None:
    """A process with many files open can still ask its workers."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < 2000:
        pytest.skip(f"this machine allows only {hard} descriptors")
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, 2000), hard))
    try:
        with ExitStack() as stack, peers.Peer(peers.says_nothing) as peer:
            while stack.enter_context(open("/dev/null", "rb")).fileno() < 1100:
                pass
            stream = streams.connect("127.0.0.1", peer.port, Deadline(SETUP_SECONDS))
            stack.callback(stream.close)
            with pytest.raises(Failure, match="no answer within"):
                stream.receive(Deadline(0.05))
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def test_sending_to_a_peer_that_does_not_read_ends_at_the_deadline() -> None:
    """Also when the connection takes a part of it."""
    with peers.Peer(peers.says_nothing) as peer:
        stream = streams.connect("127.0.0.1", peer.port, Deadline(SETUP_SECONDS))
        with in_time(0.2, least=0.2), pytest.raises(Failure) as caught:
            stream.send(b"x" * 50_000_000, Deadline(0.2))
        stream.close()
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT


def test_much_data_arrives_whole_over_tls(tmp_path: Path) -> None:
    """Both ways, in whatever pieces; the end of the stream is the empty one."""
    sent = bytes(range(256)) * 4000
    files = make_server_certificate(tmp_path)

    def returns_it(conversation: peers.Conversation) -> None:
        data = b""
        while len(data) < len(sent):
            data += conversation.connected.recv(65536)
        conversation.connected.sendall(data)

    with peers.Peer(returns_it, ssl_context=files.server_context()) as peer:
        deadline = Deadline(SETUP_SECONDS)
        tcp = streams.connect("127.0.0.1", peer.port, deadline)
        stream = streams.TlsStream(tcp, client_context(files.authority), "127.0.0.1", deadline)
        stream.send(sent, deadline)
        received = b""
        while len(received) < len(sent):
            received += stream.receive(deadline)
        assert received == sent
        assert stream.receive(deadline) == b""
        stream.close()


def client_context(authority: Path) -> ssl.SSLContext:
    """Return checks that trust an authority."""
    return ssl.create_default_context(cafile=str(authority))


@pytest.mark.parametrize(
    ("answer", "kind", "why"),
    [
        (b"", ConnectionLost, "ended during the TLS handshake"),
        (b"HTTP/1.1 400 Bad Request\r\n\r\n", Failure, "the TLS handshake failed"),
    ],
)
def test_a_peer_without_tls_is_recognised(answer: bytes, kind: type[Failure], why: str) -> None:
    """The text doubts scheme and port."""

    def answers(conversation: peers.Conversation) -> None:
        conversation.connected.recv(4096)
        conversation.connected.sendall(answer)

    with peers.Peer(answers) as peer:
        tcp = streams.connect("127.0.0.1", peer.port, Deadline(SETUP_SECONDS))
        context = ssl.create_default_context()
        with pytest.raises(kind, match=why):
            streams.TlsStream(tcp, context, "127.0.0.1", Deadline(SETUP_SECONDS))
        tcp.close()


def test_a_name_that_no_certificate_can_carry_is_a_failure_of_the_request() -> None:
    """The TLS library refuses it with an error that is not its own."""
    with peers.Peer(peers.says_nothing) as peer:
        tcp = streams.connect("127.0.0.1", peer.port, Deadline(SETUP_SECONDS))
        with pytest.raises(Failure) as caught:
            streams.TlsStream(tcp, ssl.create_default_context(), ".example", Deadline(SETUP_SECONDS))
        tcp.close()
    assert caught.value.error_code is OPResultErrorCode.CONNECTION_FAILED


@pytest.mark.parametrize(
    ("name", "settings", "succeeds"),
    [
        ("127.0.0.1", {}, True),
        ("worker.example", {}, False),
        ("worker.example", {"verify_certificates": False}, True),
    ],
)
def test_a_worker_s_certificate_must_carry_the_node_s_address(
    tmp_path: Path, name: str, settings: dict[str, bool], succeeds: bool
) -> None:
    """Unless the checks are switched off."""
    files = make_server_certificate(tmp_path, name)
    with ReferenceWorker(ssl_context=files.server_context()) as worker:
        section = {"scheme": "wss", "port": worker.port, "ca_file": str(files.authority), **settings}
        with (
            settings_of(tmp_path, {"worker": section}),
            WebSocketClient(node_at("127.0.0.1"), SETUP_SECONDS) as client,
        ):
            assert client.api_get_op_result(PingRequest()).success is succeeds
            assert client.api_get_op_result(PingRequest()).success is succeeds


def test_through_a_tunnel_the_certificate_is_still_the_worker_s(tmp_path: Path) -> None:
    """The address that is connected to is only the tunnel's end."""
    files = make_server_certificate(tmp_path, "worker.example")
    with ReferenceWorker(ssl_context=files.server_context()) as worker:
        sections = {
            "worker": {"scheme": "wss", "ca_file": str(files.authority)},
            "worker_addresses": {"worker.example": f"127.0.0.1:{worker.port}"},
        }
        with (
            settings_of(tmp_path, sections),
            WebSocketClient(node_at("worker.example"), SETUP_SECONDS) as client,
        ):
            assert client.api_get_op_result(PingRequest()).success


def test_no_thread_belongs_to_a_connection() -> None:
    """Connecting to a numeric address, sending and receiving start none."""
    with peers.Peer(peers.says_nothing) as peer:
        before = set(threading.enumerate())
        stream = streams.connect("127.0.0.1", peer.port, Deadline(SETUP_SECONDS))
        stream.send(b"x", Deadline(SETUP_SECONDS))
        with pytest.raises(Failure):
            stream.receive(Deadline(0.01))
        # The peer itself has one for each connection.
        started = set(threading.enumerate()) - before
        stream.close()
    assert len(started) <= 1
