"""What is done on a region's nodes: each function is one operation, with its own connection and deadline."""

from collections.abc import Callable
from typing import TypeVar
from uuid import uuid4

from lightkube.resources.core_v1 import ConfigMap, Pod, Secret

from tovarincore._k8s_console_client.api import NamespaceApi
from tovarincore._k8s_console_client.catalogue import CATALOGUE_NAME, instance_templates, instance_types
from tovarincore._k8s_console_client.connection import connected
from tovarincore._k8s_console_client.deadline import ApiDeadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.manifests import (
    LAUNCH_ANNOTATION,
    NODE_LABELS,
    STOP_REASON_ANNOTATION,
    Launch,
    build_pod,
    build_secret,
    check,
    secret_of,
)
from tovarincore._k8s_console_client.names import is_object_name
from tovarincore._k8s_console_client.nodes import UnusablePod, node_of, read_node
from tovarincore._k8s_console_client.owners import OWNER, owner_label, owner_of
from tovarincore._k8s_console_client.parameters import parse_launch_parameters
from tovarincore._transport.failure import Failure
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    InstanceTemplate,
    K8sRegion,
)
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import OPResultErrorCode

__all__ = ["launch_node", "list_instance_templates", "list_instance_types", "list_nodes", "terminate_node"]

T = TypeVar("T")

_RESERVE = 0.25
"""Part of a launch's time that is kept for taking back what a failed launch created."""
# Such a pod has nothing to say farewell for. With 0 the cluster would forget it while it may still run.
_DISCARD_GRACE_SECONDS = 1
# Far below the 256 KiB that all annotations of a pod may have together.
_LONGEST_REASON_CHARACTERS = 1024
# More than any cluster holds: a server that never stops listing must not fill the memory.
_MOST_PODS = 200_000
_NAMED_PODS = 10


def list_nodes(region: K8sRegion, own_only: bool) -> tuple[list[CloudNode], list[str]]:
    """Return all nodes of the region, and what has to be said about the listing.

    The pods are asked for page by page, and of each page only the nodes are kept. A listing that takes so
    long that the API server gives up the state it shows (410) is begun again, once.

    :param own_only: only those that this user launched
    :raises KubernetesError: a page is missing
    :raises ConfigError: the user's name is wanted and its store cannot be used
    """
    labels = dict(NODE_LABELS)
    if own_only:
        owner = owner_of(region)
        if owner is None:
            raise KubernetesError(
                "Nobody knows your user name; store one: tovarin-nodes configure REGION --user-name NAME"
            )
        labels[OWNER] = owner_label(owner)
    with connected(region, _deadline("listing the nodes")) as api:
        try:
            return _list_once(region, api, labels)
        except KubernetesError as error:
            if error.error_code is not OPResultErrorCode.EXPIRED:
                raise
        return _list_once(region, api, labels)


def list_instance_templates(region: K8sRegion) -> list[InstanceTemplate]:
    """Return the images that the namespace's catalogue offers, or the default.

    :raises KubernetesError: the catalogue cannot be read or cannot be used
    """
    return instance_templates(region, _read_catalogue(region))


def list_instance_types(region: K8sRegion) -> list[CloudInstanceTypeDef]:
    """Return the sizes that the namespace's catalogue offers, or the default ones.

    :raises KubernetesError: the catalogue cannot be read or cannot be used
    """
    return instance_types(_read_catalogue(region))


def launch_node(
    region: K8sRegion,
    instance_type: CloudInstanceTypeDef,
    config: CloudInstanceConfig,
    additional_params: str | None,
    startup_script: str | None,
) -> CloudNode:
    """Create a node's pod and its Secret, both or neither.

    :raises KubernetesError: the API server refused; the text says so should anything be left behind
    :raises ConfigError: the store, which holds the user's name, cannot be used
    """
    launch = Launch(
        launch_id=str(uuid4()),
        instance_type=instance_type,
        config=config,
        parameters=parse_launch_parameters(additional_params),
        startup_script=startup_script,
        owner=owner_of(region),
    )
    check(launch)
    seconds = core_conf_glbl.kubernetes__operation_seconds
    deadline = ApiDeadline(seconds, f"launching {launch.pod_name}", reserve=seconds * _RESERVE)
    with connected(region, deadline) as api:
        pod = None
        try:
            pod = api.create(build_pod(launch))
            api.create(build_secret(launch, _uid_of(pod)))
        except BaseException as error:
            refused = isinstance(error, KubernetesError) and not error.outcome_unknown
            if pod is not None or not refused:
                deadline.release_reserve()
                _discard(api, launch, pod, error)
            raise
    return node_of(region, pod)


def terminate_node(region: K8sRegion, instance_id: str, stop_reason: str | None) -> list[str]:
    """Have the cluster end a node's pod within the grace period, and remove its Secret.

    A node that is gone already is terminated; the cluster itself removes the Secret that its pod owned.

    :param stop_reason: kept as an annotation for as long as the pod is there
    :return: what went wrong after the pod's end was under way
    :raises KubernetesError: the API server refuses, or there is such a pod but it is no node
    """
    if not is_object_name(instance_id):
        raise KubernetesError(f"{instance_id!r} cannot be the name of a pod", OPResultErrorCode.NOT_FOUND)
    with connected(region, _deadline(f"terminating {instance_id}")) as api:
        pod = _unless_gone(lambda: api.get(Pod, instance_id))
        if pod is None:
            return []
        labels = (pod.metadata.labels if pod.metadata else None) or {}
        if not NODE_LABELS.items() <= labels.items():
            raise KubernetesError(
                f"Pod {instance_id} in namespace {region.namespace} is no node of this product",
                OPResultErrorCode.NOT_FOUND,
            )
        uid = _uid_of(pod)
        grace = core_conf_glbl.kubernetes__termination_grace_seconds
        _unless_gone(lambda: api.delete(Pod, instance_id, uid=uid, grace_seconds=grace))
        return [*_keep_reason(api, instance_id, uid, stop_reason), *_remove_secret(api, pod)]


def _list_once(
    region: K8sRegion, api: NamespaceApi, labels: dict[str, str]
) -> tuple[list[CloudNode], list[str]]:
    nodes: list[CloudNode] = []
    skipped: list[str] = []
    for page in api.pages(Pod, labels, core_conf_glbl.kubernetes__page_size):
        for text in page:
            try:
                nodes.append(read_node(region, text))
            except UnusablePod as error:
                skipped.append(str(error))
        if len(nodes) + len(skipped) > _MOST_PODS:
            raise KubernetesError(
                f"The Kubernetes API server lists more than {_MOST_PODS} pods",
                OPResultErrorCode.PROTOCOL_ERROR,
            )
    if not skipped:
        return nodes, []
    more = f" and {len(skipped) - _NAMED_PODS} more" if len(skipped) > _NAMED_PODS else ""
    named = ", ".join(skipped[:_NAMED_PODS])
    return nodes, [f"Region {region.name}: skipped pods that cannot be read: {named}{more}"]


def _read_catalogue(region: K8sRegion) -> ConfigMap | None:
    with connected(region, _deadline("reading the catalogue")) as api:
        try:
            return api.get(ConfigMap, CATALOGUE_NAME)
        except KubernetesError as error:
            if error.status == 404:
                return None
            raise


def _keep_reason(api: NamespaceApi, name: str, uid: str, reason: str | None) -> list[str]:
    """Note why a pod ends. It comes after the deletion, which nothing in a reason can then prevent."""
    if reason is None:
        return []
    # A lone surrogate, as in an undecodable file name, is no text that JSON can hold.
    text = reason.encode("utf-8", "replace").decode()[:_LONGEST_REASON_CHARACTERS]
    patch: dict[str, object] = {"metadata": {"uid": uid, "annotations": {STOP_REASON_ANNOTATION: text}}}
    try:
        _unless_gone(lambda: api.merge(Pod, name, patch))
    except Failure as error:
        return [f"The node is being ended, but its stop reason is not kept: {error}"]
    return []


def _remove_secret(api: NamespaceApi, pod: Pod) -> list[str]:
    secret = secret_of(pod)
    if secret is None:
        return []
    try:
        _unless_gone(lambda: api.delete(Secret, secret))
    except Failure as error:
        return [f"The node is being ended; the cluster removes its Secret {secret} with it: {error}"]
    return []


def _discard(api: NamespaceApi, launch: Launch, pod: Pod | None, cause: BaseException) -> None:
    """Remove what a failed launch created, or may have created unseen."""
    try:
        name = launch.pod_name
        if pod is None:
            pod = _unless_gone(lambda: api.get(Pod, name))
            annotations = (pod.metadata.annotations if pod and pod.metadata else None) or {}
            if pod is None or annotations.get(LAUNCH_ANNOTATION) != launch.launch_id:
                # Nothing was made, or another launch of the same uuid was faster.
                return
        uid = _uid_of(pod)
        _unless_gone(lambda: api.delete(Pod, name, uid=uid, grace_seconds=_DISCARD_GRACE_SECONDS))
        _unless_gone(lambda: api.delete(Secret, launch.secret_name))
    except Failure as error:
        raise KubernetesError(
            f"{cause} The pod {launch.pod_name} may have been left behind: removing it failed ({error}). "
            "List the nodes and terminate it if it is there.",
            cause.error_code if isinstance(cause, Failure) else None,
        ) from cause


def _uid_of(pod: Pod) -> str:
    uid = pod.metadata.uid if pod.metadata else None
    if not uid:
        raise KubernetesError(
            "The Kubernetes API server's answer shows a pod without a uid",
            OPResultErrorCode.PROTOCOL_ERROR,
            outcome_unknown=True,
        )
    return uid


def _unless_gone(request: Callable[[], T]) -> T | None:
    """Return a request's result, ``None`` when the object is not there, or another one has its name."""
    try:
        return request()
    except KubernetesError as error:
        if error.status not in (404, 409):
            raise
    return None


def _deadline(doing: str) -> ApiDeadline:
    return ApiDeadline(core_conf_glbl.kubernetes__operation_seconds, doing)
