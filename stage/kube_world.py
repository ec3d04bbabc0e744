"""A namespace on an API server, real or not, for one test, and access to it behind the product's back."""

from __future__ import annotations

import os
import uuid
from collections.abc import Iterator, Mapping
from contextlib import contextmanager, suppress
from datetime import datetime
from pathlib import Path
from typing import Any

import msgspec
import yaml
from lightkube import ApiError, Client, KubeConfig
from lightkube.codecs import load_all_yaml
from lightkube.models.authentication_v1 import TokenRequestSpec
from lightkube.models.core_v1 import ObjectReference, ResourceQuotaSpec
from lightkube.models.meta_v1 import ObjectMeta
from lightkube.models.rbac_v1 import Subject
from lightkube.resources.core_v1 import (
    ConfigMap,
    Namespace,
    Pod,
    PodBinding,
    PodStatus,
    ResourceQuota,
    ResourceQuotaStatus,
    Secret,
    ServiceAccount,
    ServiceAccountToken,
)
from lightkube.types import PatchType

from stage.kube_api import ADMIN_TOKEN, MANAGER_TOKEN, POWERLESS_TOKEN, KubeApi
from stage.kube_own import KubeOwn
from stage.kube_real import KubeReal
from stage.settings import settings_of
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    InstanceTemplate,
    InstanceTemplatePayType,
    K8sRegion,
)
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import OPResult
from tovarincore.k8s_console_client import K8sConsoleClient

_DOCUMENT = Path(__file__).parents[1] / "docs" / "kubernetes.md"


KubeServer = KubeApi | KubeReal | KubeOwn


class KubeWorld:
    """One test's namespace on a server, the region record for it, and an administrator's eyes and hands."""

    def __init__(self, server: KubeServer, folder: Path) -> None:
        self.server = server
        self.namespace = f"tovarin-test-{uuid.uuid4().hex[:8]}"
        self.kubeconfig = folder / "kubeconfig"
        self.manager_token, self.powerless_token = MANAGER_TOKEN, POWERLESS_TOKEN
        self.powerless_user = "powerless"
        self.additional_params: str | None = None
        if isinstance(server, KubeOwn):
            # No machine has it, so that scheduler and kubelets leave the tests' pods alone.
            self.additional_params = '{"node_selector": {"tovarincore/tests": "nowhere"}}'
        self.write_kubeconfig(MANAGER_TOKEN)
        self.region = K8sRegion(
            name=self.namespace, namespace=self.namespace, kubeconfig=str(self.kubeconfig)
        )
        self.client = K8sConsoleClient(self.region)
        self.small = CloudInstanceTypeDef("k8s.small", 1, 2048)
        config = (
            server.admin if isinstance(server, KubeOwn) else KubeConfig.from_dict(self.config_of(ADMIN_TOKEN))
        )
        self.admin = Client(config, namespace=self.namespace, trust_env=False)

    def config_of(self, token: str, **cluster: str) -> dict[str, Any]:
        """The content of a kubeconfig for this server; `cluster` replaces fields of its cluster."""
        if isinstance(self.server, KubeOwn):
            fields = self.server.cluster
        else:
            fields = {"server": self.server.url, "certificate-authority": str(self.server.authority)}
        return {
            "current-context": "here",
            "contexts": [{"name": "here", "context": {"cluster": "here", "user": "me"}}],
            "clusters": [{"name": "here", "cluster": {**fields, **cluster}}],
            "users": [{"name": "me", "user": {"token": token}}],
        }

    def write_kubeconfig(self, token: str, **cluster: str) -> None:
        """Let the region's kubeconfig hold this token from now on."""
        self.kubeconfig.write_text(yaml.safe_dump(self.config_of(token, **cluster)), encoding="utf-8")

    def config(self, **changes: Any) -> CloudInstanceConfig:
        """A launch configuration; `changes` replace its fields."""
        template = InstanceTemplate(
            instance_template_id="registry.example/worker:1.2.3",
            name="worker",
            product_pay_type=InstanceTemplatePayType.DEV,
            created_date=datetime(2026, 1, 1),
            region=self.region,
            version="1.2.3",
        )
        fields: dict[str, Any] = {
            "disk_size": 20,
            "launch_instance_settings": {"idle_minutes": 30},
            "instance_template": template,
            "name": "cold-1",
        }
        return CloudInstanceConfig(**{**fields, **changes})

    def launch(self, **changes: Any) -> tuple[CloudNode | None, OPResult]:
        """Launch with parameters of the launch, or else of its configuration, changed."""
        arguments = {
            key: changes.pop(key)
            for key in ("instance_type_def", "additional_params", "startup_script")
            if key in changes
        }
        arguments.setdefault("instance_type_def", self.small)
        return self.client.launch_node(instance_config=self.config(**changes), **arguments)

    def launched(self, **changes: Any) -> CloudNode:
        """Launch a node that has to be launched."""
        node, result = self.launch(**changes)
        assert result == OPResult(success=True)
        assert node is not None
        return node

    def add_secret(self, name: str) -> None:
        """Put a Secret there that belongs to somebody else."""
        self.admin.create(Secret(metadata=ObjectMeta(name=name), stringData={"password": "p"}))

    def limit(self, seconds: float) -> None:
        """Let operations take this long, until the end of the test."""
        os.environ["TOVARIN_KUBERNETES__OPERATION_SECONDS"] = str(seconds)
        core_conf_glbl.reload()

    def reload(self) -> None:
        """Let changed settings take effect."""
        core_conf_glbl.reload()

    def pods(self) -> list[Pod]:
        """Every pod of the namespace."""
        return list(self.admin.list(Pod))

    def pod(self, name: str) -> Pod:
        """One pod."""
        return self.admin.get(Pod, name)

    def secret_names(self) -> list[str]:
        """The names of the namespace's Secrets; a real cluster adds Secrets of other kinds."""
        return [
            secret.metadata.name or ""
            for secret in self.admin.list(Secret)
            if secret.metadata and secret.type in (None, "Opaque")
        ]

    def is_empty(self) -> bool:
        """Whether neither pod nor Secret is left."""
        return not self.pods() and not self.secret_names()

    def bind(self, name: str) -> None:
        """Place a pod on a machine, as a scheduler does."""
        binding = PodBinding(
            metadata=ObjectMeta(name=name), target=ObjectReference(kind="Node", name="machine-1")
        )
        # The server answers with a status, not with the binding that the library expects.
        with suppress(msgspec.ValidationError):
            self.admin.create(binding, name)

    def set_status(self, name: str, phase: str, ready: str | None = None, pod_ip: str = "") -> None:
        """Give a pod the status that a kubelet would report."""
        status: dict[str, Any] = {"phase": phase}
        if ready is not None:
            status["conditions"] = [{"type": "Ready", "status": ready}]
        if pod_ip:
            status |= {"podIP": pod_ip, "podIPs": [{"ip": pod_ip}]}
        self.admin.patch(PodStatus, name, {"status": status}, patch_type=PatchType.MERGE)

    def finish(self, name: str) -> None:
        """Let a pod be gone, as a kubelet does when its containers have ended."""
        self.admin.delete(Pod, name, grace_period=0)

    def write_catalogue(self, **data: str) -> None:
        """Put the catalogue there; a key `types` stands for "types.json"."""
        content = {f"{key}.json": text for key, text in data.items()}
        self.admin.create(ConfigMap(metadata=ObjectMeta(name="tovarin-catalogue"), data=content))

    def limit_pods(self, count: int) -> None:
        """Set a quota, with the figures that a controller would fill in."""
        name = "few"
        quota = ResourceQuota(
            metadata=ObjectMeta(name=name), spec=ResourceQuotaSpec(hard={"pods": str(count)})
        )
        self.admin.create(quota)
        status = {"status": {"hard": {"pods": str(count)}, "used": {"pods": "0"}}}
        self.admin.patch(ResourceQuotaStatus, name, status, patch_type=PatchType.MERGE)


@contextmanager
def kube_world(
    server: KubeServer, folder: Path, sections: Mapping[str, Mapping[str, Any]]
) -> Iterator[KubeWorld]:
    """Give a test a namespace where the manager has the documented rights, and its own settings."""
    world = KubeWorld(server, folder)
    with settings_of(folder, sections), world.admin:
        world.admin.create(Namespace(metadata=ObjectMeta(name=world.namespace)))
        try:
            if not isinstance(server, KubeApi):
                rights = documented_rights(world.namespace)
                if isinstance(server, KubeOwn):
                    rights[1].subjects = [Subject(kind="ServiceAccount", name="manager")]
                    _make_accounts(world)
                for right in rights:
                    world.admin.create(right)
            yield world
        finally:
            if not isinstance(server, KubeApi):
                with suppress(ApiError):
                    world.admin.delete(Namespace, world.namespace)


def _make_accounts(world: KubeWorld) -> None:
    """Make accounts in the namespace, since a user's cluster knows no users of the tests."""
    tokens = {}
    # Pods wait for the first, which a controller makes otherwise.
    for name in ("default", "manager", "powerless"):
        with suppress(ApiError):
            world.admin.create(ServiceAccount(metadata=ObjectMeta(name=name)))
        request = ServiceAccountToken(
            metadata=ObjectMeta(name=name), spec=TokenRequestSpec(audiences=[], expirationSeconds=3600)
        )
        answer = world.admin.create(request, name)
        tokens[name] = (answer.status.token if answer.status else None) or ""
    world.manager_token, world.powerless_token = tokens["manager"], tokens["powerless"]
    world.powerless_user = f"system:serviceaccount:{world.namespace}:powerless"
    world.write_kubeconfig(world.manager_token)


def documented_rights(namespace: str) -> list[Any]:
    """The Role and RoleBinding that the documentation gives, for this namespace."""
    text = _DOCUMENT.read_text(encoding="utf-8")
    manifests = text.split("```yaml\n")[1].split("```")[0]
    return load_all_yaml(manifests.replace("namespace: workers", f"namespace: {namespace}"))
