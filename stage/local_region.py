"""The local region as callers of the facade see it, on an engine of the tests' own."""

from __future__ import annotations

import time
from typing import Any

import docker

from stage.engine import ContainerEngineServer
from stage.patience import SETUP_SECONDS
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstances,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    CloudRegions,
    InstanceTemplate,
)
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.core_def import OPResult

# Of a single call to the engine: a busy machine may take tens of seconds to start a worker.
LIMIT_SECONDS = 60.0


class LocalRegion:
    """The local region as a caller of the facade sees it, and `client` to do things behind its back."""

    def __init__(self, server: ContainerEngineServer, client: docker.APIClient, port: int) -> None:
        self.server = server
        self.client = client
        self.port = port
        self.region = local_region()

    def templates(self) -> list[InstanceTemplate]:
        """The region's templates, in the provider's order."""
        templates, result = cloud_manager_glbl.list_current_instance_templates(self.region)
        assert result.success
        return templates

    def launch(self, version: str) -> tuple[CloudNode | None, OPResult]:
        """Launch the listed template of a version."""
        template = next(template for template in self.templates() if template.version == version)
        return self.launch_template(template)

    def launch_template(self, template: InstanceTemplate) -> tuple[CloudNode | None, OPResult]:
        """Launch a template, listed or not."""
        return cloud_manager_glbl.launch_node(self.region, None, *self.launch_arguments(template))

    def launch_arguments(
        self, template: InstanceTemplate
    ) -> tuple[CloudInstanceTypeDef, CloudInstanceConfig]:
        """Instance type and launch settings for a template."""
        config = CloudInstanceConfig(disk_size=1, launch_instance_settings={}, instance_template=template)
        return CloudInstances.get_default_local_instance_type(), config

    def running_node(self, version: str = "1.10.0") -> CloudNode:
        """Launch and wait until the worker answers."""
        node, result = self.launch(version)
        assert result.success, result.msg
        assert node is not None
        return self.wait_until_ready()

    def start(self, node: CloudNode, reboot: bool = False) -> None:
        """Start or reboot the node."""
        cloud_manager_glbl.start_node(self.region, None, node.instance_id, reboot=reboot)

    def stop(self, node: CloudNode) -> None:
        """Stop the node."""
        cloud_manager_glbl.stop_node(self.region, None, node.instance_id)

    def terminate(self, node: CloudNode) -> OPResult:
        """Terminate the node."""
        return cloud_manager_glbl.terminate_node(self.region, None, node.instance_id)

    def refresh(self) -> OPResult:
        """Refresh the registry from the engine and the worker."""
        return cloud_manager_glbl.refresh_node_list(self.region)

    def registry(self) -> list[CloudNode]:
        """The registered nodes, as the last refresh left them."""
        return cloud_manager_glbl.get_node_list(self.region)

    def refreshed_node(self) -> CloudNode:
        """The one node after a refresh that went well."""
        result = self.refresh()
        assert result.success, result.traceback_text
        (node,) = self.registry()
        return node

    def wait_until_ready(self) -> CloudNode:
        """Refresh until the worker answers."""
        end = time.monotonic() + SETUP_SECONDS
        while True:
            node = self.refreshed_node()
            if node.ready:
                return node
            assert time.monotonic() < end, self.client.logs(node.instance_id).decode()
            time.sleep(0.1)


def local_settings(
    server: ContainerEngineServer, port: int, operation_seconds: float = LIMIT_SECONDS
) -> dict[str, Any]:
    """Configuration for the local region on this engine, with a worker that asks for a token."""
    return {
        "container": {
            "engine_url": server.url,
            "published_port": port,
            "operation_seconds": operation_seconds,
            "memory_mib": 256,
            "cpu_count": 0.75,
        },
        "worker": {"token": "a-token-of-this-test"},
    }


def local_region() -> CloudRegion:
    """The region of this machine's container engine."""
    region = CloudRegions.get_local_container_region()
    assert region is not None
    return region
