"""One operation's connection to a region's API server."""

from collections.abc import Iterator
from contextlib import contextmanager

from lightkube import Client
from lightkube.config.models import User

from tovarincore._k8s_console_client.credentials import authorization_of, read_config, verify_cluster
from tovarincore._k8s_console_client.deadline import Deadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.failures import translated
from tovarincore._k8s_console_client.names import check_namespace
from tovarincore._k8s_console_client.transport import DeadlineTransport
from tovarincore.cloud_def import K8sRegion
from tovarincore.core_def import OPResultErrorCode

__all__ = ["connected"]


@contextmanager
def connected(region: K8sRegion, deadline: Deadline) -> Iterator[Client]:
    """Give the body a client of the region's API server and namespace, closed at its end.

    Nothing is connected before the body's first request. Proxies named in the environment are not used.

    :param deadline: when the body's last request has to be done
    :raises KubernetesError: whatever goes wrong in the body
    """
    check_namespace(region.namespace, region.name)
    config = read_config(region, deadline)
    first = [authorization_of(config)]

    def read_authorization() -> str | None:
        return first.pop() if first else authorization_of(read_config(region, deadline))

    try:
        tls = verify_cluster(config.cluster, config.user or User(), config.abs_file, trust_env=False)
    except (OSError, ValueError) as error:
        raise KubernetesError(
            f"The certificates of region {region.name} cannot be read: {error}",
            OPResultErrorCode.CERTIFICATE_INVALID,
        ) from error
    # The transport authorizes: the client would not read renewed credentials anew.
    anonymous = config._replace(user=User())
    with (
        translated(deadline),
        Client(
            anonymous,
            namespace=region.namespace,
            trust_env=False,
            transport=DeadlineTransport(deadline, tls, read_authorization),
            field_manager="tovarincore",
        ) as client,
    ):
        yield client
