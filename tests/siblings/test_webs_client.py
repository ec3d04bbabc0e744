"""The client of the workers' web-socket."""

import gc
import json
import logging
import socket
import threading
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any, NoReturn

import pytest
import tomli_w

from stage import worker_peers as peers
from stage.patience import HANG_SECONDS, SETUP_SECONDS, in_time
from stage.ports import refusing_port
from stage.worker_timeouts import node_at
from tovarincore.api_def import PingRequest, SystemStatRequest
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth
from tovarincore.core_conf import ConfigError, core_conf_glbl
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.testing.reference_worker import ReferenceWorker
from tovarincore.webs_client import WebSocketClient

Configure = Callable[..., None]


@pytest.fixture
def configure(conf_file: Path) -> Configure:
    """Replaces the settings of the section [worker]."""

    def write(**worker: Any) -> None:
        conf_file.write_text(tomli_w.dumps({"worker": worker}))
        core_conf_glbl.reload()

    return write


def client_of(seconds: float = SETUP_SECONDS) -> WebSocketClient:
    """Return a client of a node on this machine."""
    return WebSocketClient(node_at("127.0.0.1"), client_timeout_sec=seconds)


def ping(client: WebSocketClient) -> OPResult:
    """Return the result of a ping."""
    return client.api_get_op_result(PingRequest())


def test_a_ping_succeeds_and_tells_the_worker_id(configure: Configure) -> None:
    """The id is unknown until the worker has answered."""
    with ReferenceWorker(worker_id="worker-9") as worker, client_of() as client:
        configure(port=worker.port)
        assert client.worker_id is None
        assert ping(client) == OPResult(success=True)
        assert client.worker_id == "worker-9"


def test_a_worker_id_that_the_owner_has_set_stays(configure: Configure) -> None:
    """The owner knows better which worker the client serves."""
    with ReferenceWorker() as worker, client_of() as client:
        configure(port=worker.port)
        client.worker_id = "mine"
        assert ping(client).success
        assert client.worker_id == "mine"


def test_making_a_client_opens_and_reads_nothing(conf_file: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """A configuration that cannot be used shows with the first request, as the error that names it."""
    node = node_at("127.0.0.1")
    conf_file.write_text("not toml [")
    core_conf_glbl.reload()
    with monkeypatch.context() as patch:
        patch.setattr(socket, "socket", None)
        client = WebSocketClient(node)
    with pytest.raises(ConfigError, match=r"core\.toml"):
        ping(client)
    with pytest.raises(ConfigError, match=r"core\.toml"):
        client.refresh_system_stat()


@pytest.mark.parametrize("seconds", [0, -1, float("nan"), float("inf"), 86401])
def test_a_time_limit_must_be_positive_and_at_most_a_day(seconds: float) -> None:
    """The text says what is allowed."""
    with pytest.raises(ValueError, match="allowed is more than 0 and at most 86400 seconds"):
        client_of(seconds)


def test_statistics_are_written_into_the_record(configure: Configure) -> None:
    """All four fields, the time by this machine's clock; asking without refreshing writes none."""
    with ReferenceWorker() as worker, client_of() as client:
        configure(port=worker.port)
        assert client.api_get_op_result(SystemStatRequest()).success
        assert client.node.system_stat_time is None
        before = time.time()
        assert client.refresh_system_stat() == OPResult(success=True)
    node = client.node
    assert node.cpu_percent is not None
    assert 0 <= node.cpu_percent <= 100
    assert node.memory_used_bytes is not None
    assert node.memory_total_bytes is not None
    assert 0 < node.memory_used_bytes < node.memory_total_bytes
    assert node.system_stat_time is not None
    assert before <= node.system_stat_time <= time.time()


def no_stat(request: dict[str, object]) -> bytes:
    """Reply to a request as a worker that knows no statistics."""
    return json.dumps(request).encode()


@pytest.mark.parametrize("behaviour", [peers.closes_at_once, peers.answers_text(no_stat)])
def test_statistics_that_do_not_come_leave_the_record_alone(
    configure: Configure, behaviour: peers.Behaviour
) -> None:
    """Nothing is raised, and no field is changed, not even to unknown."""
    with peers.Peer(behaviour) as peer, client_of() as client:
        configure(port=peer.port)
        client.node.cpu_percent = 5.0
        client.node.system_stat_time = 1.0
        before = vars(client.node).copy()
        result = client.refresh_system_stat()
    assert (result.success, result.error) == (False, True)
    assert vars(client.node) == before


def test_the_connection_is_kept(configure: Configure) -> None:
    """Later requests go over the first one's connection."""
    with peers.Peer(peers.echoes) as peer, client_of() as client:
        configure(port=peer.port)
        assert all(ping(client).success for _ in range(5))
        assert peer.accepted == 1


def test_a_kept_connection_that_is_broken_is_made_again(configure: Configure) -> None:
    """The request that finds it broken succeeds over a new one."""
    with peers.Peer(peers.answers_once) as peer, client_of() as client:
        configure(port=peer.port)
        assert all(ping(client).success for _ in range(3))
        assert peer.accepted == 3


def test_a_worker_may_start_anew(configure: Configure) -> None:
    """Its clients find it again at the same port."""
    with ReferenceWorker() as worker, client_of() as client:
        configure(port=worker.port)
        assert ping(client).success
        worker.stop()
        refused = ping(client)
        worker.start()
        assert ping(client).success
    assert refused.error_code is OPResultErrorCode.CONNECTION_FAILED


def test_a_connection_is_made_again_only_once(configure: Configure) -> None:
    """A worker that breaks every connection is not tried until the deadline."""
    answered = threading.Event()

    def answers_the_first(conversation: peers.Conversation) -> None:
        if answered.is_set():
            peers.resets_after_request(conversation)
        else:
            answered.set()
            peers.answers_once(conversation)

    with peers.Peer(answers_the_first) as peer, client_of() as client:
        configure(port=peer.port)
        assert ping(client).success
        assert ping(client).error_code is OPResultErrorCode.CONNECTION_FAILED
        assert peer.accepted == 2


@pytest.mark.parametrize("behaviour", [peers.closes_at_once, peers.resets_after_request])
def test_a_fresh_connection_that_breaks_is_a_failure(
    configure: Configure, behaviour: peers.Behaviour
) -> None:
    """It was not broken by age; trying again would meet the same."""
    with peers.Peer(behaviour) as peer, client_of() as client:
        configure(port=peer.port)
        assert ping(client).error_code is OPResultErrorCode.CONNECTION_FAILED
        assert peer.accepted == 1


def test_an_answer_that_comes_too_late_meets_no_later_request(configure: Configure) -> None:
    """After a time-out the connection is given up."""
    late = threading.Event()

    def answers_late(conversation: peers.Conversation) -> None:
        conversation.open()
        message = conversation.message()
        late.wait()
        conversation.reply(message)
        conversation.hold()

    with peers.Peer(answers_late) as peer, client_of(1) as client:
        configure(port=peer.port)
        assert ping(client).error_code is OPResultErrorCode.TIMEOUT
        late.set()
        client.client_timeout_sec = SETUP_SECONDS
        assert ping(client).success
        assert peer.accepted == 2


def test_changed_settings_take_effect_on_a_kept_connection(configure: Configure) -> None:
    """What was opened with the old ones is not used any more."""
    with ReferenceWorker() as one, ReferenceWorker(token="t") as other, client_of() as client:
        configure(port=one.port)
        assert ping(client).success
        configure(port=other.port, token="t")
        assert ping(client).success
        assert (one.requests, other.requests) == (1, 1)


def test_a_dropped_client_closes_its_connection(configure: Configure) -> None:
    """At once and quietly, without the collector's help."""
    gone = threading.Event()

    def notices_the_end(conversation: peers.Conversation) -> None:
        try:
            peers.echoes(conversation)
        finally:
            gone.set()

    with peers.Peer(notices_the_end) as peer:
        configure(port=peer.port)
        gc.disable()
        try:
            client = client_of()
            assert ping(client).success
            del client
            assert gone.wait(SETUP_SECONDS)
        finally:
            gc.enable()


def test_a_closed_client_connects_anew_when_it_is_asked(configure: Configure) -> None:
    """Closing twice does no harm."""
    with peers.Peer(peers.echoes) as peer, client_of() as client:
        configure(port=peer.port)
        client.close()
        assert ping(client).success
        client.close()
        client.close()
        assert ping(client).success
        assert peer.accepted == 2


def test_threads_share_a_client(configure: Configure) -> None:
    """Their requests go one after the other over the one connection, none is lost or mixed up."""
    results: list[bool] = []
    with peers.Peer(peers.echoes) as peer, client_of() as client:
        configure(port=peer.port)
        start = threading.Barrier(8)

        def ask() -> None:
            start.wait()
            results.extend(ping(client).success for _ in range(25))

        threads = [threading.Thread(target=ask) for _ in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert peer.accepted == 1
    assert results == [True] * 200


def test_waiting_for_another_thread_counts_as_part_of_the_time(configure: Configure) -> None:
    """The second request ends at its own limit, though the first has the connection."""
    with peers.Peer(peers.never_replies) as peer, client_of(HANG_SECONDS) as client:
        configure(port=peer.port)
        first = threading.Thread(target=ping, args=(client,))
        first.start()
        while not peer.accepted:
            time.sleep(0.001)
        client.client_timeout_sec = 0.2
        with in_time(0.2, least=0.2):
            result = ping(client)
        peer.__exit__()
        first.join()
    assert result.error_code is OPResultErrorCode.TIMEOUT
    assert "another thread's request" in (result.msg or "")


def test_an_interrupt_gives_the_connection_up(configure: Configure, monkeypatch: pytest.MonkeyPatch) -> None:
    """It reaches the caller, and the answer that is left over meets no later request."""
    with peers.Peer(peers.echoes) as peer, client_of() as client:
        configure(port=peer.port)
        assert ping(client).success
        with monkeypatch.context() as patch:
            patch.setattr("tovarincore._webs_client.messages.read_reply", interrupt)
            with pytest.raises(KeyboardInterrupt):
                ping(client)
        assert ping(client).success
        assert peer.accepted == 2


def interrupt(*_: object) -> None:
    """Do as a signal handler does at Ctrl-C."""
    raise KeyboardInterrupt


def test_the_credential_store_goes_before_the_setting(configure: Configure) -> None:
    """Each region can have its own token."""
    with ReferenceWorker(token="stored") as worker, client_of() as client:
        configure(port=worker.port, token="configured")
        assert ping(client).error_code is OPResultErrorCode.UNAUTHENTICATED
        CloudConfManager().set_cloud_conf(
            client.node.region, CloudConf(AWSCloudAuth(), "ada", worker_token="stored")
        )
        assert ping(client).success


@pytest.mark.parametrize("token", ["", "wrong", "rightx", "righ"])
def test_another_token_is_refused(configure: Configure, token: str) -> None:
    """The result tells where a token is set."""
    with ReferenceWorker(token="right") as worker, client_of() as client:
        configure(port=worker.port, token=token)
        result = ping(client)
    assert result.error_code is OPResultErrorCode.UNAUTHENTICATED
    assert "[worker] token" in (result.msg or "")


def test_the_token_is_never_shown(configure: Configure, caplog: pytest.LogCaptureFixture) -> None:
    """Not in a repr, a log line at any level or a message, even when the peer sends it back."""
    caplog.set_level(logging.DEBUG)
    secret = "s3cr3t-t0k3n"

    def sends_back(conversation: peers.Conversation) -> None:
        head = conversation.request()
        given = head.headers["Authorization"]
        assert given == f"Bearer {secret}"
        conversation.connected.sendall(f"HTTP/1.1 101 {given}\r\nUpgrade: {given}\r\n\r\n".encode())

    with peers.Peer(sends_back) as peer, client_of() as client:
        configure(port=peer.port, token=secret)
        result = ping(client)
        assert result.error_code is OPResultErrorCode.PROTOCOL_ERROR
        shown = f"{result!r} {client!r} {vars(client)!r} {caplog.text}"
    with ReferenceWorker(token=secret) as worker, client_of() as client:
        configure(port=worker.port, token=secret)
        assert ping(client).success
        connection = client._connection
        shown += f"{client!r} {connection!r} {connection and connection.target!r} {worker!r} {caplog.text}"
    assert secret not in shown


@pytest.mark.parametrize(
    "error", [RecursionError("deep"), ValueError("odd"), MemoryError(), KeyError("x")], ids=repr
)
def test_whatever_makes_the_client_stumble_becomes_a_result(
    configure: Configure, monkeypatch: pytest.MonkeyPatch, error: Exception
) -> None:
    """The library or ourselves: a refresh of a hundred nodes is not to end with one of them."""

    def stumble(*arguments: object) -> NoReturn:
        raise error

    monkeypatch.setattr("tovarincore._webs_client.messages.read_reply", stumble)
    with ReferenceWorker(token="canary-4711") as worker, client_of() as client:
        configure(port=worker.port, token="canary-4711")
        for result in (ping(client), client.refresh_system_stat()):
            assert result.error_code is OPResultErrorCode.PROTOCOL_ERROR
            assert f"made the client stumble ({type(error).__name__}" in (result.msg or "")


def test_a_name_that_would_move_the_cursor_is_escaped(configure: Configure) -> None:
    """It comes from a tag, and ends on a terminal."""
    with refusing_port() as port, client_of() as client:
        configure(port=port)
        client.node.name = "a\x1b[2Jb\n"
        assert (ping(client).msg or "").startswith(r"Worker of node 'a\x1b[2Jb\n': ")
