"""Whether the workers of nodes answer."""

from collections.abc import Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

from tovarincore.api_def import PingRequest
from tovarincore.cloud_def import CloudNode, NodeState
from tovarincore.command.output.text import one_line
from tovarincore.core_conf import ConfigError
from tovarincore.core_def import OPResultErrorCode
from tovarincore.webs_client import WebSocketClient

__all__ = ["PROBES_AT_ONCE", "PROBE_SECONDS", "Probe", "probe_nodes"]

PROBE_SECONDS = 2
PROBES_AT_ONCE = 256
"""Each takes a thread, which waits; more of them would wait for this machine instead of the workers."""

_WHY = {
    OPResultErrorCode.CONNECTION_FAILED: "port closed or unreachable",
    OPResultErrorCode.TIMEOUT: "no answer in time",
    OPResultErrorCode.UNAUTHENTICATED: "token refused",
    OPResultErrorCode.CERTIFICATE_INVALID: "certificate not accepted",
    OPResultErrorCode.PROTOCOL_ERROR: "not a worker",
}


@dataclass(frozen=True)
class Probe:
    """What came of asking a node's worker.

    :param ready: the worker answered
    :param why_not: a few words when it did not; empty when it did
    :param message: what the worker's client says about that, for people
    """

    ready: bool
    why_not: str = ""
    message: str = ""


def probe_nodes(nodes: Sequence[CloudNode]) -> dict[str, Probe]:
    """Ask the workers of all nodes at once; readiness and load are written into the records.

    :return: what came of it by instance id
    """
    if not nodes:
        return {}
    with ThreadPoolExecutor(min(len(nodes), PROBES_AT_ONCE)) as executor:
        return dict(zip((node.instance_id for node in nodes), executor.map(_probe, nodes), strict=True))


def _probe(node: CloudNode) -> Probe:
    if node.state is not NodeState.RUNNING:
        return Probe(False, "-", f"the node is {node.state.value.lower()}")
    try:
        with WebSocketClient(node, client_timeout_sec=PROBE_SECONDS) as client:
            result = client.api_get_op_result(PingRequest())
            if result.success:
                node.ready = True
                client.refresh_system_stat()
                return Probe(True)
    except ConfigError as error:
        return Probe(False, "the configuration cannot be used", one_line(error))
    why = _WHY[result.error_code] if result.error_code in _WHY else "no answer"
    # The name stands beside it wherever it is shown.
    message = (result.msg or "").removeprefix(f"Worker of node {node.name}: ")
    return Probe(False, why, one_line(message))
