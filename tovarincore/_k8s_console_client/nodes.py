"""Pods as nodes."""

import msgspec
from lightkube.models.core_v1 import PodStatus
from lightkube.resources.core_v1 import Pod

from tovarincore._k8s_console_client.manifests import INSTANCE_TYPE_ANNOTATION, NAME_ANNOTATION, UUID_LABEL
from tovarincore._k8s_console_client.names import is_object_name
from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, K8sRegion, NodeState

__all__ = ["UnusablePod", "node_of", "read_node", "state_of"]

_STATE_OF_PHASE = {
    "Pending": NodeState.STARTING,
    "Running": NodeState.RUNNING,
    # Neither runs again: what is left is a record that somebody may still read.
    "Succeeded": NodeState.TERMINATED,
    "Failed": NodeState.TERMINATED,
}
_UNREADABLE = (msgspec.MsgspecError, UnicodeDecodeError, RecursionError)


# Made under the lock of the import: the library is not safe for threads that decode a type first.
_POD = msgspec.json.Decoder(Pod)
_INSTANCE_TYPE = msgspec.json.Decoder(CloudInstanceTypeDef)


class UnusablePod(ValueError):
    """A pod of a listing cannot be shown as a node; the text says which and why."""


class _Metadata(msgspec.Struct, frozen=True):
    name: str = ""


class _Named(msgspec.Struct, frozen=True):
    metadata: _Metadata = _Metadata()


_NAMED = msgspec.json.Decoder(_Named)


def read_node(region: K8sRegion, text: msgspec.Raw) -> CloudNode:
    """Return the record of a pod given as the JSON text of a listing.

    :raises UnusablePod: it is not a pod
    """
    try:
        pod = _POD.decode(text)
    except _UNREADABLE as error:
        raise UnusablePod(f"{_name_in(text)} ({type(error).__name__})") from None
    if pod.metadata is None or not is_object_name(pod.metadata.name):
        raise UnusablePod("one without a usable name")
    return node_of(region, pod)


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
        return _INSTANCE_TYPE.decode(text or "")
    except _UNREADABLE:
        # One pod that somebody made or changed by hand must not hide the others.
        return CloudInstanceTypeDef(instance_type="unknown", cpu_count=0, memory_mib=0)


def _name_in(text: msgspec.Raw) -> str:
    try:
        name = _NAMED.decode(text).metadata.name
    except _UNREADABLE:
        name = ""
    return name if is_object_name(name) else "one without a usable name"
