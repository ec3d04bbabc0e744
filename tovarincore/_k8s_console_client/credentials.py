"""Where a region's cluster is and who asks: a kubeconfig file, or the pod that this process runs in."""

import base64
import os
import re
from dataclasses import dataclass, field
from pathlib import Path
from urllib.parse import quote

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.exec_plugin import run_exec_plugin
from tovarincore._k8s_console_client.files import read_small_file
from tovarincore._k8s_console_client.kubeconfig import Cluster, UnusableKubeconfig, User, read_kubeconfig
from tovarincore._transport.deadline import Deadline
from tovarincore._transport.masker import Secret, know_secret
from tovarincore.cloud_def import K8sRegion
from tovarincore.core_def import OPResultErrorCode

__all__ = ["Access", "read_access"]

SERVICE_ACCOUNT_FOLDER = "/var/run/secrets/kubernetes.io/serviceaccount"
"""Where Kubernetes mounts the credentials of a pod's service account."""

_TOKEN = re.compile(r"[!-~]+")


@dataclass(frozen=True)
class Access:
    """How an API server is reached, and as whom.

    :param server: its address, such as ``https://host:6443``
    :param authority: certificates by which it is verified, as PEM; empty means those of the system
    :param verify: whether it is verified at all
    :param server_name: name that its certificate has to bear, ``None`` for that of the address
    :param proxy: address of an HTTP proxy, ``None`` for none
    :param compress: whether its answers may be compressed
    :param certificate: the client's certificate, as PEM; empty for none
    :param key: the key of that
    :param authorization: the header ``Authorization``, ``None`` for none
    :param impersonation: the headers that say as whom the user asks
    :param source: where the credentials come from, for people
    """

    server: str
    authority: str = ""
    verify: bool = True
    server_name: str | None = None
    proxy: Secret | None = None
    compress: bool = True
    certificate: str = ""
    key: Secret = field(default=Secret(), repr=False)
    authorization: Secret | None = None
    impersonation: tuple[tuple[str, str], ...] = ()
    source: str = "no credentials"


def read_access(region: K8sRegion, deadline: Deadline) -> Access:
    """Read a region's cluster and user.

    They are read for every operation: tokens and certificates are short-lived, and whoever renews them writes
    the files.

    :param deadline: when a credential plugin named in the kubeconfig has to be done
    :raises KubernetesError: they cannot be read or hold something that is not supported
    """
    deadline.enter("reading the kubeconfig", "check that the file is one and not damaged")
    try:
        if region.in_cluster:
            cluster, user, folder = _in_cluster()
            source = f"the service account in {SERVICE_ACCOUNT_FOLDER}"
        else:
            path = _kubeconfig_path(region)
            cluster, user = read_kubeconfig(path, region.context, deadline)
            folder = path.parent
            source = f"credentials of {path}"
        _check_supported(cluster, user)
    except (UnusableKubeconfig, OSError) as error:
        source = "in-cluster credentials" if region.in_cluster else "kubeconfig"
        raise KubernetesError(
            f"The {source} of region {region.name} cannot be used: {error}", OPResultErrorCode.UNAUTHENTICATED
        ) from error
    for secret in (user.token, user.password, cluster.proxy_url):
        if secret:
            know_secret(secret)
    if user.exec is not None:
        source += ", from its plugin"
        user = run_exec_plugin(user.exec, cluster, folder, deadline)
    try:
        certificate = _pem(user.client_certificate_data, user.client_certificate, folder)
        return Access(
            server=cluster.server,
            authority=_pem(cluster.certificate_authority_data, cluster.certificate_authority, folder),
            verify=not cluster.insecure_skip_tls_verify,
            server_name=cluster.tls_server_name or None,
            proxy=know_secret(cluster.proxy_url) if cluster.proxy_url else None,
            compress=not cluster.disable_compression,
            certificate=certificate,
            key=Secret(_pem(user.client_key_data, user.client_key, folder) if certificate else ""),
            authorization=_authorization(user, folder),
            impersonation=_impersonation(user),
            source=source,
        )
    except (OSError, ValueError) as error:
        raise KubernetesError(
            f"The certificates of region {region.name} cannot be read: {error}",
            OPResultErrorCode.CERTIFICATE_INVALID,
        ) from error


def _in_cluster() -> tuple[Cluster, User, Path]:
    for name in ("KUBERNETES_SERVICE_HOST", "KUBERNETES_SERVICE_PORT"):
        if not os.environ.get(name):
            raise UnusableKubeconfig(f"this process does not run in a pod: the variable {name} is not set")
    folder = Path(SERVICE_ACCOUNT_FOLDER)
    token = folder / "token"
    read_small_file(token)
    host, port = os.environ["KUBERNETES_SERVICE_HOST"], os.environ["KUBERNETES_SERVICE_PORT"]
    host = f"[{host}]" if ":" in host else host
    cluster = Cluster(server=f"https://{host}:{port}", certificate_authority=str(folder / "ca.crt"))
    return cluster, User(token_file=str(token)), folder


def _kubeconfig_path(region: K8sRegion) -> Path:
    # The variable may name several files to be merged; the first that exists is read.
    named = [name for name in os.environ.get("KUBECONFIG", "").split(os.pathsep) if name]
    paths = [region.kubeconfig] if region.kubeconfig else named or ["~/.kube/config"]
    files = [Path(path).expanduser() for path in paths]
    found = next((file for file in files if os.path.exists(file)), None)
    if found is None:
        raise UnusableKubeconfig(f"the file {files[0]} is not found")
    return found


def _check_supported(cluster: Cluster, user: User) -> None:
    if user.auth_provider is not None:
        raise UnusableKubeconfig(
            "its user has an auth-provider, which nothing supports any more; use an exec plugin"
        )
    if not user.impersonate and (user.impersonate_uid or user.impersonate_groups or user.impersonate_extra):
        raise UnusableKubeconfig("its user has as-uid, as-groups or as-user-extra without as")
    scheme = (cluster.proxy_url or "").partition("://")[0]
    if cluster.proxy_url and scheme != "http":
        raise UnusableKubeconfig("its proxy-url is not supported; it has to be like http://host:3128")
    if cluster.tls_server_name and not _is_certificate_name(cluster.tls_server_name):
        raise UnusableKubeconfig("its tls-server-name is no name that a certificate can carry")


def _is_certificate_name(name: str) -> bool:
    """Whether the TLS library takes a name; one that it stumbles over it would leave with an open socket."""
    try:
        return name.encode("idna").isascii() and name.isprintable()
    except UnicodeError:
        return False


def _pem(data: str | None, file: str | None, folder: Path) -> str:
    """Return the value of a field, or else the content of a file."""
    if data:
        return base64.b64decode(data, validate=True).decode("ascii", "replace")
    return read_small_file(folder / file).decode("ascii", "replace") if file else ""


def _authorization(user: User, folder: Path) -> Secret | None:
    token = user.token
    if user.token_file:
        try:
            token = read_small_file(folder / user.token_file).decode("ascii", "replace").strip()
        except OSError as error:
            raise KubernetesError(
                f"The token file {user.token_file!r} cannot be read: {error}",
                OPResultErrorCode.UNAUTHENTICATED,
            ) from error
        know_secret(token)
        if not token:
            raise KubernetesError(
                f"The token file {user.token_file!r} is empty", OPResultErrorCode.UNAUTHENTICATED
            )
    if token:
        if not _TOKEN.fullmatch(token):
            raise KubernetesError(
                "The credentials cannot be sent: the token holds characters that no HTTP header may have",
                OPResultErrorCode.UNAUTHENTICATED,
            )
        return know_secret(f"Bearer {token}")
    if user.username and user.password:
        login = f"{user.username}:{user.password}".encode()
        return know_secret("Basic " + base64.b64encode(login).decode())
    return None


def _impersonation(user: User) -> tuple[tuple[str, str], ...]:
    headers = [("Impersonate-User", user.impersonate or ""), ("Impersonate-Uid", user.impersonate_uid or "")]
    headers += [("Impersonate-Group", group) for group in user.impersonate_groups or []]
    for key, values in (user.impersonate_extra or {}).items():
        headers += [(f"Impersonate-Extra-{quote(key.lower(), safe='')}", value) for value in values]
    kept = tuple((name, value) for name, value in headers if value)
    for name, value in kept:
        if not value.isprintable() or value != value.strip():
            raise KubernetesError(
                f"The kubeconfig cannot be used: {name} would hold characters that no HTTP header may have",
                OPResultErrorCode.UNAUTHENTICATED,
            )
    return kept
