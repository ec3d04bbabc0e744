"""Pods as nodes."""

from __future__ import annotations

from typing import Any

import pytest
from lightkube.resources.core_v1 import Pod

from tovarincore._k8s_console_client.nodes import node_of, state_of
from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, K8sRegion, NodeState

REGION = K8sRegion(name="r")


def pod_of(status: dict[str, Any] | None = None, **metadata: Any) -> Pod:
    """A pod as the API server shows it."""
    pod = Pod.from_dict({"metadata": {"name": "p", **metadata}, "status": status or {}})
    assert isinstance(pod, Pod)
    return pod


def ready(status: str) -> list[dict[str, str]]:
    """Conditions of a pod, the one that counts last."""
    return [{"type": "PodScheduled", "status": "True"}, {"type": "Ready", "status": status}]


@pytest.mark.parametrize(
    ("status", "state"),
    [
        ({}, NodeState.UNKNOWN),
        ({"phase": "Pending"}, NodeState.STARTING),
        ({"phase": "Running"}, NodeState.STARTING),
        ({"phase": "Running", "conditions": ready("False")}, NodeState.STARTING),
        ({"phase": "Running", "conditions": ready("True")}, NodeState.RUNNING),
        ({"phase": "Running", "conditions": ready("Unknown")}, NodeState.UNKNOWN),
        ({"phase": "Succeeded"}, NodeState.TERMINATED),
        ({"phase": "Failed", "reason": "Evicted"}, NodeState.TERMINATED),
        ({"phase": "Unknown"}, NodeState.UNKNOWN),
        ({"phase": "Hibernating"}, NodeState.UNKNOWN),
    ],
)
def test_phase_and_readiness_make_the_state(status: dict[str, Any], state: NodeState) -> None:
    """Only a running pod that is ready is a running node."""
    assert state_of(pod_of(status)) is state


@pytest.mark.parametrize("phase", ["Pending", "Running", "Succeeded", "Failed", "Unknown"])
def test_a_pod_that_is_being_deleted_shuts_down(phase: str) -> None:
    """Once its deletion is asked for, nothing else counts."""
    pod = pod_of({"phase": phase, "conditions": ready("True")}, deletionTimestamp="2026-01-01T00:00:00Z")
    assert state_of(pod) is NodeState.SHUTTING_DOWN


def test_a_bare_pod_is_a_node_without_particulars() -> None:
    """What a pod does not say is said as unknown, and the pod is not left out."""
    nothing_known = CloudInstanceTypeDef("unknown", 0, 0)
    assert node_of(REGION, pod_of()) == CloudNode(REGION, "p", nothing_known, state=NodeState.UNKNOWN)


@pytest.mark.parametrize("text", ["", "{", "[]", "7", '{"instance_type": "a"}', '{"colour": "red"}'])
def test_a_damaged_instance_type_is_unknown(text: str) -> None:
    """An annotation changed by hand costs the type, not the node."""
    pod = pod_of(annotations={"tovarincore/instance-type": text})
    assert node_of(REGION, pod).instance_type_def.instance_type == "unknown"


def test_labels_and_annotations_fill_the_record() -> None:
    """Uuid, name, type and address come from the pod."""
    pod = pod_of(
        {"phase": "Pending", "podIP": "fd00::7"},
        labels={"tovarincore/uuid": "u"},
        annotations={
            "tovarincore/name": "n",
            "tovarincore/instance-type": '{"instance_type": "t", "cpu_count": 0.5, "memory_mib": 512}',
        },
    )
    expected = CloudNode(
        REGION, "p", CloudInstanceTypeDef("t", 0.5, 512), uuid="u", name="n", dns_address="fd00::7"
    )
    assert node_of(REGION, pod) == expected
