"""The records that callers get: the local region and the node that stands for the container."""

from __future__ import annotations

from tovarincore._container_helper.engine import LOOPBACK, ContainerSummary
from tovarincore._container_helper.errors import ContainerError, unreadable_answer
from tovarincore._transport.gate import RefusedName, check_uuid
from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion, CloudRegions, NodeState

UUID_LABEL = "tovarin.worker.uuid"
VERSION_LABEL = "tovarin.worker.version"

_STATE_OF_STATUS = {
    "created": NodeState.STOPPED,
    # Podman's, between its preparation and its start.
    "initialized": NodeState.STARTING,
    "running": NodeState.RUNNING,
    # Nothing in it runs and a start lets it go on, as with a stopped one.
    "paused": NodeState.STOPPED,
    "restarting": NodeState.STARTING,
    "stopping": NodeState.STOPPING,
    "stopped": NodeState.STOPPED,
    "removing": NodeState.SHUTTING_DOWN,
    "exited": NodeState.STOPPED,
    # The engine could not remove it completely; it cannot be started again.
    "dead": NodeState.TERMINATED,
}


def local_region() -> CloudRegion:
    """The region of this machine's container engine."""
    region = CloudRegions.get_local_container_region()
    if region is None:
        raise ContainerError("This installation has no local container region.")
    return region


def node_of(container: ContainerSummary) -> CloudNode:
    """The node that stands for the worker container."""
    try:
        node_uuid = check_uuid(container.labels[UUID_LABEL])
    except RefusedName as refused:
        raise unreadable_answer(f"label {UUID_LABEL} of container {container.name}: {refused}") from None
    return CloudNode(
        region=local_region(),
        instance_id=container.container_id,
        instance_type_def=CloudInstances.get_default_local_instance_type(),
        uuid=node_uuid,
        name=container.name,
        dns_address=LOOPBACK,
        state=_STATE_OF_STATUS.get(container.status, NodeState.UNKNOWN),
    )
