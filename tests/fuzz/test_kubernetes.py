"""Whatever a kubeconfig holds, a plugin prints or a server sends in place of a cluster becomes a result."""

from __future__ import annotations

import gzip
import json
import socket
from collections.abc import Callable, Iterator
from pathlib import Path
from types import SimpleNamespace
from typing import Any
from unittest import mock

import pytest
from hypothesis import strategies as st

from stage.settings import settings_of
from tests.fuzz.runner import search
from tovarincore._k8s_console_client import credentials, transport
from tovarincore._k8s_console_client.deadline import ApiDeadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.exec_plugin import user_in
from tovarincore._k8s_console_client.kubeconfig import ExecPlugin, User
from tovarincore._k8s_console_client.names import is_object_name
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    InstanceTemplate,
    InstanceTemplatePayType,
    K8sRegion,
    NodeState,
)
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.k8s_console_client import K8sConsoleClient

# The longest answer that the client reads, and what it makes of it.
MOST_MEGABYTES = 700
CANARY = "canary-token-0815"

scalars = (
    st.none()
    | st.booleans()
    | st.integers()
    | st.floats()
    | st.text(max_size=20)
    | st.sampled_from([CANARY, "../secrets/x", "a\0b", "\ud800", "x" * 300, 10**400, ""])
)
anything = st.recursive(
    scalars,
    lambda inner: st.lists(inner, max_size=4) | st.dictionaries(st.text(max_size=8), inner, max_size=4),
    max_leaves=12,
)


def mapping(**fields: st.SearchStrategy[Any]) -> st.SearchStrategy[Any]:
    """An object with some of these fields, of the right kind or not; or something else."""
    optional = {name.replace("_", "-"): right | anything for name, right in fields.items()}
    return st.fixed_dictionaries({}, optional=optional) | anything


texts = st.text(max_size=30)
names = st.sampled_from(["tovarin-a", "tovarin-b"]) | texts
pods = mapping(
    apiVersion=st.just("v1"),
    kind=st.just("Pod"),
    metadata=mapping(
        name=names,
        uid=st.just("uid-1"),
        labels=st.just(
            {"app.kubernetes.io/managed-by": "tovarincore", "app.kubernetes.io/component": "worker"}
        ),
        annotations=st.dictionaries(
            st.sampled_from(["tovarincore/instance-type", "tovarincore/name", "tovarincore/launch"]), texts
        ),
        deletionTimestamp=texts,
    ),
    spec=mapping(volumes=st.just([{"name": "launch", "secret": {"secretName": "tovarin-a-launch"}}])),
    status=mapping(
        phase=st.sampled_from(["Pending", "Running", "Failed"]),
        podIP=texts,
        conditions=st.lists(mapping(type=st.just("Ready"), status=st.just("True")), max_size=2),
    ),
)
lists = mapping(
    items=st.lists(pods, max_size=3), metadata=st.fixed_dictionaries({}, optional={"continue": texts})
)
refusals = mapping(kind=st.just("Status"), message=texts | st.just(f"no: {CANARY}"), code=st.integers())
catalogues = mapping(
    data=st.dictionaries(
        st.sampled_from(["instance_templates.json", "instance_types.json"]),
        (anything | st.lists(anything, max_size=2)).map(lambda value: json.dumps(value)),
    )
)


def as_json(value: object) -> bytes:
    """A value as JSON, also one that JSON does not have."""
    return json.dumps(value).encode()


bodies = (
    (pods | lists | refusals | catalogues).map(as_json)
    | st.binary(max_size=60)
    | st.sampled_from(
        [b"", b"null", b"[" * 50_000, b'{"a":' * 50_000, b'{"items":[' + b"{}," * 20_000 + b"{}]}"]
    )
)


@st.composite
def answers(draw: st.DrawFn) -> bytes:
    """An HTTP answer: mostly whole, sometimes with headers that lie, sometimes no HTTP at all."""
    if draw(st.integers(0, 9)) == 0:
        return draw(st.binary(max_size=200))
    body = draw(bodies)
    headers = []
    packed = draw(st.sampled_from(["", "", "", "gzip", "bomb", "lie"]))
    if packed == "gzip":
        body = gzip.compress(body)
    elif packed == "bomb":
        body = gzip.compress(bytes(3_000_000), 9)
    if packed:
        headers.append("Content-Encoding: gzip")
    framing = draw(st.sampled_from(["length", "length", "length", "close", "short", "long", "chunked"]))
    if framing == "chunked":
        headers.append("Transfer-Encoding: chunked")
        body = b"%x\r\n%b\r\n0\r\n\r\n" % (len(body), body) if draw(st.booleans()) else body
    elif framing != "close":
        length = len(body) + {"length": 0, "short": -1, "long": 1}[framing]
        headers.append(f"Content-Length: {length}")
    if draw(st.booleans()):
        wait = draw(
            st.sampled_from(["0", "1", "-1", "99999999999999999999", "Wed, 21 Oct 2026 07:28:00 GMT", ""])
        )
        headers.append(f"Retry-After: {wait}")
    status = draw(
        st.sampled_from([200, 200, 200, 201, 204, 304, 401, 403, 404, 409, 410, 422, 429, 500, 503])
    )
    head = "\r\n".join([f"HTTP/1.1 {status} {draw(st.sampled_from(['OK', '', CANARY]))}", *headers])
    return head.encode() + b"\r\n\r\n" + body


class Server:
    """Gives its answers one after the other, each to one connection, the last one again and again."""

    def __init__(self, given: list[bytes]) -> None:
        self._given = given
        self._peers: list[socket.socket] = []

    def connect(self, *_args: object, **_named: object) -> socket.socket:
        """Take the place of a connection to a host."""
        client, peer = socket.socketpair()
        answer = self._given.pop(0) if len(self._given) > 1 else self._given[0]
        # What does not fit is not sent: the connection breaks off there.
        peer.setblocking(False)
        peer.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 20)
        peer.send(answer or b"\r\n")
        peer.shutdown(socket.SHUT_WR)
        self._peers.append(peer)
        return client

    def close(self) -> None:
        """Close the server's ends."""
        for peer in self._peers:
            peer.close()


@pytest.fixture(scope="module")
def region(tmp_path_factory: pytest.TempPathFactory) -> Iterator[K8sRegion]:
    """A region with a token, on a server that the tests stand for."""
    folder = tmp_path_factory.mktemp("fuzz")
    config = {
        "current-context": "c",
        "contexts": [{"name": "c", "context": {"cluster": "c", "user": "u"}}],
        "clusters": [{"name": "c", "cluster": {"server": "http://127.0.0.1:1"}}],
        "users": [{"name": "u", "user": {"token": CANARY}}],
    }
    (folder / "kubeconfig").write_text(json.dumps(config))
    with settings_of(folder, {"kubernetes": {"operation_seconds": 2.0}}):
        yield K8sRegion("fuzzed", kubeconfig=str(folder / "kubeconfig"))


def documented(result: OPResult) -> None:
    """A result is a success or an error, and shows no secret; a defect would say that it is one."""
    assert isinstance(result, OPResult)
    assert result.success != result.error
    assert result.error_code is None or isinstance(result.error_code, OPResultErrorCode)
    shown = f"{result!r} {result.msg} {result.traceback_text}"
    assert CANARY not in shown
    assert "Please report it" not in shown
    assert len(result.msg or "") < 10_000


def documented_node(node: object) -> None:
    """A node's fields are of their types, and its id leads to itself alone."""
    assert isinstance(node, CloudNode)
    assert is_object_name(node.instance_id)
    assert isinstance(node.state, NodeState)
    assert isinstance(node.instance_type_def, CloudInstanceTypeDef)
    assert all(isinstance(text, str) for text in (node.uuid, node.name, node.dns_address))


def call(region: K8sRegion, method: str, given: list[bytes]) -> None:
    """Call one method on a server that answers so."""
    client = K8sConsoleClient(region)
    template = InstanceTemplate("i", "i", InstanceTemplatePayType.DEV, mock.ANY, region, "1")
    config = CloudInstanceConfig(1, {}, template, uuid="a")
    server = Server(given)
    try:
        with (
            mock.patch.object(transport, "connect", server.connect),
            mock.patch.object(transport, "time", SimpleNamespace(sleep=lambda seconds: None)),
        ):
            if method == "list":
                nodes, result = client.get_cloud_nodes()
                assert (nodes is None) == result.error
                for node in nodes or []:
                    documented_node(node)
            elif method == "launch":
                launched, result = client.launch_node(
                    instance_type_def=CloudInstanceTypeDef("t", 1, 1), instance_config=config
                )
                assert (launched is None) == result.error
            elif method == "terminate":
                result = client.terminate_node(instance_id="tovarin-a", stop_reason="r")
            else:
                listed: Callable[[], tuple[list[Any], OPResult]] = getattr(client, method)
                entries, result = listed()
                assert isinstance(entries, list)
            documented(result)
    finally:
        server.close()


@pytest.mark.parametrize(
    "method", ["list", "launch", "terminate", "list_instance_templates", "list_instance_types"]
)
def test_answers_end_in_results(region: K8sRegion, method: str) -> None:
    """Whatever HTTP answers hold, every method ends in a documented result, in bounded memory."""
    conversations = st.lists(answers(), min_size=1, max_size=4)
    search(conversations, lambda given: call(region, method, list(given)), 20, MOST_MEGABYTES)


users = mapping(
    token=texts | st.just(CANARY),
    tokenFile=st.sampled_from(["token", "pipe", ".", "missing", "/dev/zero", "a\0"]),
    client_certificate_data=texts | st.just("LS0tLS1CRUdJTg=="),
    client_key_data=texts,
    client_certificate=st.sampled_from(["token", "pipe", ".", "missing"]),
    client_key=st.sampled_from(["token", "pipe"]),
    username=texts,
    password=texts | st.just(CANARY),
    **{
        "as": texts,
        "as_uid": texts,
        "as_groups": st.lists(texts, max_size=2),
        "as_user_extra": st.dictionaries(texts, st.lists(texts, max_size=2), max_size=2),
    },
)
clusters = mapping(
    server=st.sampled_from(
        ["https://h:6443", "http://[::1]:1/p", "https://", "h", "https://h:99999", "https://ä\0"]
    )
    | texts,
    tls_server_name=texts,
    insecure_skip_tls_verify=st.booleans(),
    certificate_authority=st.sampled_from(["token", "pipe", "missing"]),
    certificate_authority_data=texts,
    proxy_url=st.sampled_from(["http://u:canary-token-0815@h:1", "http://h:99999", "socks5://h"]) | texts,
    disable_compression=st.booleans(),
)
# A name is no secret, and is told: nothing there bears the canary's.
odd = anything.filter(lambda value: CANARY not in repr(value))
kubeconfigs = st.fixed_dictionaries(
    {},
    optional={
        "current-context": st.just("c") | odd,
        "contexts": st.just([{"name": "c", "context": {"cluster": "c", "user": "u"}}]) | odd,
        "clusters": clusters.map(lambda cluster: [{"name": "c", "cluster": cluster}]) | odd,
        "users": users.map(lambda user: [{"name": "u", "user": user}]) | odd,
    },
)


@st.composite
def kubeconfig_files(draw: st.DrawFn) -> bytes:
    """A kubeconfig: as it should be, or with some bytes changed, or of another kind."""
    if draw(st.integers(0, 9)) == 0:
        return draw(
            st.binary(max_size=200) | st.text(max_size=200).map(lambda text: text.encode("utf-8", "replace"))
        )
    text = bytearray(json.dumps(draw(kubeconfigs)).encode())
    for _ in range(draw(st.sampled_from([0, 0, 0, 1, 3]))):
        place = draw(st.integers(0, len(text)))
        text[place : place + draw(st.integers(0, 4))] = draw(st.binary(max_size=4))
    return bytes(text)


def test_kubeconfigs_end_in_an_access_or_an_error(tmp_path: Path) -> None:
    """Whatever a kubeconfig holds, it is read and honoured or refused, without a word of its secrets."""
    file = tmp_path / "kubeconfig"
    (tmp_path / "token").write_text(CANARY)
    (tmp_path / "pipe").symlink_to("/dev/tty")
    region = K8sRegion("fuzzed", kubeconfig=str(file))

    def check(content: bytes) -> None:
        file.write_bytes(content)
        deadline = ApiDeadline(5, "a test")
        try:
            # Plugins are not run: a program of any name might be there.
            with mock.patch.object(credentials, "run_exec_plugin", lambda *_args: User()):
                access = credentials.read_access(region, deadline)
            with transport.Connection(access, deadline, lambda: access):
                pass
            shown = repr(access)
        except KubernetesError as error:
            shown = f"{error} {error!r}"
        assert CANARY not in shown

    search(kubeconfig_files(), check, 100, MOST_MEGABYTES)


def test_output_of_plugins_ends_in_a_user_or_an_error() -> None:
    """Whatever a plugin prints, it is a credential or an error that shows nothing of it."""
    plugin = ExecPlugin(apiVersion="v1", command="c")
    credential = mapping(
        status=mapping(token=texts | st.just(CANARY), clientCertificateData=texts, clientKeyData=texts)
    )

    def check(output: bytes) -> None:
        try:
            assert isinstance(user_in(plugin, output), User)
        except KubernetesError as error:
            assert CANARY not in str(error)

    search(credential.map(as_json) | bodies, check, 100, MOST_MEGABYTES)
