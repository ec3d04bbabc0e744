"""Where a region's cluster is and who asks: a kubeconfig file, or the pod that this process runs in."""

import base64
import os
from pathlib import Path

from lightkube.config.client_adapter import verify_cluster
from lightkube.config.kubeconfig import SERVICE_ACCOUNT, KubeConfig, SingleConfig
from lightkube.config.models import User
from lightkube.core.exceptions import ConfigError

from tovarincore._k8s_console_client.deadline import Deadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.exec_plugin import run_exec_plugin
from tovarincore.cloud_def import K8sRegion
from tovarincore.core_def import OPResultErrorCode

__all__ = ["authorization_of", "read_config", "verify_cluster"]

SERVICE_ACCOUNT_FOLDER = SERVICE_ACCOUNT
"""Where Kubernetes mounts the credentials of a pod's service account."""


def read_config(region: K8sRegion, deadline: Deadline) -> SingleConfig:
    """Read a region's cluster and user.

    They are read anew for every operation: tokens and certificates are short-lived, and whoever renews them
    writes the file.

    :param deadline: when a credential plugin named in the kubeconfig has to be done
    :raises KubernetesError: they cannot be read
    """
    try:
        config = _in_cluster() if region.in_cluster else _from_kubeconfig(region)
    except (ConfigError, OSError) as error:
        raise _unusable(region, str(error)) from error
    except Exception as error:
        # Readers stumble over a file of another kind in many ways; the text could quote the file's secrets.
        raise _unusable(region, f"it is no kubeconfig ({type(error).__name__})") from None
    user = config.user or User()
    if user.auth_provider is not None:
        raise _unusable(
            region, "its user has an auth-provider, which nothing supports any more; use an exec plugin"
        )
    if user.exec is not None:
        folder = config.fname.parent if config.fname else Path.cwd()
        user = run_exec_plugin(user.exec, folder, deadline)
    return config._replace(user=user)


def authorization_of(config: SingleConfig) -> str | None:
    """Return the ``Authorization`` header of the configuration's user, ``None`` when it has none.

    :raises KubernetesError: the user's token file cannot be read
    """
    user = config.user or User()
    if user.token_file:
        try:
            return f"Bearer {Path(config.abs_file(user.token_file)).read_text(encoding='utf-8').strip()}"
        except (OSError, UnicodeDecodeError) as error:
            raise KubernetesError(
                f"The token file {user.token_file} cannot be read: {error}", OPResultErrorCode.UNAUTHENTICATED
            ) from error
    if user.token:
        return f"Bearer {user.token}"
    if user.username and user.password:
        return "Basic " + base64.b64encode(f"{user.username}:{user.password}".encode()).decode()
    return None


def _in_cluster() -> SingleConfig:
    for name in ("KUBERNETES_SERVICE_HOST", "KUBERNETES_SERVICE_PORT"):
        if not os.environ.get(name):
            raise ConfigError(f"this process does not run in a pod: the variable {name} is not set")
    return _chosen(KubeConfig.from_service_account(SERVICE_ACCOUNT_FOLDER), "")


def _from_kubeconfig(region: K8sRegion) -> SingleConfig:
    # The variable may name several files to be merged; the first that exists is read.
    named = [name for name in os.environ.get("KUBECONFIG", "").split(os.pathsep) if name]
    paths = [region.kubeconfig] if region.kubeconfig else named or ["~/.kube/config"]
    files = [Path(path).expanduser() for path in paths]
    file = next((file for file in files if file.is_file()), files[0])
    return _chosen(KubeConfig.from_file(file), region.context)


def _chosen(config: KubeConfig, context: str) -> SingleConfig:
    chosen = config.get(context or None)
    if chosen is None:
        raise ConfigError("it has no current context")
    return chosen


def _unusable(region: K8sRegion, why: str) -> KubernetesError:
    source = "in-cluster credentials" if region.in_cluster else "kubeconfig"
    return KubernetesError(
        f"The {source} of region {region.name} cannot be used: {why}", OPResultErrorCode.UNAUTHENTICATED
    )
