"""Credential plugins: programs named in a kubeconfig that print a short-lived credential.

https://kubernetes.io/docs/reference/access-authn-authz/authentication/#client-go-credential-plugins describes
what they are given and what they print. The Kubernetes library runs them without a time limit and does not
know the interface's final version ``v1``, which today's cloud tools ask for.
"""

import base64
import json
import os
import subprocess
from pathlib import Path

from lightkube.config.models import User, UserExec

from tovarincore._k8s_console_client.deadline import Deadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore.core_def import OPResultErrorCode

__all__ = ["run_exec_plugin"]


def run_exec_plugin(plugin: UserExec, folder: Path, deadline: Deadline) -> User:
    """Run a plugin and return the user that it stands for, with a token, a client certificate, or both.

    :param folder: where a relative path of the command starts
    :raises KubernetesError: it could not be run, failed, printed no credential or did not end in time
    """
    info = {"apiVersion": plugin.apiVersion, "kind": "ExecCredential", "spec": {"interactive": False}}
    environment = {**os.environ, "KUBERNETES_EXEC_INFO": json.dumps(info)}
    environment.update((variable.name, variable.value) for variable in plugin.env or [])
    command = str(folder / plugin.command) if os.sep in plugin.command else plugin.command
    try:
        done = subprocess.run(
            [command, *(plugin.args or [])],
            env=environment,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=deadline.remaining(),
            check=False,
        )
    except subprocess.TimeoutExpired as error:
        raise _failed(plugin, "did not end in time", OPResultErrorCode.TIMEOUT) from error
    except OSError as error:
        raise _failed(plugin, f"cannot be run: {error.strerror}. {plugin.installHint or ''}") from error
    if done.returncode:
        complaint = done.stderr.decode("utf-8", "replace").strip()[:500]
        raise _failed(plugin, f"ended with status {done.returncode}: {complaint}")
    try:
        status = json.loads(done.stdout)["status"]
        user = User(
            token=status.get("token"),
            client_cert_data=_encoded(status.get("clientCertificateData")),
            client_key_data=_encoded(status.get("clientKeyData")),
        )
    except (ValueError, KeyError, TypeError, AttributeError):
        # Neither the text nor the error may be shown: both hold what was printed.
        raise _failed(plugin, "printed no ExecCredential with a status") from None
    if not user.token and not user.client_cert_data:
        raise _failed(plugin, "printed neither a token nor a certificate")
    return user


def _encoded(pem: str | None) -> str | None:
    return None if pem is None else base64.b64encode(pem.encode()).decode()


def _failed(
    plugin: UserExec, how: str, code: OPResultErrorCode = OPResultErrorCode.UNAUTHENTICATED
) -> KubernetesError:
    return KubernetesError(f"The credential plugin {plugin.command} of the kubeconfig {how}", code)
