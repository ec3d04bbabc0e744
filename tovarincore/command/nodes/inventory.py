"""The nodes of a region as its provider lists them, and which of them a text means."""

from collections.abc import Sequence

from tovarincore.cloud_def import CloudNode, CloudRegion, NodeState
from tovarincore.cloud_node import K8sNodeManager, cloud_manager_glbl
from tovarincore.command.context.access import Access
from tovarincore.command.context.seen import NODES, remember
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.explain import failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.text import one_line
from tovarincore.core_conf import log_manager_glbl

__all__ = ["GONE", "find_node", "list_nodes", "list_own_nodes", "matching_nodes", "own_nodes"]

GONE = (NodeState.SHUTTING_DOWN, NodeState.TERMINATED)
"""States of nodes that come to nothing any more."""

# What a listing gives for an instance without the tag.
_MISSING = "-"


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
            f"{command_for(access.region, 'types', '--update')} refreshes the list from EC2;"
            f" {command_for(access.region, 'doctor')} names the type",
            ExitCode.NOT_CONFIGURED,
        ) from error
    if nodes is None:
        raise failure_of(result, access.region)
    nodes = own_nodes(access, nodes)
    remember(NODES, access.region.key, (name for node in nodes for name in (node.name, node.instance_id)))
    return nodes


def own_nodes(access: Access, nodes: Sequence[CloudNode]) -> list[CloudNode]:
    """Leave out Amazon instances that bear another user's name: the listing relies on EC2's filter alone.

    :param nodes: the nodes as EC2 has just listed them
    """
    if access.region.cloud != "AWS":
        return list(nodes)
    own = [
        node for node in nodes if access.owners.get(node.instance_id, access.user_name) == access.user_name
    ]
    if len(own) < len(nodes):
        log_manager_glbl.get_logger().warning(
            "%d instances of other users were listed by EC2 and are left out", len(nodes) - len(own)
        )
    return own


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


def find_node(nodes: Sequence[CloudNode], text: str, region: CloudRegion) -> CloudNode:
    """Return the one node that a text means, see :func:`matching_nodes`.

    :param region: where the nodes are
    :raises CommandFailure: there is none, or there are several; then the text names them
    """
    if text == _MISSING:
        raise CommandFailure(
            f'"{_MISSING}" stands for a missing name or uuid and means no node',
            f"give the node's instance id: {command_for(region, 'list', '--all')}",
            ExitCode.NOT_FOUND,
        )
    found = matching_nodes(nodes, text)
    if not found:
        raise CommandFailure(
            f'there is no node "{one_line(text)}" in this region',
            f"list your nodes: {command_for(region, 'list', '--all')}",
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
