"""One worker's ping."""

from collections.abc import Callable

from tovarincore import cloud_node
from tovarincore.cloud_def import CloudNode
from tovarincore.core_def import OPResult

__all__ = ["FIRST_PROBES", "ping"]

_SECONDS = 2
FIRST_PROBES = 4
"""Pings at the same time as long as workers answer at once."""


def ping(node: CloudNode, go_on: Callable[[], None]) -> OPResult:
    """Ask a node's worker whether it is there; readiness and load are written into the record.

    :param node: the node
    :param go_on: called first; raises when the ping is not wanted any more
    :return: the answer, or why there is none
    """
    go_on()
    # By way of the module: whoever replaces the client there replaces it for all of the package.
    client = cloud_node.WebSocketClient(node, client_timeout_sec=_SECONDS)
    answer = client.api_get_op_result(cloud_node.PingRequest())
    if answer.success:
        node.ready = True
        client.refresh_system_stat()
    return answer
