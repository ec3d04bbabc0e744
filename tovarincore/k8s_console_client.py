"""Access to the Kubernetes clusters on which nodes run.

A node is a pod of its region's namespace with the labels ``app.kubernetes.io/managed-by: tovarincore`` and
``app.kubernetes.io/component: worker``. The cluster alone knows the nodes: nothing is kept between two calls.
``docs/kubernetes.md`` describes the objects, the catalogue and the rights that are needed.
"""

from types import ModuleType

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    InstanceTemplate,
    K8sRegion,
)
from tovarincore.core_def import OPResult

__all__ = ["K8sConsoleClient"]


class K8sConsoleClient:
    """The nodes of one Kubernetes region.

    Every method ends within ``[kubernetes] operation_seconds``, whatever the API server does, and reports
    what went wrong in its :class:`OPResult`, with the API server's own words where it gave any. Any number of
    threads may use one client.

    :param region: the cluster's namespace and how to reach it; looked at when a method is called
    """

    def __init__(self, region: K8sRegion) -> None:
        self._region = region

    def get_cloud_nodes(self) -> tuple[list[CloudNode] | None, OPResult]:
        """Return all nodes of the region, or ``None`` when not every one could be listed."""
        try:
            return _operations().list_nodes(self._region), OPResult(success=True)
        except KubernetesError as error:
            return None, error.as_result()

    def launch_node(
        self,
        *,
        instance_type_def: CloudInstanceTypeDef,
        instance_config: CloudInstanceConfig,
        additional_params: str | None = None,
        startup_script: str | None = None,
    ) -> tuple[CloudNode | None, OPResult]:
        """Create one pod with the size of the instance type and the image of the instance template.

        The launch settings and the start-up script go into a Secret that the pod owns; the worker finds them
        in the folder ``/etc/tovarin``. A launch that fails takes back what it created, for which a quarter of
        the time limit is kept; its message tells when even that failed.

        :param additional_params: JSON object whose keys may be ``node_selector``, ``tolerations``, ``env``,
            ``service_account``, ``image_pull_secrets`` and ``priority_class``
        :param startup_script: run in the worker's container when it starts, beside the image's entry point,
            by the interpreter of its ``#!`` line or else by ``/bin/sh``
        :return: the node in state ``STARTING``, or ``None`` and what went wrong
        """
        try:
            node = _operations().launch_node(
                self._region, instance_type_def, instance_config, additional_params, startup_script
            )
        except KubernetesError as error:
            return None, error.as_result()
        return node, OPResult(success=True)

    def terminate_node(self, *, instance_id: str, stop_reason: str | None = None) -> OPResult:
        """Have a node's pod deleted, with ``[kubernetes] termination_grace_seconds`` for its farewell.

        :param instance_id: name of the pod; success when it is gone already, an error when it is no node
        :param stop_reason: kept as the pod's annotation ``tovarincore/stop-reason`` while it is there
        """
        try:
            _operations().terminate_node(self._region, instance_id, stop_reason)
        except KubernetesError as error:
            return error.as_result()
        return OPResult(success=True)

    def list_instance_templates(self) -> tuple[list[InstanceTemplate], OPResult]:
        """Return the images that ConfigMap ``tovarin-catalogue`` names, or the default; empty on failure."""
        try:
            return _operations().list_instance_templates(self._region), OPResult(success=True)
        except KubernetesError as error:
            return [], error.as_result()

    def list_instance_types(self) -> tuple[list[CloudInstanceTypeDef], OPResult]:
        """Return the sizes that ConfigMap ``tovarin-catalogue`` names, or the default; empty on failure."""
        try:
            return _operations().list_instance_types(self._region), OPResult(success=True)
        except KubernetesError as error:
            return [], error.as_result()


def _operations() -> ModuleType:
    """Import what works on the cluster: most programs have no Kubernetes region and need not load it."""
    try:
        from tovarincore._k8s_console_client import operations
    except ModuleNotFoundError as error:
        if error.name is None or error.name.startswith("tovarincore"):
            raise
        raise KubernetesError(
            f"Kubernetes regions need the package {error.name}, which is not installed: "
            "pip install tovarincore[kubernetes]"
        ) from error
    return operations
