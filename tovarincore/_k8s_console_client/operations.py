"""What is done on a region's nodes: each function is one operation, with its own connection and deadline."""

from collections.abc import Iterator
from contextlib import contextmanager
from uuid import uuid4

from lightkube import ApiError, Client
from lightkube.resources.core_v1 import ConfigMap, Pod, Secret
from lightkube.types import PatchType

from tovarincore._k8s_console_client.catalogue import CATALOGUE_NAME, instance_templates, instance_types
from tovarincore._k8s_console_client.connection import connected
from tovarincore._k8s_console_client.deadline import Deadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.failures import translated
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
from tovarincore._k8s_console_client.nodes import node_of
from tovarincore._k8s_console_client.parameters import parse_launch_parameters
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

_RESERVE = 0.25
"""Part of a launch's time that is kept for taking back what a failed launch created."""
# Such a pod has nothing to say farewell for. With 0 the cluster would forget it while it may still run.
_DISCARD_GRACE_SECONDS = 1


def list_nodes(region: K8sRegion) -> list[CloudNode]:
    """Return all nodes of the region.

    The pods are asked for page by page, and of each page only the nodes are kept.

    :raises KubernetesError: any page cannot be had, for example because the listing took so long that the API
        server gave up the state it showed (410)
    """
    with connected(region, _deadline("listing the nodes")) as client:
        pods = client.list(Pod, chunk_size=core_conf_glbl.kubernetes__page_size, labels=dict(NODE_LABELS))
        return [node_of(region, pod) for pod in pods]


def list_instance_templates(region: K8sRegion) -> list[InstanceTemplate]:
    """Return the images that the namespace's catalogue offers, or the default.

    :raises KubernetesError: the catalogue cannot be had or cannot be used
    """
    return instance_templates(region, _read_catalogue(region))


def list_instance_types(region: K8sRegion) -> list[CloudInstanceTypeDef]:
    """Return the sizes that the namespace's catalogue offers, or the default ones.

    :raises KubernetesError: the catalogue cannot be had or cannot be used
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
    """
    launch = Launch(
        launch_id=str(uuid4()),
        instance_type=instance_type,
        config=config,
        parameters=parse_launch_parameters(additional_params),
        startup_script=startup_script,
    )
    check(launch)
    seconds = core_conf_glbl.kubernetes__operation_seconds
    deadline = Deadline(seconds, f"launching {launch.pod_name}", reserve=seconds * _RESERVE)
    with connected(region, deadline) as client:
        pod = None
        try:
            with translated(deadline):
                pod = client.create(build_pod(launch))
                client.create(build_secret(launch, pod))
        except BaseException as error:
            refused = isinstance(error, KubernetesError) and not error.outcome_unknown
            if pod is not None or not refused:
                deadline.release_reserve()
                _discard(client, launch, deadline, error)
            raise
    return node_of(region, pod)


def terminate_node(region: K8sRegion, instance_id: str, stop_reason: str | None) -> None:
    """Have the cluster end a node's pod within the grace period, and remove its Secret.

    A node that is gone already is terminated; the cluster itself removes the Secret that its pod owned.

    :param stop_reason: kept as an annotation for as long as the pod is there
    :raises KubernetesError: the API server refuses, or there is such a pod but it is no node
    """
    if not is_object_name(instance_id):
        raise KubernetesError(f"{instance_id!r} cannot be the name of a pod", OPResultErrorCode.NOT_FOUND)
    with connected(region, _deadline(f"terminating {instance_id}")) as client:
        with _gone_is_fine():
            pod = client.get(Pod, instance_id)
            labels = (pod.metadata.labels if pod.metadata else None) or {}
            if not NODE_LABELS.items() <= labels.items():
                raise KubernetesError(
                    f"Pod {instance_id} in namespace {region.namespace} is no node of this product",
                    OPResultErrorCode.NOT_FOUND,
                )
            if stop_reason is not None:
                annotations = {"metadata": {"annotations": {STOP_REASON_ANNOTATION: stop_reason}}}
                client.patch(Pod, instance_id, annotations, patch_type=PatchType.MERGE)
            client.delete(Pod, instance_id, grace_period=core_conf_glbl.kubernetes__termination_grace_seconds)
            secret = secret_of(pod)
            if secret is not None:
                client.delete(Secret, secret)


def _read_catalogue(region: K8sRegion) -> ConfigMap | None:
    with connected(region, _deadline("reading the catalogue")) as client:
        try:
            return client.get(ConfigMap, CATALOGUE_NAME)
        except ApiError as error:
            if error.response.status_code == 404:
                return None
            raise


def _discard(client: Client, launch: Launch, deadline: Deadline, cause: BaseException) -> None:
    """Remove what a failed launch created, or may have created unseen."""
    try:
        with translated(deadline):
            with _gone_is_fine():
                pod = client.get(Pod, launch.pod_name)
                annotations = (pod.metadata.annotations if pod.metadata else None) or {}
                if annotations.get(LAUNCH_ANNOTATION) != launch.launch_id:
                    # Another launch of the same uuid was faster; its pod is none of ours.
                    return
                client.delete(Pod, launch.pod_name, grace_period=_DISCARD_GRACE_SECONDS)
            with _gone_is_fine():
                client.delete(Secret, launch.secret_name)
    except KubernetesError as error:
        raise KubernetesError(
            f"{cause} The pod {launch.pod_name} may have been left behind: removing it failed ({error}). "
            "List the nodes and terminate it if it is there.",
            cause.error_code if isinstance(cause, KubernetesError) else None,
        ) from cause


@contextmanager
def _gone_is_fine() -> Iterator[None]:
    """Let a body end early at the API server's answer that the object does not exist."""
    try:
        yield
    except ApiError as error:
        if error.response.status_code != 404:
            raise


def _deadline(doing: str) -> Deadline:
    return Deadline(core_conf_glbl.kubernetes__operation_seconds, doing)
