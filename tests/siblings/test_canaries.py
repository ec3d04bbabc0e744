"""Every client at DEBUG on the root logger with a canary in every secret: none is seen again.

Peers send back whatever they were sent. Log lines, output, results, and exceptions with their tracebacks are
searched.
"""

from __future__ import annotations

import base64
import io
import json
import logging
import traceback
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from datetime import datetime
from pathlib import Path
from typing import Any
from urllib.parse import quote

import pytest

from stage import worker_peers as peers
from stage.certificates import make_server_certificate
from stage.engine_api import EngineApi
from stage.ports import refusing_port
from stage.settings import settings_of
from stage.worker_timeouts import node_at
from tovarincore.api_def import PingRequest
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import (
    AWSCloudAuth,
    CloudInstanceConfig,
    CloudInstances,
    CloudRegion,
    CloudRegions,
    InstanceTemplate,
    InstanceTemplatePayType,
)
from tovarincore.container_helper import ContainerHelper
from tovarincore.core_conf import ConfigError, core_conf_glbl
from tovarincore.testing.reference_worker import ReferenceWorker
from tovarincore.webs_client import WebSocketClient

CANARIES = {
    name: f"canary-{name}+/{number}"
    for number, name in enumerate(["token", "stored", "password", "key-id", "secret", "session"], 1)
}
PROXY_LOGIN = f"ada:{quote(CANARIES['password'], safe='')}"
AWS = CloudRegion("eu-central-1", "AWS")


def forms(canary: str) -> list[str]:
    """The forms in which a secret travels."""
    login = base64.b64encode(f"ada:{canary}".encode()).decode()
    return [canary, quote(canary, safe=""), json.dumps(canary)[1:-1], login[8:-4]]


class Seen:
    """Everything that a user could come to see."""

    def __init__(self) -> None:
        self.stream = io.StringIO()

    def note(self, what: object) -> None:
        """Take a result, an exception or any other object to be shown."""
        print(what, repr(what), file=self.stream)
        if isinstance(what, BaseException):
            print("".join(traceback.format_exception(what)), file=self.stream)
        elif hasattr(what, "traceback_text"):
            print(what.traceback_text, vars(what), file=self.stream)

    def run(self, body: Callable[[], object]) -> None:
        """Note what a body returns or raises."""
        try:
            self.note(body())
        except Exception as error:
            self.note(error)


@pytest.fixture
def seen(tmp_path: Path, capfd: pytest.CaptureFixture[str]) -> Iterator[Seen]:
    """What was seen; at the end of the test it is searched for canaries."""
    collected = Seen()
    handler = logging.StreamHandler(collected.stream)
    before = logging.root.level
    logging.root.addHandler(handler)
    logging.root.setLevel(logging.DEBUG)
    try:
        yield collected
    finally:
        logging.root.setLevel(before)
        logging.root.removeHandler(handler)
    output = capfd.readouterr()
    text = "\n".join([collected.stream.getvalue(), output.out, output.err])
    assert len(text) > 100
    found = [(name, form) for name, canary in CANARIES.items() for form in forms(canary) if form in text]
    assert not found, text


@pytest.fixture
def configure(tmp_path: Path) -> Iterator[Callable[..., None]]:
    """Writes settings, with a canary in each secret, and a store of the same kind."""
    with ExitStack() as stack:

        def write(**sections: dict[str, Any]) -> None:
            proxy = f"http://{PROXY_LOGIN}@127.0.0.1:{sections.pop('proxy_port', 9)}"
            document = {
                "worker": {"token": CANARIES["token"], **sections.pop("worker", {})},
                "proxy": {"http": proxy, "https": proxy, **sections.pop("proxy", {})},
                "logging": {"level": "DEBUG"},
                **sections,
            }
            stack.enter_context(settings_of(tmp_path, document))
            auth = AWSCloudAuth("", CANARIES["key-id"], CANARIES["secret"], CANARIES["session"])
            for region in (AWS, CloudRegions.get_local_container_region()):
                conf = CloudConf(auth if region is AWS else None, "ada", CANARIES["stored"])
                CloudConfManager().set_cloud_conf(region, conf)

        yield write


def echoes_in_status(conversation: peers.Conversation) -> None:
    """Refuse the handshake and send its headers back."""
    headers = str(conversation.request().headers)
    flat = headers.replace("\r\n", " ")
    body = headers.encode()
    conversation.connected.sendall(
        f"HTTP/1.1 403 {flat}\r\nX-Echo: {flat}\r\nContent-Length: {len(body)}\r\n\r\n".encode() + body
    )


def echoes_in(kind: str) -> Callable[[peers.Conversation], None]:
    """Open the web-socket and send the handshake's headers back in some way."""

    def behave(conversation: peers.Conversation) -> None:
        request = conversation.request()
        conversation.protocol.send_response(conversation.protocol.accept(request))
        conversation.connected.sendall(b"".join(conversation.protocol.data_to_send()))
        header = request.headers["Authorization"]
        message = json.loads(conversation.message())
        if kind == "close":
            conversation.protocol.send_close(1008, header)
            conversation.connected.sendall(b"".join(conversation.protocol.data_to_send()))
        elif kind == "error":
            error = {"code": header, "message": header * 50}
            conversation.reply(json.dumps({**message, "kind": "error", "error": error}))
        elif kind == "version":
            conversation.reply(json.dumps({**message, "v": header}))
        else:
            conversation.reply(f"no JSON: {header} " * 5)
        conversation.hold()

    return behave


def ask(seen: Seen) -> None:
    """Ping a worker on this machine, twice over one connection, and look at everything."""
    with WebSocketClient(node_at("127.0.0.1"), 5) as client:
        for _ in range(2):
            seen.run(lambda: client.api_get_op_result(PingRequest()))
        seen.run(client.refresh_system_stat)
        seen.note(client)
        seen.note(vars(client))


@pytest.mark.parametrize("kind", ["close", "error", "version", "text", "status"])
@pytest.mark.parametrize("tls", [False, True], ids=["ws", "wss"])
def test_a_worker_that_sends_the_token_back(
    seen: Seen, configure: Callable[..., None], tmp_path: Path, kind: str, tls: bool
) -> None:
    """In the refusal of the handshake, the close reason or an answer."""
    files = make_server_certificate(tmp_path) if tls else None
    behaviour = echoes_in_status if kind == "status" else echoes_in(kind)
    with peers.Peer(behaviour, ssl_context=files.server_context() if files else None) as peer:
        worker = {"scheme": "wss", "ca_file": str(files.authority)} if files else {}
        configure(worker={"port": peer.port, **worker})
        ask(seen)


def test_a_healthy_worker(seen: Seen, configure: Callable[..., None]) -> None:
    """Success shows nothing either, on the side of the worker neither."""
    with ReferenceWorker(token=CANARIES["stored"]) as worker:
        configure(worker={"port": worker.port})
        ask(seen)


@pytest.mark.parametrize("answer", [b"HTTP/1.1 407 %s\r\nX: %s\r\n\r\n", b"no HTTP %s %s\r\n\r\n"])
def test_a_proxy_that_sends_its_login_back(seen: Seen, configure: Callable[..., None], answer: bytes) -> None:
    """With the status, or as something that is no answer."""
    login = base64.b64encode(f"ada:{CANARIES['password']}".encode())
    with peers.Peer(peers.proxies([], answer % (login, login))) as proxy:
        configure(proxy_port=proxy.port, proxy={"enabled": True}, worker={"use_proxy": True})
        ask(seen)


@pytest.mark.parametrize("status", [400, 500])
def test_an_engine_that_sends_the_container_s_variables_back(
    seen: Seen, configure: Callable[..., None], status: int
) -> None:
    """The worker's token is one of them."""
    with EngineApi() as api:
        api.answers["GET", "/containers/json"] = (200, [])
        echo = {"message": f"bad variables: TOVARIN_WORKER__TOKEN={CANARIES['stored']}"}
        api.answers["POST", "/containers/create"] = (status, echo)
        configure(container={"engine_url": api.url})
        helper = ContainerHelper()
        seen.run(lambda: helper.run_tvr_container_image("1.0"))
        seen.run(helper.get_existing_node)
        seen.run(helper.delete_tovarin_container)


@pytest.mark.parametrize("through_proxy", [False, True], ids=["direct", "proxy"])
def test_ec2_that_cannot_be_reached(
    seen: Seen, configure: Callable[..., None], through_proxy: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The SDK's errors, its own log and the facade's; nobody sends anything back here."""
    pytest.importorskip("boto3", reason="the SDK is not installed")
    from tovarincore.cloud_node import CloudManager

    with refusing_port() as port:
        configure(proxy_port=port, proxy={"enabled": through_proxy})
        monkeypatch.setenv("AWS_ENDPOINT_URL_EC2", f"http://127.0.0.1:{port}")
        monkeypatch.setenv("AWS_MAX_ATTEMPTS", "1")
        manager = CloudManager()
        seen.run(lambda: manager.get_node_manager(AWS).list_instances())
        seen.run(lambda: manager.refresh_node_list(AWS))
        seen.note(vars(manager.get_node_manager(AWS)))


@contextmanager
def refusing_ec2(code: str, message: str, monkeypatch: pytest.MonkeyPatch) -> Iterator[None]:
    """An EC2 that refuses every request in these words."""
    error = f"<Error><Code>{code}</Code><Message>{message}</Message></Error>"
    body = f"<Response><Errors>{error}</Errors></Response>".encode()

    def refuse(conversation: peers.Conversation) -> None:
        conversation.connected.recv(65536)
        head = f"HTTP/1.1 403 no\r\nConnection: close\r\nContent-Length: {len(body)}\r\n\r\n"
        conversation.connected.sendall(head.encode() + body)

    with peers.Peer(refuse) as peer:
        monkeypatch.setenv("AWS_ENDPOINT_URL_EC2", f"http://127.0.0.1:{peer.port}")
        yield


def test_ec2_that_refuses_a_launch_in_the_words_of_the_request(
    seen: Seen, configure: Callable[..., None], monkeypatch: pytest.MonkeyPatch
) -> None:
    """A result carries EC2's message and its code: both may repeat what was sent."""
    pytest.importorskip("boto3", reason="the SDK is not installed")
    from tovarincore.cloud_node import CloudManager

    canary = f"{CANARIES['session']} {CANARIES['key-id']}"
    configure()
    with refusing_ec2(canary, f"you sent {canary}", monkeypatch):
        auth = AWSCloudAuth("", CANARIES["key-id"], CANARIES["secret"], CANARIES["session"])
        template = InstanceTemplate("ami-1", "i", InstanceTemplatePayType.DEV, datetime(2026, 1, 1), AWS, "1")
        config = CloudInstanceConfig(20, {}, template)
        kind = CloudInstances.get_default_local_instance_type()
        node, result = CloudManager().launch_node(AWS, auth, kind, config, "ada")
        seen.note(result)
    assert (node, result.msg) == (None, "you sent *** ***")


def test_ec2_that_sends_the_request_s_headers_back(
    seen: Seen, configure: Callable[..., None], monkeypatch: pytest.MonkeyPatch
) -> None:
    """Results are of the package; what the SDK raises is its own and passes unchanged."""
    pytest.importorskip("boto3", reason="the SDK is not installed")
    from tovarincore.cloud_node import CloudManager

    configure()
    with refusing_ec2("X", CANARIES["session"], monkeypatch):
        manager = CloudManager()
        seen.run(lambda: manager.refresh_node_list(AWS))
        result = manager.refresh_node_list(AWS)
        assert "ClientError" in (result.traceback_text or "")


@pytest.mark.parametrize("mistake", ["[worker]\ntoken = '{}' x", "[proxy]\nhttp = 'http://ada:{}@h:99999'"])
def test_a_mistake_in_the_settings(
    seen: Seen, configure: Callable[..., None], mistake: str, tmp_path: Path
) -> None:
    """In a file that holds secrets."""
    configure()
    (tmp_path / "core.toml").write_text(mistake.format(CANARIES["password"]))
    core_conf_glbl.reload()
    with pytest.raises(ConfigError) as caught:
        _ = core_conf_glbl.worker__port
    seen.note(caught.value)
