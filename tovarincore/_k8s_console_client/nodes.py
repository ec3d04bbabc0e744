"""Pods as nodes."""

import json

from lightkube.models.core_v1 import PodStatus
from lightkube.resources.core_v1 import Pod

from tovarincore._k8s_console_client.manifests import INSTANCE_TYPE_ANNOTATION, NAME_ANNOTATION, UUID_LABEL
from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, K8sRegion, NodeState

__all__ = ["node_of", "state_of"]

_STATE_OF_PHASE = {
    "Pending": NodeState.STARTING,
    "Running": NodeState.RUNNING,
    # Neither runs again: what is left is a record that somebody may still read.
    "Succeeded": NodeState.TERMINATED,
    "Failed": NodeState.TERMINATED,
}


def node_of(region: K8sRegion, pod: Pod) -> CloudNode:
    """Return the record of a pod that bears the labels of a node."""
    metadata = pod.metadata
    assert metadata is not None
    labels, annotations = metadata.labels or {}, metadata.annotations or {}
    return CloudNode(
        region=region,
        instance_id=metadata.name or "",
        instance_type_def=_instance_type(annotations.get(INSTANCE_TYPE_ANNOTATION)),
        uuid=labels.get(UUID_LABEL) or "-",
        name=annotations.get(NAME_ANNOTATION) or "-",
        dns_address=(pod.status.podIP if pod.status else None) or "",
        state=state_of(pod),
    )


def state_of(pod: Pod) -> NodeState:
    """Return the state that a pod's phase, its ``Ready`` condition and its deletion amount to.

    A pod that is being deleted is shutting down whatever else it says. A running one whose containers are not
    ready, because one is restarting or the start-up script has not ended, is starting.
    """
    if pod.metadata is not None and pod.metadata.deletionTimestamp is not None:
        return NodeState.SHUTTING_DOWN
    status = pod.status or PodStatus()
    state = _STATE_OF_PHASE.get(status.phase or "", NodeState.UNKNOWN)
    if state is not NodeState.RUNNING:
        return state
    conditions = {condition.type: condition.status for condition in status.conditions or []}
    ready = conditions.get("Ready")
    if ready == "Unknown":
        # The cluster lost sight of the machine.
        return NodeState.UNKNOWN
    return NodeState.RUNNING if ready == "True" else NodeState.STARTING


def _instance_type(text: str | None) -> CloudInstanceTypeDef:
    try:
        return CloudInstanceTypeDef(**json.loads(text or ""))
    except (ValueError, TypeError):
        # One pod that somebody made or changed by hand must not hide the others.
        return CloudInstanceTypeDef(instance_type="unknown", cpu_count=0, memory_mib=0)
