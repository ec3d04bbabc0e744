"""The Kubernetes client on an API server inside the process, most of all when that fails."""

from __future__ import annotations

import base64
import json
import subprocess
import sys
import threading
import time
from typing import Any

import pytest
from lightkube.models.core_v1 import Container, PodSpec, SecretVolumeSource, Volume
from lightkube.models.meta_v1 import ObjectMeta
from lightkube.resources.core_v1 import Pod, Secret

from stage.kube_api import Fault, KubeApi
from stage.kube_store import Refusal
from stage.kube_world import KubeWorld
from tovarincore._k8s_console_client.manifests import NODE_LABELS
from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, K8sRegion
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.k8s_console_client import K8sConsoleClient

FORBIDDEN = Refusal(403, "Forbidden", "secrets is forbidden: no")
INTERNAL = Refusal(500, "InternalError", "etcd is gone")
EXPIRED = Refusal(410, "Expired", "The provided continue parameter is too old")
UNUSABLE_UUIDS = ["", "-", "a_b", "a..b", "-a", "a-", "a/b", "a?b", "a b", "a\n", "ä", "*", "x" * 64, None, 7]


def launch(kube: KubeWorld, **changes: Any) -> tuple[CloudNode | None, OPResult]:
    """Launch with parameters of the launch, or else of its configuration, changed."""
    arguments = {
        key: changes.pop(key)
        for key in ("instance_type_def", "additional_params", "startup_script")
        if key in changes
    }
    arguments.setdefault("instance_type_def", kube.small)
    return kube.client.launch_node(instance_config=kube.config(**changes), **arguments)


def launched(kube: KubeWorld, **changes: Any) -> CloudNode:
    """Launch a node that has to be launched."""
    node, result = launch(kube, **changes)
    assert result == OPResult(success=True)
    assert node is not None
    return node


def test_making_a_client_touches_nothing() -> None:
    """Neither the kubeconfig nor the Kubernetes library is looked at before the first call."""
    script = (
        "import sys\n"
        "from tovarincore.cloud_def import K8sRegion\n"
        "from tovarincore.k8s_console_client import K8sConsoleClient\n"
        "K8sConsoleClient(K8sRegion(name='r', kubeconfig='/nowhere'))\n"
        "assert not {'lightkube', 'httpx2', 'yaml', 'msgspec'} & set(sys.modules)\n"
    )
    subprocess.run([sys.executable, "-c", script], check=True)


def test_a_missing_library_is_named_with_its_remedy(monkeypatch: pytest.MonkeyPatch) -> None:
    """Without the optional packages every call says what to install, in one line."""
    for name in [name for name in sys.modules if name.startswith("tovarincore._k8s_console_client.")]:
        if not name.endswith(("errors", "deadline")):
            monkeypatch.delitem(sys.modules, name)
    monkeypatch.delattr("tovarincore._k8s_console_client.operations", raising=False)
    monkeypatch.setitem(sys.modules, "lightkube", None)
    client = K8sConsoleClient(K8sRegion(name="r"))
    nodes, listing = client.get_cloud_nodes()
    assert nodes is None
    for result in (listing, client.terminate_node(instance_id="n"), client.list_instance_types()[1]):
        assert result.error
        assert (result.msg or "").endswith("pip install tovarincore[kubernetes]")
        assert "\n" not in (result.msg or "")


def test_a_launch_makes_a_pod_of_the_instance_types_size(kube: KubeWorld) -> None:
    """Image, sizes, graphics processors, disk, port and marks are those of the launch."""
    big = CloudInstanceTypeDef("big", 2.5, 6144, gpu_count=2, gpu_model="m")
    node = launched(kube, instance_type_def=big, uuid="0AB-1")
    assert (node.instance_id, node.uuid, node.name, node.instance_type_def) == (
        "tovarin-0ab-1",
        "0AB-1",
        "cold-1",
        big,
    )
    manifest = kube.pod("tovarin-0ab-1").to_dict()
    secret = f"tovarin-0ab-1-{manifest['metadata']['annotations']['tovarincore/launch']}"
    assert kube.secret_names() == [secret]
    sizes = {"cpu": "2500m", "memory": "6144Mi", "ephemeral-storage": "20Gi", "nvidia.com/gpu": "2"}
    assert manifest["metadata"]["labels"] == {
        "app.kubernetes.io/managed-by": "tovarincore",
        "app.kubernetes.io/component": "worker",
        "tovarincore/uuid": "0AB-1",
    }
    assert manifest["spec"] == {
        "containers": [
            {
                "name": "worker",
                "image": "registry.example/worker:1.2.3",
                "env": [{"name": "TOVARIN_LAUNCH_SETTINGS", "value": "/etc/tovarin/launch-settings.json"}],
                "ports": [{"containerPort": 8855, "name": "worker"}],
                "resources": {"limits": sizes, "requests": sizes},
                "volumeMounts": [{"mountPath": "/etc/tovarin", "name": "launch", "readOnly": True}],
            }
        ],
        "automountServiceAccountToken": False,
        "terminationGracePeriodSeconds": 30,
        "volumes": [{"name": "launch", "secret": {"defaultMode": 0o555, "secretName": secret}}],
    }


def test_launch_settings_stand_in_a_secret_alone(kube: KubeWorld) -> None:
    """Settings and start-up script are in the Secret that the pod owns, and nowhere in the pod."""
    settings = {"token": "s3cret", "list": [1]}
    node = launched(kube, launch_instance_settings=settings, startup_script="#!/bin/bash\ns3cret\n")
    pod, secret = kube.pod(node.instance_id), kube.admin.get(Secret, kube.secret_names()[0])
    assert pod.metadata is not None
    assert secret.metadata is not None
    data = {key: base64.b64decode(value).decode() for key, value in (secret.data or {}).items()}
    assert json.loads(data.pop("launch-settings.json")) == settings
    assert data == {"startup-script": "#!/bin/bash\ns3cret\n"}
    owners = [owner.to_dict() for owner in secret.metadata.ownerReferences or []]
    assert owners == [{"apiVersion": "v1", "kind": "Pod", "name": node.instance_id, "uid": pod.metadata.uid}]
    assert "s3cret" not in json.dumps(pod.to_dict())


@pytest.mark.parametrize(
    ("script", "command"),
    [
        ("#!/bin/bash\ntrue", ["/etc/tovarin/startup-script"]),
        ("true", ["/bin/sh", "/etc/tovarin/startup-script"]),
    ],
    ids=["own interpreter", "shell"],
)
def test_a_startup_script_runs_with_its_container(kube: KubeWorld, script: str, command: list[str]) -> None:
    """The script is the container's postStart hook, run by the interpreter that it names."""
    spec = kube.pod(launched(kube, startup_script=script).instance_id).to_dict()["spec"]
    assert spec["containers"][0]["lifecycle"] == {"postStart": {"exec": {"command": command}}}


def test_additional_parameters_shape_the_pod(kube: KubeWorld) -> None:
    """Each documented key reaches its place in the pod; the product's own variable cannot be replaced."""
    toleration = {"key": "gpu", "operator": "Exists", "effect": "NoSchedule"}
    parameters = {
        "node_selector": {"disk": "ssd"},
        "tolerations": [toleration],
        "env": {"A": "1", "TOVARIN_LAUNCH_SETTINGS": "mine"},
        "service_account": "robot",
        "image_pull_secrets": ["registry"],
        "priority_class": "high",
    }
    spec = kube.pod(launched(kube, additional_params=json.dumps(parameters)).instance_id).to_dict()["spec"]
    assert spec["nodeSelector"] == {"disk": "ssd"}
    assert spec["tolerations"] == [toleration]
    assert spec["containers"][0]["env"] == [
        {"name": "A", "value": "1"},
        {"name": "TOVARIN_LAUNCH_SETTINGS", "value": "/etc/tovarin/launch-settings.json"},
    ]
    assert (spec["serviceAccountName"], spec["automountServiceAccountToken"]) == ("robot", True)
    assert spec["imagePullSecrets"] == [{"name": "registry"}]
    assert spec["priorityClassName"] == "high"


@pytest.mark.parametrize(
    ("text", "complaint"),
    [
        ("{", "Input data was truncated"),
        ("[]", "Expected `object`, got `array`"),
        ('{"nodeselector": {}}', "unknown field `nodeselector`"),
        ('{"env": {"A": 1}}', "Expected `str`, got `int` - at `$.env[...]`"),
        ('{"tolerations": [{"key": 1}]}', "Expected `str | null`, got `int` - at `$.tolerations[0].key`"),
        ('{"service_account": 7}', "at `$.service_account`"),
    ],
)
def test_unusable_parameters_are_refused(
    kube: KubeWorld, kube_api: KubeApi, text: str, complaint: str
) -> None:
    """A bad JSON text is told with the place and the allowed keys, before the server is asked."""
    node, result = launch(kube, additional_params=text)
    assert node is None
    assert complaint in (result.msg or "")
    assert "node_selector, tolerations, env" in (result.msg or "")
    assert kube_api.requests == []


@pytest.mark.parametrize(
    "changes",
    [
        {"launch_instance_settings": {"key": object()}},
        {"instance_type_def": CloudInstanceTypeDef("none", 0, 1)},
    ],
    ids=["settings", "size"],
)
def test_an_impossible_launch_asks_for_nothing(
    kube: KubeWorld, kube_api: KubeApi, changes: dict[str, Any]
) -> None:
    """Settings that are no JSON and a type without a size are refused at once."""
    node, result = launch(kube, **changes)
    assert node is None
    assert result.error
    assert kube_api.requests == []


def add_pods(kube: KubeWorld, kube_api: KubeApi, count: int) -> None:
    """Put nodes there, as many as wanted, by copying one."""
    node = launched(kube)
    manifest = kube_api.store.get("pods", kube.namespace, node.instance_id)
    with kube_api.store.lock:
        for number in range(1, count):
            name = f"tovarin-{number:05}"
            copied = {**manifest, "metadata": {**manifest["metadata"], "name": name}}
            kube_api.store.objects["pods", kube.namespace, name] = copied
    kube_api.requests.clear()


def test_five_thousand_nodes_are_listed_page_by_page(
    kube: KubeWorld, kube_api: KubeApi, monkeypatch: pytest.MonkeyPatch
) -> None:
    """All nodes of a large namespace are listed, each once, in pages of the configured size."""
    monkeypatch.setenv("TOVARIN_KUBERNETES__OPERATION_SECONDS", "60")
    kube.reload()
    add_pods(kube, kube_api, 5000)
    nodes, result = kube.client.get_cloud_nodes()
    assert result.success
    assert nodes is not None
    assert len({node.instance_id for node in nodes}) == len(nodes) == 5000
    assert kube_api.requests == ["GET pods"] * 50


@pytest.mark.parametrize(
    ("fault", "code"),
    [
        (Fault(EXPIRED), None),
        (Fault(INTERNAL), None),
        (Fault(FORBIDDEN), OPResultErrorCode.UNAUTHORIZED_OPERATION),
        (Fault(hang_up=True), OPResultErrorCode.CONNECTION_FAILED),
        (Fault(body=b"<html>"), OPResultErrorCode.PROTOCOL_ERROR),
        (Fault(body=b'{"items": 7}'), OPResultErrorCode.PROTOCOL_ERROR),
        (Fault(body=b"<html>", status=502), None),
        (Fault(delay=5), OPResultErrorCode.TIMEOUT),
        (Fault(drip=0.05), OPResultErrorCode.TIMEOUT),
    ],
    ids=["expired", "500", "403", "hang-up", "html", "no list", "502", "slow", "dripping"],
)
def test_a_listing_fails_as_a_whole(
    kube: KubeWorld, kube_api: KubeApi, fault: Fault, code: OPResultErrorCode | None
) -> None:
    """Whatever happens to the third page, there is no list rather than a part of one, and in time."""
    add_pods(kube, kube_api, 450)
    kube_api.fault("GET pods", fault, skip=2)
    began = time.monotonic()
    nodes, result = kube.client.get_cloud_nodes()
    assert time.monotonic() - began < 2.5
    assert nodes is None
    assert (result.success, result.error, result.error_code) == (False, True, code)
    assert result.msg


def test_a_listing_that_outlives_its_state_fails(kube: KubeWorld, kube_api: KubeApi) -> None:
    """410: when the server gave up the state that the pages show, there is no list."""
    add_pods(kube, kube_api, 250)
    kube_api.fault("GET pods", Fault(delay=0.3), skip=1)
    expire = threading.Timer(0.15, kube_api.store.expire_listings)
    expire.start()
    nodes, result = kube.client.get_cloud_nodes()
    expire.join()
    assert nodes is None
    assert "too old to display a consistent list" in (result.msg or "")


@pytest.mark.parametrize(
    "fault",
    [
        Fault(FORBIDDEN),
        Fault(INTERNAL),
        Fault(hang_up=True),
        Fault(hang_up=True, served=True),
        Fault(delay=5, served=True),
        Fault(body=b"<html>", served=True),
        Fault(drip=0.05),
    ],
    ids=["403", "500", "hang-up", "answer lost", "slow", "garbage", "dripping"],
)
@pytest.mark.parametrize("request_", ["POST pods", "POST secrets"])
def test_a_failed_launch_leaves_nothing_behind(
    kube: KubeWorld, kube_api: KubeApi, request_: str, fault: Fault
) -> None:
    """Whether it was done unseen or not: neither pod nor Secret stays, and the caller hears of it in time."""
    kube_api.fault(request_, fault)
    began = time.monotonic()
    node, result = launch(kube)
    assert time.monotonic() - began < 2.5
    assert node is None
    assert result.error
    assert "left behind" not in (result.msg or "")
    assert kube.is_empty()


def test_a_pod_that_cannot_be_removed_is_named(kube: KubeWorld, kube_api: KubeApi) -> None:
    """When taking back fails as well, the message has both reasons and the node to terminate."""
    kube_api.fault("POST secrets", Fault(FORBIDDEN))
    kube_api.fault("DELETE pods", Fault(INTERNAL))
    node, result = launch(kube, uuid="u-1")
    assert node is None
    assert result.error_code is OPResultErrorCode.UNAUTHORIZED_OPERATION
    for part in ("secrets is forbidden: no", "tovarin-u-1 may have been left behind", "etcd is gone"):
        assert part in (result.msg or "")
    assert kube.client.terminate_node(instance_id="tovarin-u-1").success
    assert kube.is_empty()


def test_a_failed_launch_spares_the_pod_of_another(kube: KubeWorld, kube_api: KubeApi) -> None:
    """A launch whose answer was lost does not remove the pod that an earlier launch of the uuid made."""
    node = launched(kube)
    kube_api.fault("POST pods", Fault(hang_up=True))
    failed, result = launch(kube, uuid=node.uuid)
    assert failed is None
    assert result.error_code is OPResultErrorCode.CONNECTION_FAILED
    assert [pod.metadata.name for pod in kube.pods() if pod.metadata] == [node.instance_id]
    assert len(kube.secret_names()) == 1


@pytest.mark.parametrize("instance_id", ["", "..", "../secrets/a", "UPPER", "a b", "a/b", "x" * 254, "a?b=c"])
def test_an_impossible_name_is_sent_nowhere(kube: KubeWorld, kube_api: KubeApi, instance_id: str) -> None:
    """What cannot be a pod's name never becomes part of a request's path."""
    result = kube.client.terminate_node(instance_id=instance_id)
    assert result.error_code is OPResultErrorCode.NOT_FOUND
    assert kube_api.requests == []


@pytest.mark.parametrize("uuid", UNUSABLE_UUIDS)
def test_an_impossible_uuid_is_refused_before_anything_is_asked(
    kube: KubeWorld, kube_api: KubeApi, uuid: Any
) -> None:
    """A uuid becomes part of paths and names: with other characters it is refused."""
    node, result = launch(kube, uuid=uuid)
    assert node is None
    assert "cannot be" in (result.msg or "")
    assert kube_api.requests == []


@pytest.mark.parametrize("uuid", ["a", "A-1.b", "x" * 63, "0f7e1c9a-3b52-4d36-9e9b-2f0a4f1c8d11"])
def test_a_uuid_that_names_can_hold_is_launched(kube: KubeWorld, uuid: str) -> None:
    """Letters of both cases, digits, hyphens and dots, up to the length of a label."""
    assert launched(kube, uuid=uuid).uuid == uuid


def add_secret(kube: KubeWorld, name: str) -> None:
    """Put a Secret there that belongs to somebody else."""
    kube.admin.create(Secret(metadata=ObjectMeta(name=name), stringData={"password": "p"}))


@pytest.mark.parametrize("uuid", ["../secrets/database?x=", "x/../../secrets/database", "x?"])
def test_a_failed_launch_never_reaches_another_secret(kube: KubeWorld, kube_api: KubeApi, uuid: str) -> None:
    """Neither by a path nor by a query does the clean-up of a launch lead to what it did not make."""
    add_secret(kube, "database")
    kube_api.fault("POST secrets", Fault(INTERNAL))
    assert launch(kube, uuid=uuid)[0] is None
    assert kube.secret_names() == ["database"]


@pytest.mark.parametrize("fault", [Fault(FORBIDDEN), Fault(hang_up=True)], ids=["refused", "answer lost"])
def test_secrets_that_only_look_like_a_nodes_stay(kube: KubeWorld, kube_api: KubeApi, fault: Fault) -> None:
    """Neither a failed launch nor a termination removes a Secret that the launch did not make."""
    names = ["tovarin-u-1", "tovarin-u-1-config", "tovarin-u-1-launch"]
    for name in names:
        add_secret(kube, name)
    kube_api.fault("POST secrets", fault)
    assert launch(kube, uuid="u-1")[0] is None
    assert kube.client.terminate_node(instance_id=launched(kube, uuid="u-1").instance_id).success
    assert kube.client.terminate_node(instance_id="tovarin-u-1").success
    assert (kube.pods(), kube.secret_names()) == ([], names)


def test_a_pod_that_names_a_strangers_secret_does_not_cost_it(kube: KubeWorld) -> None:
    """A pod made by hand with a node's labels may mount any Secret: ending it leaves that alone."""
    names = ["database", "tovarin-a-b-0f7e1c9a-3b52-4d36-9e9b-2f0a4f1c8d11"]
    for name in names:
        add_secret(kube, name)
        volume = Volume(name="launch", secret=SecretVolumeSource(secretName=name))
        spec = PodSpec(containers=[Container(name="main", image="i")], volumes=[volume])
        kube.admin.create(Pod(metadata=ObjectMeta(name="tovarin-a", labels=dict(NODE_LABELS)), spec=spec))
        assert kube.client.terminate_node(instance_id="tovarin-a").success
    assert kube.secret_names() == names


def test_terminating_a_lost_pod_leaves_its_secret_to_the_cluster(kube: KubeWorld, kube_api: KubeApi) -> None:
    """Without the pod nothing says which Secret was its own; the cluster removes what a gone pod owned."""
    node = launched(kube)
    kube.admin.delete(Pod, node.instance_id)
    kube_api.requests.clear()
    ended = kube.client.terminate_node(instance_id=node.instance_id, stop_reason="lost")
    assert ended == OPResult(success=True)
    assert kube_api.requests == ["GET pods"]


@pytest.mark.parametrize("request_", ["GET pods", "PATCH pods", "DELETE pods", "DELETE secrets"])
def test_a_failed_termination_says_so(kube: KubeWorld, kube_api: KubeApi, request_: str) -> None:
    """A failure of any step is reported, and terminating again ends the pod.

    When only its Secret could not be removed, the pod owns it, and the cluster removes it.
    """
    node = launched(kube)
    kube_api.fault(request_, Fault(INTERNAL))
    result = kube.client.terminate_node(instance_id=node.instance_id, stop_reason="idle")
    assert (result.success, result.error, result.msg) == (False, True, "etcd is gone")
    assert kube.client.terminate_node(instance_id=node.instance_id, stop_reason="idle").success
    assert kube.pods() == []
    assert len(kube.secret_names()) == (request_ == "DELETE secrets")


def test_an_unreadable_catalogue_is_told(kube: KubeWorld, kube_api: KubeApi) -> None:
    """A failing API server is an error with an empty list, not a namespace without a catalogue."""
    kube_api.fault("GET configmaps", Fault(INTERNAL), times=2)
    for entries, result in (kube.client.list_instance_templates(), kube.client.list_instance_types()):
        assert entries == []
        assert result.msg == "etcd is gone"


def test_threads_share_a_client(kube: KubeWorld) -> None:
    """Launches from several threads through one client all succeed, each with its own node."""
    nodes: list[CloudNode] = []
    barrier = threading.Barrier(4)

    def work() -> None:
        barrier.wait()
        nodes.append(launched(kube))

    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    listed, _ = kube.client.get_cloud_nodes()
    assert {node.uuid for node in listed or []} == {node.uuid for node in nodes}
    assert len(nodes) == 4


def test_a_namespace_that_cannot_be_is_refused(kube: KubeWorld, kube_api: KubeApi) -> None:
    """A namespace's name is checked before it becomes part of a path."""
    client = K8sConsoleClient(K8sRegion(name="r", namespace="a/../b", kubeconfig=str(kube.kubeconfig)))
    nodes, result = client.get_cloud_nodes()
    assert nodes is None
    assert "'a/../b' cannot be the name of a namespace" in (result.msg or "")
    assert kube_api.requests == []
