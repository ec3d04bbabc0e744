"""Launches in a cluster, most of all those that fail."""

from __future__ import annotations

import base64
import getpass
import json
from typing import Any

import pytest
from lightkube.resources.core_v1 import Secret

from stage.kube_api import Fault, KubeApi
from stage.kube_store import Refusal
from stage.kube_world import KubeWorld
from stage.patience import HANG_SECONDS, in_time
from tovarincore.cloud_def import CloudInstanceTypeDef
from tovarincore.core_def import OPResultErrorCode

FORBIDDEN = Refusal(403, "Forbidden", "secrets is forbidden: no")
INTERNAL = Refusal(500, "InternalError", "etcd is gone")
UNUSABLE_UUIDS = ["", "-", "a_b", "a..b", "-a", "a-", "a/b", "a?b", "a b", "a\n", "ä", "*", "x" * 64, None, 7]


def test_a_launch_makes_a_pod_of_the_instance_types_size(kube: KubeWorld) -> None:
    """Image, sizes, graphics processors, disk, port and marks are those of the launch."""
    big = CloudInstanceTypeDef("big", 2.5, 6144, gpu_count=2, gpu_model="m")
    node = kube.launched(instance_type_def=big, uuid="0AB-1")
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
        "tovarincore/owner": getpass.getuser(),
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
                "securityContext": {
                    "allowPrivilegeEscalation": False,
                    "capabilities": {"drop": ["ALL"]},
                },
            }
        ],
        "automountServiceAccountToken": False,
        "securityContext": {"runAsNonRoot": True, "seccompProfile": {"type": "RuntimeDefault"}},
        "terminationGracePeriodSeconds": 30,
        "volumes": [{"name": "launch", "secret": {"defaultMode": 0o555, "secretName": secret}}],
    }


def test_launch_settings_stand_in_a_secret_alone(kube: KubeWorld) -> None:
    """Settings and start-up script are in the Secret that the pod owns, and nowhere in the pod."""
    settings = {"token": "s3cret", "list": [1]}
    node = kube.launched(launch_instance_settings=settings, startup_script="#!/bin/bash\ns3cret\n")
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
    spec = kube.pod(kube.launched(startup_script=script).instance_id).to_dict()["spec"]
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
    spec = kube.pod(kube.launched(additional_params=json.dumps(parameters)).instance_id).to_dict()["spec"]
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
    node, result = kube.launch(additional_params=text)
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
    node, result = kube.launch(**changes)
    assert node is None
    assert result.error
    assert kube_api.requests == []


@pytest.mark.parametrize("uuid", UNUSABLE_UUIDS)
def test_an_impossible_uuid_is_refused_before_anything_is_asked(
    kube: KubeWorld, kube_api: KubeApi, uuid: Any
) -> None:
    """A uuid becomes part of paths and names: with other characters it is refused."""
    node, result = kube.launch(uuid=uuid)
    assert node is None
    assert "cannot be" in (result.msg or "")
    assert kube_api.requests == []


@pytest.mark.parametrize("uuid", ["a", "A-1.b", "x" * 63, "0f7e1c9a-3b52-4d36-9e9b-2f0a4f1c8d11"])
def test_a_uuid_that_names_can_hold_is_launched(kube: KubeWorld, uuid: str) -> None:
    """Letters of both cases, digits, hyphens and dots, up to the length of a label."""
    assert kube.launched(uuid=uuid).uuid == uuid


@pytest.mark.parametrize(
    "fault",
    [
        Fault(FORBIDDEN),
        Fault(INTERNAL),
        Fault(hang_up=True),
        Fault(hang_up=True, served=True),
        Fault(delay=HANG_SECONDS, served=True),
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
    # Long enough for a busy machine to take back what was made in a quarter of it.
    limit = 6.0 if fault.delay or fault.drip else HANG_SECONDS
    kube.limit(limit)
    with in_time(limit if limit < HANG_SECONDS else 0):
        node, result = kube.launch()
    assert node is None
    assert result.error
    assert "left behind" not in (result.msg or "")
    assert kube.is_empty()


def test_a_pod_that_cannot_be_removed_is_named(kube: KubeWorld, kube_api: KubeApi) -> None:
    """When taking back fails as well, the message has both reasons and the node to terminate."""
    kube_api.fault("POST secrets", Fault(FORBIDDEN))
    kube_api.fault("DELETE pods", Fault(INTERNAL))
    node, result = kube.launch(uuid="u-1")
    assert node is None
    assert result.error_code is OPResultErrorCode.UNAUTHORIZED_OPERATION
    for part in ("secrets is forbidden: no", "tovarin-u-1 may have been left behind", "etcd is gone"):
        assert part in (result.msg or "")
    assert kube.client.terminate_node(instance_id="tovarin-u-1").success
    assert kube.is_empty()


def test_a_failed_launch_spares_the_pod_of_another(kube: KubeWorld, kube_api: KubeApi) -> None:
    """A launch whose answer was lost does not remove the pod that an earlier launch of the uuid made."""
    node = kube.launched()
    kube_api.fault("POST pods", Fault(hang_up=True))
    failed, result = kube.launch(uuid=node.uuid)
    assert failed is None
    assert result.error_code is OPResultErrorCode.CONNECTION_FAILED
    assert [pod.metadata.name for pod in kube.pods() if pod.metadata] == [node.instance_id]
    assert len(kube.secret_names()) == 1


@pytest.mark.parametrize("uuid", ["../secrets/database?x=", "x/../../secrets/database", "x?"])
def test_a_failed_launch_never_reaches_another_secret(kube: KubeWorld, kube_api: KubeApi, uuid: str) -> None:
    """Neither by a path nor by a query does the clean-up of a launch lead to what it did not make."""
    kube.add_secret("database")
    kube_api.fault("POST secrets", Fault(INTERNAL))
    assert kube.launch(uuid=uuid)[0] is None
    assert kube.secret_names() == ["database"]
