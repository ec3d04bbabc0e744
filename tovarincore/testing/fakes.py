"""Recording fakes of everything that the module reaches outside of itself, for tests of programs that use it.

:func:`patched_cloud_node` puts them in place: the facade and the providers are the real ones, while EC2, the
container engine, the Kubernetes cluster, the workers and the credential store are replaced by objects in
memory. Nothing is connected to or read; ``tovarincore.fleet`` notes launches in a temporary folder.
``docs/testing-your-code.md`` shows their use.
"""

import functools
import os
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from copy import deepcopy
from dataclasses import dataclass, field
from datetime import datetime
from tempfile import TemporaryDirectory
from unittest.mock import patch

from tovarincore import cloud_node
from tovarincore.api_def import PingRequest, SystemStatRequest
from tovarincore.cloud_conf import CloudConf
from tovarincore.cloud_def import (
    AWSCloudAuth,
    CloudInstanceConfig,
    CloudInstances,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    CloudRegions,
    InstanceTemplate,
    InstanceTemplatePayType,
    NodeState,
)
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.testing._fake_ec2 import FakeEc2Client
from tovarincore.testing._recording import Call, Record, answerable, client_error, recorded

__all__ = [
    "Call",
    "FakeCloud",
    "FakeCloudConfManager",
    "FakeContainerHelper",
    "FakeEc2Client",
    "FakeK8sConsoleClient",
    "FakeWebSocketClient",
    "client_error",
    "patched_cloud_node",
]

USER_NAME = "tester"


@dataclass
class FakeCloud(Record):
    """What a test sees and lays down: the record of calls with its ``answers``, and the state of every fake.

    :param silent: names or instance ids of nodes whose workers do not answer
    :param conf: the credential store
    :param local: the container engine
    """

    silent: set[str] = field(default_factory=set)
    conf: "FakeCloudConfManager" = field(init=False)
    local: "FakeContainerHelper" = field(init=False)

    def __post_init__(self) -> None:
        self._ec2: dict[str, FakeEc2Client] = {}
        self._k8s: dict[str, FakeK8sConsoleClient] = {}
        self.conf = FakeCloudConfManager(self)
        self.local = FakeContainerHelper(self)

    def ec2(self, region: CloudRegion) -> "FakeEc2Client":
        """Return a region's EC2, always the same."""
        return self._ec2.setdefault(region.hash_key, FakeEc2Client(self))

    def k8s(self, region: CloudRegion) -> "FakeK8sConsoleClient":
        """Return a region's cluster, always the same."""
        return self._k8s.setdefault(region.hash_key, FakeK8sConsoleClient(self, region))


@answerable
class FakeCloudConfManager:
    """The credential store: from the start it has credentials of user ``tester`` for every Amazon region."""

    service = "cloud_conf"

    def __init__(self, cloud: FakeCloud) -> None:
        self.cloud = cloud
        self.stored: dict[str, CloudConf | None] = {}

    @recorded
    def get_cloud_conf(self, region: CloudRegion) -> CloudConf | None:
        """Return what was stored, else made-up credentials for an Amazon region."""
        return self._current(region)

    @recorded
    def set_cloud_conf(self, region: CloudRegion, conf: CloudConf) -> None:
        """Keep it in memory."""
        self.stored[region.hash_key] = conf

    @recorded
    def delete_cloud_conf(self, region: CloudRegion) -> bool:
        """Let the region have no credentials."""
        known = self._current(region) is not None
        self.stored[region.hash_key] = None
        return known

    def _current(self, region: CloudRegion) -> CloudConf | None:
        default = CloudConf(AWSCloudAuth(aws_profile="fake"), USER_NAME) if region.cloud == "AWS" else None
        return self.stored.get(region.hash_key, default)


@answerable
class FakeWebSocketClient:
    """A worker's client: the worker answers unless its node is in ``FakeCloud.silent``."""

    service = "worker"

    def __init__(self, cloud: FakeCloud, node: CloudNode, client_timeout_sec: float = 10.0) -> None:
        self.cloud = cloud
        self.node = node
        self.client_timeout_sec = client_timeout_sec
        self.worker_id: str | None = None

    @recorded
    def api_get_op_result(self, request: PingRequest | SystemStatRequest) -> OPResult:
        """Answer, or say at once that nothing came within the time limit."""
        if {self.node.name, self.node.instance_id} & self.cloud.silent:
            return OPResult(error=True, error_code=OPResultErrorCode.TIMEOUT, msg="The worker is silent")
        return OPResult(success=True)

    @recorded
    def refresh_system_stat(self) -> OPResult:
        """Write a load into the node's record."""
        self.node.cpu_percent = 12.5
        self.node.memory_used_bytes = 1 << 30
        self.node.memory_total_bytes = 4 << 30
        self.node.system_stat_time = 0.0
        return OPResult(success=True)

    def close(self) -> None:
        """Do nothing."""


@answerable
class FakeContainerHelper:
    """The local engine: holds the images ``versions`` and at most one container."""

    service = "local"

    def __init__(self, cloud: FakeCloud) -> None:
        self.cloud = cloud
        self.versions = ["1.0.0"]
        self.node: CloudNode | None = None

    @recorded
    def list_tvr_container_image_versions(self) -> list[str]:
        """Return the image versions."""
        return list(self.versions)

    @recorded
    def get_existing_node(self) -> CloudNode | None:
        """Return the container's record, or ``None``."""
        return deepcopy(self.node)

    @recorded
    def run_tvr_container_image(self, version: str) -> tuple[CloudNode | None, OPResult]:
        """Run a container of a version that exists."""
        region = CloudRegions.get_local_container_region()
        if version not in self.versions or region is None:
            return None, OPResult(
                error=True, error_code=OPResultErrorCode.NOT_FOUND, msg=f"No image {version}"
            )
        self.node = CloudNode(
            region=region,
            instance_id="container-1",
            instance_type_def=CloudInstances.get_default_local_instance_type(),
            uuid="uuid-of-container-1",
            name="tovarin-worker",
            dns_address="127.0.0.1",
            state=NodeState.RUNNING,
        )
        return deepcopy(self.node), OPResult(success=True)

    @recorded
    def start_tovarin_container(self, reboot: bool = False) -> None:
        """Let the container run."""
        self._change(NodeState.RUNNING)

    @recorded
    def stop_tovarin_container(self) -> None:
        """Let the container stand."""
        self._change(NodeState.STOPPED)

    @recorded
    def delete_tovarin_container(self) -> OPResult:
        """Forget the container."""
        self.node = None
        return OPResult(success=True)

    def _change(self, state: NodeState) -> None:
        if self.node is not None:
            self.node.state = state


@answerable
class FakeK8sConsoleClient:
    """A cluster: a launched node is ``STARTING`` in the launch's answer and ``RUNNING`` in listings."""

    service = "k8s"

    def __init__(self, cloud: FakeCloud, region: CloudRegion) -> None:
        self.cloud = cloud
        self.region = region
        self.nodes: dict[str, CloudNode] = {}
        self.instance_types = [CloudInstanceTypeDef("k8s.small", cpu_count=1, memory_mib=2048)]

    @recorded
    def get_cloud_nodes(self, *, own_only: bool = False) -> tuple[list[CloudNode] | None, OPResult]:
        """Return the nodes, in the order of their launch; all of them are the user's own."""
        for node in self.nodes.values():
            node.state = NodeState.RUNNING
        return deepcopy(list(self.nodes.values())), OPResult(success=True)

    @recorded
    def launch_node(
        self,
        *,
        instance_type_def: CloudInstanceTypeDef,
        instance_config: CloudInstanceConfig,
        additional_params: str | None = None,
        startup_script: str | None = None,
    ) -> tuple[CloudNode | None, OPResult]:
        """Add a node."""
        node = CloudNode(
            region=self.region,
            instance_id=f"tovarin-{instance_config.uuid}",
            instance_type_def=instance_type_def,
            uuid=instance_config.uuid,
            name=instance_config.name or "-",
            dns_address="10.0.0.1",
        )
        self.nodes[node.instance_id] = node
        return deepcopy(node), OPResult(success=True)

    @recorded
    def terminate_node(self, *, instance_id: str, stop_reason: str | None = None) -> OPResult:
        """Remove a node; one that is gone is a success."""
        self.nodes.pop(instance_id, None)
        return OPResult(success=True)

    @recorded
    def list_instance_templates(self) -> tuple[list[InstanceTemplate], OPResult]:
        """Return one image."""
        template = InstanceTemplate(
            instance_template_id="tovarin-worker:1.0.0",
            name="tovarin-worker",
            product_pay_type=InstanceTemplatePayType.DEV,
            created_date=datetime(2024, 1, 1),
            region=self.region,
            version="1.0.0",
        )
        return [template], OPResult(success=True)

    @recorded
    def list_instance_types(self) -> tuple[list[CloudInstanceTypeDef], OPResult]:
        """Return one size."""
        return list(self.instance_types), OPResult(success=True)


@contextmanager
def patched_cloud_node() -> Iterator[FakeCloud]:
    """Run the body with fakes in place of everything outside of the module, and with default settings.

    ``cloud_manager_glbl`` stays the same object, so that code which imported it earlier works on the fakes
    too; inside the body it starts without providers and pooled clients. Everything is put back afterwards.
    One at a time, and not while other threads use the facade.

    :return: the fakes, and the record of the calls that reached them
    """
    cloud = FakeCloud()
    manager = cloud_node.cloud_manager_glbl
    variables = {name: value for name, value in os.environ.items() if not name.startswith("TOVARIN_")}
    with ExitStack() as stack:
        # Where launches of fleets are noted.
        folder = stack.enter_context(TemporaryDirectory(prefix="tovarin-fakes-"))
        variables |= {"TOVARIN_CONF": os.devnull, "TOVARIN_CLOUD_CONF": os.path.join(folder, "cloud.toml")}
        stack.callback(core_conf_glbl.reload)
        stack.enter_context(patch.dict(os.environ, variables, clear=True))
        core_conf_glbl.reload()
        for name, replacement in {
            "CloudConfManager": lambda: cloud.conf,
            "ContainerHelper": lambda: cloud.local,
            "K8sConsoleClient": cloud.k8s,
            "WebSocketClient": functools.partial(FakeWebSocketClient, cloud),
        }.items():
            stack.enter_context(patch.object(cloud_node, name, replacement))
        provider_class = cloud_node.AWSNodeManager
        stack.enter_context(
            patch.object(provider_class, "_get_client", lambda provider: cloud.ec2(provider.region))
        )
        for attribute, value in {
            "cloud_conf_manager": cloud.conf,
            "_node_manager_hashset": {},
            "webs_client_pool": [],
        }.items():
            stack.enter_context(patch.object(manager, attribute, value))
        yield cloud
