"""Terminations in a cluster."""

from __future__ import annotations

import pytest
from lightkube.models.core_v1 import Container, PodSpec, SecretVolumeSource, Volume
from lightkube.models.meta_v1 import ObjectMeta
from lightkube.resources.core_v1 import Pod

from stage.kube_api import Fault, KubeApi
from stage.kube_store import Refusal
from stage.kube_world import KubeWorld
from tovarincore._k8s_console_client.manifests import NODE_LABELS
from tovarincore.core_def import OPResult, OPResultErrorCode

FORBIDDEN = Refusal(403, "Forbidden", "secrets is forbidden: no")
INTERNAL = Refusal(500, "InternalError", "etcd is gone")


@pytest.mark.parametrize("instance_id", ["", "..", "../secrets/a", "UPPER", "a b", "a/b", "x" * 254, "a?b=c"])
def test_an_impossible_name_is_sent_nowhere(kube: KubeWorld, kube_api: KubeApi, instance_id: str) -> None:
    """What cannot be a pod's name never becomes part of a request's path."""
    result = kube.client.terminate_node(instance_id=instance_id)
    assert result.error_code is OPResultErrorCode.NOT_FOUND
    assert kube_api.requests == []


@pytest.mark.parametrize("fault", [Fault(FORBIDDEN), Fault(hang_up=True)], ids=["refused", "answer lost"])
def test_secrets_that_only_look_like_a_nodes_stay(kube: KubeWorld, kube_api: KubeApi, fault: Fault) -> None:
    """Neither a failed launch nor a termination removes a Secret that the launch did not make."""
    names = ["tovarin-u-1", "tovarin-u-1-config", "tovarin-u-1-launch"]
    for name in names:
        kube.add_secret(name)
    kube_api.fault("POST secrets", fault)
    assert kube.launch(uuid="u-1")[0] is None
    assert kube.client.terminate_node(instance_id=kube.launched(uuid="u-1").instance_id).success
    assert kube.client.terminate_node(instance_id="tovarin-u-1").success
    assert (kube.pods(), kube.secret_names()) == ([], names)


def test_a_pod_that_names_a_strangers_secret_does_not_cost_it(kube: KubeWorld) -> None:
    """A pod made by hand with a node's labels may mount any Secret: ending it leaves that alone."""
    names = ["database", "tovarin-a-b-0f7e1c9a-3b52-4d36-9e9b-2f0a4f1c8d11"]
    for name in names:
        kube.add_secret(name)
        volume = Volume(name="launch", secret=SecretVolumeSource(secretName=name))
        spec = PodSpec(containers=[Container(name="main", image="i")], volumes=[volume])
        kube.admin.create(Pod(metadata=ObjectMeta(name="tovarin-a", labels=dict(NODE_LABELS)), spec=spec))
        assert kube.client.terminate_node(instance_id="tovarin-a").success
    assert kube.secret_names() == names


def test_terminating_a_lost_pod_leaves_its_secret_to_the_cluster(kube: KubeWorld, kube_api: KubeApi) -> None:
    """Without the pod nothing says which Secret was its own; the cluster removes what a gone pod owned."""
    node = kube.launched()
    kube.admin.delete(Pod, node.instance_id)
    kube_api.requests.clear()
    ended = kube.client.terminate_node(instance_id=node.instance_id, stop_reason="lost")
    assert ended == OPResult(success=True)
    assert kube_api.requests == ["GET pods"]


@pytest.mark.parametrize("request_", ["GET pods", "DELETE pods"])
def test_a_failed_termination_says_so(kube: KubeWorld, kube_api: KubeApi, request_: str) -> None:
    """When the pod's end could not be asked for, that is an error, and terminating again completes it."""
    node = kube.launched()
    kube_api.fault(request_, Fault(INTERNAL))
    result = kube.client.terminate_node(instance_id=node.instance_id, stop_reason="idle")
    assert (result.success, result.error, result.msg) == (False, True, "etcd is gone")
    assert kube.client.terminate_node(instance_id=node.instance_id, stop_reason="idle").success
    assert kube.is_empty()


@pytest.mark.parametrize("fault", [Fault(INTERNAL), Fault(FORBIDDEN), Fault(hang_up=True)])
@pytest.mark.parametrize(
    ("request_", "told"),
    [("PATCH pods", "its stop reason is not kept"), ("DELETE secrets", "the cluster removes its Secret")],
)
def test_nothing_keeps_a_pod_alive_once_its_end_is_wanted(
    kube: KubeWorld, kube_api: KubeApi, request_: str, told: str, fault: Fault
) -> None:
    """What fails after the deletion is told in a success: the node is ending."""
    node = kube.launched()
    kube_api.fault(request_, fault)
    result = kube.client.terminate_node(instance_id=node.instance_id, stop_reason="idle")
    assert (result.success, result.error) == (True, False)
    assert told in (result.msg or "")
    assert kube.pods() == []


@pytest.mark.parametrize(
    "reason", ["x" * 300_000, "\udcff", "a\nb\0c", "{}"], ids=["long", "surrogate", "controls", "json"]
)
def test_no_reason_is_too_odd_to_end_a_pod(kube: KubeWorld, reason: str) -> None:
    """A reason is cut after 1,024 characters, and what no text can hold is replaced."""
    node = kube.launched()
    kube.bind(node.instance_id)
    ended = kube.client.terminate_node(instance_id=node.instance_id, stop_reason=reason)
    assert ended == OPResult(success=True)
    metadata = kube.pod(node.instance_id).metadata
    assert metadata is not None
    assert metadata.deletionTimestamp is not None
    kept = (metadata.annotations or {})["tovarincore/stop-reason"]
    assert kept == reason[:1024].replace("\udcff", "?")


def test_a_pod_that_took_the_place_of_another_is_spared(kube: KubeWorld, kube_api: KubeApi) -> None:
    """Between look and deletion the name may have changed hands: only the pod that was looked at is ended."""
    node = kube.launched()
    replaced = kube.pod(node.instance_id)

    def replace() -> None:
        with kube_api.store.lock:
            kube_api.store.objects["pods", kube.namespace, node.instance_id]["metadata"]["uid"] = "another"

    kube_api.fault("DELETE pods", Fault(before=replace))
    assert kube.client.terminate_node(instance_id=node.instance_id, stop_reason="idle").success
    (left,) = kube.pods()
    assert left.metadata is not None
    assert replaced.metadata is not None
    assert (left.metadata.uid, left.metadata.annotations) == ("another", replaced.metadata.annotations)
