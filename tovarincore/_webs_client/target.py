"""Where a node's worker is reached and with what, from the configuration and the credential store."""

import base64
import re
import ssl
from dataclasses import dataclass, field
from pathlib import Path
from urllib.parse import unquote, urlsplit

from tovarincore._config_files.reading import read_file
from tovarincore._transport.failure import Failure
from tovarincore._transport.masker import Secret
from tovarincore._webs_client.errors import shown
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import CloudNode, CloudRegion
from tovarincore.core_conf import ConfigError, core_conf_glbl
from tovarincore.core_def import OPResultErrorCode

__all__ = ["ProxyServer", "Target", "read_target"]

_DEFAULT_PORTS = {"http": 80, "https": 443}
_CERTIFICATE = re.compile(
    "-----BEGIN (?:TRUSTED )?CERTIFICATE-----.+?-----END (?:TRUSTED )?CERTIFICATE-----", re.DOTALL
)

_credential_store = CloudConfManager()


@dataclass(frozen=True)
class ProxyServer:
    """An HTTP proxy.

    :param host: its name or address
    :param port: its port
    :param tls: checks for the connection to the proxy itself, ``None`` for a plain one
    :param authorization: value of the header ``Proxy-Authorization``, empty for none
    """

    host: str
    port: int
    tls: ssl.SSLContext | None
    authorization: str = field(repr=False)


@dataclass(frozen=True)
class Target:
    """A worker's web-socket.

    :param host: what to connect to
    :param port: what to connect to
    :param name: the worker's own name or address, for the certificate and the header ``Host``; a tunnel's end
        has another one
    :param path: path of the web-socket
    :param tls: certificates and checks, ``None`` for a plain connection
    :param token: bearer token, empty for none
    :param proxy: proxy to go through
    :param max_message_bytes: longest message that is accepted
    :param max_nesting: deepest nesting of objects and lists that is accepted
    """

    host: str
    port: int
    name: str
    path: str
    tls: ssl.SSLContext | None
    token: str = field(repr=False)
    proxy: ProxyServer | None
    max_message_bytes: int
    max_nesting: int


def read_target(node: CloudNode) -> Target:
    """Return where a node's worker is reached as configuration and credential store have it now.

    :raises ConfigError: one of them cannot be used
    :raises Failure: the node has no usable address (``CONNECTION_FAILED``)
    """
    conf = core_conf_glbl
    host, port = conf.get_worker_address(node) or (node.dns_address, _own_port(node.region))
    name = node.dns_address or host
    for address in (host, name):
        if not re.fullmatch(r"[A-Za-z0-9._:%-]+", address or ""):
            raise Failure(
                f"{shown(address or '')} is not an address to connect to; a node has one once it runs, and "
                "[worker_addresses] can give another",
                OPResultErrorCode.CONNECTION_FAILED,
            )
    stored = _credential_store.get_cloud_conf(node.region)
    return Target(
        host=host,
        port=port,
        name=name,
        path=conf.worker__path,
        tls=conf.derive("worker_tls", _worker_tls) if conf.worker__scheme == "wss" else None,
        token=(stored and stored.worker_token) or conf.worker__token,
        proxy=conf.derive("worker_proxy", _worker_proxy),
        max_message_bytes=conf.worker__max_message_bytes,
        max_nesting=conf.worker__max_nesting,
    )


def _own_port(region: CloudRegion) -> int:
    port: int
    match region.cloud:
        case "local":
            # The container's port is published under one of this machine's.
            port = core_conf_glbl.container__published_port
        case "k8s":
            port = core_conf_glbl.kubernetes__worker_port
        case _:
            port = core_conf_glbl.worker__port
    return port


def _worker_tls() -> ssl.SSLContext:
    ca_file = core_conf_glbl.worker__ca_file
    try:
        context = ssl.create_default_context(cadata=_certificates(Path(ca_file)) if ca_file else None)
    except (ConfigError, OSError, ValueError) as exc:
        raise ConfigError(
            f"[worker] ca_file: {ca_file} cannot be used ({exc}); allowed is a file of PEM certificates"
        ) from exc
    if not core_conf_glbl.worker__verify_certificates:
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
    return context


def _certificates(path: Path) -> str:
    """Return the certificates of a file; the TLS library by itself would wait for a pipe for ever."""
    read = read_file(path)
    # Only the certificates: what people write around them need not be ASCII, which this has to be.
    found = _CERTIFICATE.findall(read[0].decode("ascii", "replace")) if read else []
    if not found:
        raise ValueError("it holds no certificate" if read else "there is no such file")
    return "\n".join(found)


def _worker_proxy() -> ProxyServer | None:
    if not (core_conf_glbl.proxy_enabled and core_conf_glbl.worker__use_proxy):
        return None
    http, https = core_conf_glbl.get_proxy_conf_tuple()
    # The settings have checked them: a host, and a port that is one.
    url = urlsplit(https if core_conf_glbl.worker__scheme == "wss" else http)
    authorization: str = ""
    if url.username is not None:
        login = f"{unquote(url.username)}:{unquote(url.password or '')}"
        authorization = Secret("Basic " + base64.b64encode(login.encode()).decode("ascii"))
    tls = ssl.create_default_context() if url.scheme == "https" else None
    return ProxyServer(url.hostname or "", url.port or _DEFAULT_PORTS[url.scheme], tls, authorization)
