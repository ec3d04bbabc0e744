"""Access to the Kubernetes clusters on which nodes run.

A node is a pod of its region's namespace with the labels ``app.kubernetes.io/managed-by: tovarincore`` and
``app.kubernetes.io/component: worker``. The cluster alone knows the nodes: nothing is kept between two calls.
``docs/kubernetes.md`` describes the objects, the catalogue and the rights that are needed.
"""

from tovarincore._k8s_console_client.errors import result_of
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    InstanceTemplate,
    K8sRegion,
)
from tovarincore.core_conf import log_manager_glbl
from tovarincore.core_def import OPResult

__all__ = ["K8sConsoleClient"]


class K8sConsoleClient:
    """The nodes of one Kubernetes region.

    Every method ends within ``[kubernetes] operation_seconds``, whatever the API server does. What goes wrong
    is told in its :class:`OPResult`, with the API server's own words where it gave any, and never raised.
    ``docs/kubernetes.md`` lists the error codes. Any number of threads may use one client.

    What works on the cluster is imported by the first call: most programs have no Kubernetes region.

    :param region: the cluster's namespace and how to reach it; looked at when a method is called
    """

    def __init__(self, region: K8sRegion) -> None:
        self._region = region

    def get_cloud_nodes(self, *, own_only: bool = False) -> tuple[list[CloudNode] | None, OPResult]:
        """Return all nodes of the region, or ``None`` when not every page could be listed.

        A pod that cannot be read is left out; the result's message then names it.

        :param own_only: only the nodes that this user launched, by the owner's label
        """
        try:
            from tovarincore._k8s_console_client import operations

            nodes, notes = operations.list_nodes(self._region, own_only)
        except Exception as error:
            return None, result_of(error)
        return nodes, _success(notes)

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
            ``service_account``, ``image_pull_secrets``, ``priority_class`` and ``run_as_user``
        :param startup_script: run in the worker's container when it starts, beside the image's entry point,
            by the interpreter of its ``#!`` line or else by ``/bin/sh``
        :return: the node in state ``STARTING``, or ``None`` and what went wrong
        """
        try:
            from tovarincore._k8s_console_client import operations

            node = operations.launch_node(
                self._region, instance_type_def, instance_config, additional_params, startup_script
            )
        except Exception as error:
            return None, result_of(error)
        return node, OPResult(success=True)

    def terminate_node(self, *, instance_id: str, stop_reason: str | None = None) -> OPResult:
        """Have a node's pod deleted; its worker gets ``[kubernetes] termination_grace_seconds`` to shut down.

        :param instance_id: name of the pod; success when it is gone already, an error when it is no node
        :param stop_reason: kept as the pod's annotation ``tovarincore/stop-reason`` while it is there, cut
            after 1,024 characters; a success whose message says so when it could not be kept
        """
        try:
            from tovarincore._k8s_console_client import operations

            notes = operations.terminate_node(self._region, instance_id, stop_reason)
        except Exception as error:
            return result_of(error)
        return _success(notes)

    def list_instance_templates(self) -> tuple[list[InstanceTemplate], OPResult]:
        """Return the images that ConfigMap ``tovarin-catalogue`` names, or the default; empty on failure."""
        try:
            from tovarincore._k8s_console_client import operations

            return operations.list_instance_templates(self._region), OPResult(success=True)
        except Exception as error:
            return [], result_of(error)

    def list_instance_types(self) -> tuple[list[CloudInstanceTypeDef], OPResult]:
        """Return the sizes that ConfigMap ``tovarin-catalogue`` names, or the default; empty on failure."""
        try:
            from tovarincore._k8s_console_client import operations

            return operations.list_instance_types(self._region), OPResult(success=True)
        except Exception as error:
            return [], result_of(error)


def _success(notes: list[str]) -> OPResult:
    """Return a success; what has to be said about it is logged as well, as few callers look at a success."""
    for note in notes:
        log_manager_glbl.get_logger().warning(note)
    return OPResult(success=True, msg=" ".join(notes) or None)
