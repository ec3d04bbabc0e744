"""Credential plugins: programs named in a kubeconfig that print a short-lived credential.

https://kubernetes.io/docs/reference/access-authn-authz/authentication/#client-go-credential-plugins describes
what they are given and what they print.
"""

import base64
import json
import os
import re
import selectors
import signal
import subprocess
from contextlib import suppress
from pathlib import Path

import msgspec

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.files import read_small_file
from tovarincore._k8s_console_client.kubeconfig import Cluster, ExecPlugin, User
from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore._transport.masker import know_secret
from tovarincore.core_def import OPResultErrorCode

__all__ = ["run_exec_plugin", "user_in"]

_LONGEST_OUTPUT_BYTES = 1 << 20
_SHOWN_CHARACTERS = 500
_SECRET_NAME = re.compile("token|secret|password|key", re.IGNORECASE)


class _Status(msgspec.Struct, rename="camel"):
    token: str | None = None
    client_certificate_data: str | None = None
    client_key_data: str | None = None


class _ExecCredential(msgspec.Struct):
    status: _Status


_EXEC_CREDENTIAL = msgspec.json.Decoder(_ExecCredential)


def run_exec_plugin(plugin: ExecPlugin, cluster: Cluster, folder: Path, deadline: Deadline) -> User:
    """Run a plugin and return the user that it stands for, with a token, a client certificate, or both.

    :param cluster: what a plugin is told that wants to know the cluster
    :param folder: where a relative path of the command starts
    :raises KubernetesError: it could not be run, failed, printed no credential or did not end in time
    """
    if plugin.interactiveMode == "Always":
        raise _failed(plugin, "asks for a terminal (interactiveMode: Always), which is not there")
    process = _start(plugin, cluster, folder)
    try:
        output, complaint = _read(process, plugin, deadline)
        process.wait(deadline.remaining())
    except (Failure, subprocess.TimeoutExpired) as error:
        if isinstance(error, Failure) and error.error_code is not OPResultErrorCode.TIMEOUT:
            raise
        raise _failed(plugin, "did not end in time", OPResultErrorCode.TIMEOUT) from error
    finally:
        _end(process)
    if process.returncode:
        text = complaint.decode("utf-8", "replace").strip()[:_SHOWN_CHARACTERS]
        raise _failed(plugin, f"ended with status {process.returncode}: {text}")
    return user_in(plugin, output)


def user_in(plugin: ExecPlugin, output: bytes) -> User:
    """Return the user that a plugin's output stands for.

    :raises KubernetesError: it is no credential
    """
    try:
        status = _EXEC_CREDENTIAL.decode(output).status
        user = User(
            token=status.token,
            client_certificate_data=_encoded(status.client_certificate_data),
            client_key_data=_encoded(status.client_key_data),
        )
    except (msgspec.MsgspecError, ValueError, RecursionError):
        # Neither the text nor the error may be shown: both hold what was printed.
        raise _failed(plugin, "printed no ExecCredential with a status") from None
    if not user.token and not user.client_certificate_data:
        raise _failed(plugin, "printed neither a token nor a certificate")
    if user.token:
        know_secret(user.token)
    return user


def _start(plugin: ExecPlugin, cluster: Cluster, folder: Path) -> subprocess.Popen[bytes]:
    spec: dict[str, object] = {"interactive": False}
    if plugin.provideClusterInfo:
        spec["cluster"] = _cluster_info(cluster, folder)
    info = {"apiVersion": plugin.apiVersion, "kind": "ExecCredential", "spec": spec}
    environment = {**os.environ, "KUBERNETES_EXEC_INFO": json.dumps(info)}
    for variable in plugin.env or []:
        environment[variable.name] = variable.value
        if _SECRET_NAME.search(variable.name):
            know_secret(variable.value)
    command = str(folder / plugin.command) if os.sep in plugin.command else plugin.command
    try:
        return subprocess.Popen(
            [command, *(plugin.args or [])],
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            # A process group, so that what the plugin starts ends with it.
            start_new_session=True,
        )
    except OSError as error:
        raise _failed(plugin, f"cannot be run: {error.strerror}. {plugin.installHint or ''}") from error
    except ValueError as error:
        # A NUL in the command, in an argument or in a variable.
        raise _failed(plugin, f"cannot be run: {error}") from error


def _cluster_info(cluster: Cluster, folder: Path) -> dict[str, object]:
    data = cluster.certificate_authority_data
    if not data and cluster.certificate_authority:
        with suppress(OSError):
            data = base64.b64encode(read_small_file(folder / cluster.certificate_authority)).decode()
    fields = {
        "server": cluster.server,
        "tls-server-name": cluster.tls_server_name,
        "insecure-skip-tls-verify": cluster.insecure_skip_tls_verify or None,
        "certificate-authority-data": data,
        "proxy-url": cluster.proxy_url,
    }
    return {name: value for name, value in fields.items() if value is not None}


def _read(process: subprocess.Popen[bytes], plugin: ExecPlugin, deadline: Deadline) -> tuple[bytes, bytes]:
    """Return what a plugin prints and what it complains about, each in full."""
    assert process.stdout is not None
    assert process.stderr is not None
    output, complaint = bytearray(), bytearray()
    with selectors.DefaultSelector() as selector:
        selector.register(process.stdout, selectors.EVENT_READ, output)
        selector.register(process.stderr, selectors.EVENT_READ, complaint)
        while selector.get_map():
            for key, _ in selector.select(deadline.remaining()):
                chunk = os.read(key.fd, 65536)
                key.data.extend(chunk)
                if not chunk:
                    selector.unregister(key.fileobj)
                elif len(key.data) > _LONGEST_OUTPUT_BYTES:
                    raise _failed(plugin, f"printed more than {_LONGEST_OUTPUT_BYTES} bytes")
    return bytes(output), bytes(complaint)


def _end(process: subprocess.Popen[bytes]) -> None:
    """End a plugin with everything that it started."""
    with suppress(ProcessLookupError, PermissionError):
        os.killpg(process.pid, signal.SIGKILL)
    for pipe in (process.stdout, process.stderr):
        if pipe is not None:
            pipe.close()
    process.wait()


def _encoded(pem: str | None) -> str | None:
    return None if pem is None else base64.b64encode(pem.encode()).decode()


def _failed(
    plugin: ExecPlugin, how: str, code: OPResultErrorCode = OPResultErrorCode.UNAUTHENTICATED
) -> KubernetesError:
    return KubernetesError(f"The credential plugin {plugin.command!r} of the kubeconfig {how}", code)
