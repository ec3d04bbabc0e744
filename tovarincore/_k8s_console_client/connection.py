"""One operation's access to a region's namespace."""

from collections.abc import Iterator
from contextlib import contextmanager

from tovarincore._k8s_console_client.api import NamespaceApi
from tovarincore._k8s_console_client.credentials import read_access
from tovarincore._k8s_console_client.deadline import ApiDeadline
from tovarincore._k8s_console_client.names import check_namespace
from tovarincore._k8s_console_client.transport import Connection
from tovarincore.cloud_def import K8sRegion
from tovarincore.core_conf import log_manager_glbl

__all__ = ["connected"]


@contextmanager
def connected(region: K8sRegion, deadline: ApiDeadline) -> Iterator[NamespaceApi]:
    """Give the body the objects of the region's namespace; the connection is closed at its end.

    Nothing is connected before the body's first request. Proxies named in the environment are not used.

    :param deadline: when the body's last request has to be done
    :raises KubernetesError: the region cannot be reached as it is described
    """
    check_namespace(region.namespace, region.name)
    # Asking for the logger keeps the libraries underneath from logging headers at DEBUG.
    log_manager_glbl.get_logger()
    access = read_access(region, deadline)
    with Connection(access, deadline, lambda: read_access(region, deadline)) as connection:
        yield NamespaceApi(connection, region.namespace)
