"""The nodes of a region as its provider lists them, and whether their workers answer."""

from collections.abc import Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

from tovarincore.api_def import PingRequest
from tovarincore.cloud_def import CloudNode, NodeState
from tovarincore.cloud_node import K8sNodeManager, cloud_manager_glbl
from tovarincore.command.context.access import Access
from tovarincore.command.errors.explain import failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.text import one_line
from tovarincore.core_conf import ConfigError
from tovarincore.core_def import OPResultErrorCode
from tovarincore.webs_client import WebSocketClient

__all__ = ["GONE", "Probe", "find_node", "list_nodes", "list_own_nodes", "matching_nodes", "probe_nodes"]

GONE = (NodeState.SHUTTING_DOWN, NodeState.TERMINATED)
"""States of nodes that come to nothing any more."""

# What a listing gives for an instance without the tag.
_MISSING = "-"
_PROBE_SECONDS = 2
_PROBES_AT_ONCE = 16
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


def list_nodes(access: Access) -> list[CloudNode]:
    """Return the user's nodes, terminated ones included.

    :raises CommandFailure: the provider reports a failure, or has an instance of a type that is not known
    """
    try:
        nodes, result = cloud_manager_glbl.list_instances(access.region, access.auth, access.user_name)
    except AssertionError as error:
        # The provider stops the whole listing there rather than leave the instance out.
        raise CommandFailure(
            "one of your instances has a type that is not in the list of instance types,"
            " which stops the whole listing",
            "tovarin-nodes doctor REGION names the type and the lines to add",
            ExitCode.NOT_CONFIGURED,
        ) from error
    if nodes is None:
        raise failure_of(result, access.region)
    return nodes


def list_own_nodes(access: Access) -> list[CloudNode]:
    """Return the nodes that the user launched, where a listing shows those of other people too.

    Several people share the namespace of a cluster. Amazon's listings show the user's own alone, and the
    container engine has one node.

    :raises CommandFailure: as :func:`list_nodes`
    """
    provider = cloud_manager_glbl.get_node_manager(access.region) if access.region.cloud == "k8s" else None
    if not isinstance(provider, K8sNodeManager):
        return list_nodes(access)
    nodes, result = provider.console_client.get_cloud_nodes(own_only=True)
    if nodes is None:
        raise failure_of(result, access.region)
    return nodes


def find_node(nodes: Sequence[CloudNode], text: str) -> CloudNode:
    """Return the one node that a text means, see :func:`matching_nodes`.

    :raises CommandFailure: there is none, or there are several; then the text names them
    """
    if text == _MISSING:
        raise CommandFailure(
            f'"{_MISSING}" stands for a missing name or uuid and means no node',
            "give the node's instance id: tovarin-nodes list REGION --all",
            ExitCode.NOT_FOUND,
        )
    found = matching_nodes(nodes, text)
    if not found:
        raise CommandFailure(
            f'there is no node "{one_line(text)}" in this region',
            "see what is there: tovarin-nodes list REGION --all",
            ExitCode.NOT_FOUND,
        )
    if len(found) > 1:
        candidates = ", ".join(f"{node.instance_id} ({node.state.value.lower()})" for node in found)
        raise CommandFailure(
            f'"{one_line(text)}" means {len(found)} nodes: {candidates}',
            "give one of these ids",
            ExitCode.NOT_FOUND,
        )
    return found[0]


def matching_nodes(nodes: Sequence[CloudNode], text: str) -> list[CloudNode]:
    """Return the nodes that a text may mean.

    An instance id means its node, whatever others are called. A uuid or name means nodes that are not gone
    first. The dash of a missing uuid or name means none.
    """
    exact = [node for node in nodes if text == node.instance_id]
    if exact or text == _MISSING:
        return exact
    meant = [node for node in nodes if text in (node.uuid, node.name)]
    return [node for node in meant if node.state not in GONE] or meant


def probe_nodes(nodes: Sequence[CloudNode]) -> dict[str, Probe]:
    """Ask the workers of all nodes at once; readiness and load are written into the records.

    :return: what came of it by instance id
    """
    if not nodes:
        return {}
    with ThreadPoolExecutor(min(len(nodes), _PROBES_AT_ONCE)) as executor:
        return dict(zip((node.instance_id for node in nodes), executor.map(_probe, nodes), strict=True))


def _probe(node: CloudNode) -> Probe:
    if node.state is not NodeState.RUNNING:
        return Probe(False, "-", f"the node is {node.state.value.lower()}")
    try:
        with WebSocketClient(node, client_timeout_sec=_PROBE_SECONDS) as client:
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
