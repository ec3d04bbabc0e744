"""The facade's Kubernetes regions, end to end, on an API server inside the process and on a real one.

`make test-kubernetes` gives the real one: its path stands in TOVARIN_KUBE_APISERVER. With KUBECONFIG=path it
gives the user's cluster instead: that path stands in TOVARIN_TEST_KUBECONFIG.
"""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import AbstractContextManager
from dataclasses import replace
from pathlib import Path

import pytest
from lightkube.models.core_v1 import Container, PodSpec
from lightkube.models.meta_v1 import ObjectMeta
from lightkube.resources.core_v1 import Namespace, Pod, Secret

from stage.kube_api import KubeApi
from stage.kube_own import KubeOwn
from stage.kube_real import KubeReal
from stage.kube_world import KubeServer, KubeWorld, kube_world
from stage.patience import in_time
from tovarincore.cloud_def import CloudNode, GpuPlanA, NodeState
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.testing.reference_worker import ReferenceWorker

OWN = os.environ.get("TOVARIN_TEST_KUBECONFIG", "")
# A cluster may be far away.
OPERATION_SECONDS = 20.0 if OWN else 3.0
PROGRAM = os.environ.get("TOVARIN_KUBE_APISERVER", "")
OF_THE_USER = pytest.param(
    "own", marks=pytest.mark.skipif(not OWN, reason="needs a cluster: make test-kubernetes KUBECONFIG=path")
)
REAL = pytest.param(
    "real", marks=pytest.mark.skipif(not PROGRAM, reason="needs a real API server: run make test-kubernetes")
)


@pytest.fixture(scope="module", params=["fake", REAL, OF_THE_USER])
def server(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Iterator[KubeServer]:
    """An API server for all tests of this file."""
    folder = tmp_path_factory.mktemp("kube")
    opened: AbstractContextManager[KubeServer]
    if request.param == "own":
        opened = KubeOwn(Path(OWN).expanduser())
    else:
        opened = KubeApi(folder) if request.param == "fake" else KubeReal(Path(PROGRAM), folder)
    with opened as running:
        yield running


@pytest.fixture(scope="module")
def worker() -> Iterator[ReferenceWorker]:
    """A worker that answers pings, where a forwarded port would lead."""
    with ReferenceWorker() as running:
        yield running


@pytest.fixture
def world(server: KubeServer, worker: ReferenceWorker, tmp_path: Path) -> Iterator[KubeWorld]:
    """A fresh namespace; the node "cold-1" is reached over a forwarded port."""
    sections: dict[str, dict[str, object]] = {
        "kubernetes": {"operation_seconds": OPERATION_SECONDS, "page_size": 10},
        "worker_addresses": {"cold-1": f"127.0.0.1:{worker.port}"},
    }
    with kube_world(server, tmp_path, sections) as opened:
        yield opened


def launch(world: KubeWorld, **changes: object) -> tuple[CloudNode | None, OPResult]:
    """Launch through the facade."""
    result: tuple[CloudNode | None, OPResult] = cloud_manager_glbl.launch_node(
        world.region, None, world.small, world.config(**changes), additional_params=world.additional_params
    )
    return result


def launched(world: KubeWorld, **changes: object) -> CloudNode:
    """Launch a node that has to be launched."""
    node, result = launch(world, **changes)
    assert result == OPResult(success=True)
    assert node is not None
    return node


def refresh(world: KubeWorld) -> list[tuple[str, NodeState, bool]]:
    """Refresh the registry; return name, state and readiness of each node in it."""
    assert cloud_manager_glbl.refresh_node_list(world.region) == OPResult(success=True)
    return [(node.name, node.state, node.ready) for node in cloud_manager_glbl.get_node_list(world.region)]


def test_a_node_lives_from_its_launch_to_its_end(world: KubeWorld) -> None:
    """A node starts, runs, gets ready as its worker answers, shuts down and is gone with its Secret."""
    node = launched(world)
    assert (node.state, node.dns_address, node.region) == (NodeState.STARTING, "", world.region)
    listed, result = cloud_manager_glbl.list_instances(world.region)
    assert (listed, result.success) == ([node], True)
    assert refresh(world) == [("cold-1", NodeState.STARTING, False)]

    world.bind(node.instance_id)
    world.set_status(node.instance_id, "Running", "False", "10.1.2.3")
    assert refresh(world) == [("cold-1", NodeState.STARTING, False)]
    world.set_status(node.instance_id, "Running", "True", "10.1.2.3")
    assert refresh(world) == [("cold-1", NodeState.RUNNING, True)]
    ready = cloud_manager_glbl.get_ready_node_next_in_line(world.region)
    assert ready is not None
    assert (ready.instance_id, ready.uuid, ready.dns_address) == (node.instance_id, node.uuid, "10.1.2.3")
    assert ready.memory_total_bytes

    ended = cloud_manager_glbl.terminate_node(world.region, None, node.instance_id, stop_reason="idle")
    assert ended == OPResult(success=True)
    found = cloud_manager_glbl.find_node_by_instance_id(world.region, node.instance_id)
    assert found is not None
    assert (found.state, found.ready) == (NodeState.SHUTTING_DOWN, False)
    assert refresh(world) == [("cold-1", NodeState.SHUTTING_DOWN, False)]
    metadata = world.pod(node.instance_id).metadata
    assert metadata is not None
    assert (metadata.annotations or {})["tovarincore/stop-reason"] == "idle"
    assert metadata.deletionGracePeriodSeconds == core_conf_glbl.kubernetes__termination_grace_seconds
    world.finish(node.instance_id)
    assert refresh(world) == []
    assert world.is_empty()


def test_a_worker_is_reached_at_its_pods_address(
    server: KubeServer, worker: ReferenceWorker, tmp_path: Path
) -> None:
    """Without a forwarded port the worker is looked for at the pod's address and `worker_port`."""
    with kube_world(server, tmp_path, {"kubernetes": {"worker_port": worker.port}}) as world:
        node = launched(world)
        world.set_status(node.instance_id, "Running", "True", "127.0.0.1")
        assert refresh(world) == [("cold-1", NodeState.RUNNING, True)]


def test_starting_and_stopping_reach_no_pod(world: KubeWorld) -> None:
    """A pod can be neither started nor stopped: both calls leave it as it is."""
    node = launched(world)
    before = world.pod(node.instance_id)
    cloud_manager_glbl.start_node(world.region, None, node.instance_id, reboot=True)
    cloud_manager_glbl.stop_node(world.region, None, node.instance_id)
    assert world.pod(node.instance_id) == before


def test_a_namespace_without_a_catalogue_offers_the_defaults(world: KubeWorld) -> None:
    """The default image and four sizes are offered, and there is no image for a plan."""
    templates, result = cloud_manager_glbl.list_current_instance_templates(world.region)
    assert ([template.instance_template_id for template in templates], result.success) == (
        ["tovarin-worker:latest"],
        True,
    )
    types, result = cloud_manager_glbl.list_instance_types(world.region)
    assert [entry.instance_type for entry in types] == ["k8s.small", "k8s.medium", "k8s.large", "k8s.gpu"]
    assert result.success
    assert cloud_manager_glbl.get_default_instance_template(world.region, None, GpuPlanA()) is None


def test_a_catalogue_replaces_the_defaults(world: KubeWorld) -> None:
    """Images and sizes of the ConfigMap are offered, and a plan finds its image among them."""
    world.write_catalogue(
        instance_templates='[{"image": "r/gpu:2", "version": "2.0", "is_gpu": true, "pay_type": "PLAN_A"}]',
        instance_types='[{"instance_type": "big", "cpu_count": 16, "memory_mib": 65536, "gpu_count": 2}]',
    )
    template = cloud_manager_glbl.get_default_instance_template(world.region, None, GpuPlanA())
    assert template is not None
    assert (template.instance_template_id, template.version, template.region) == (
        "r/gpu:2",
        "2.0",
        world.region,
    )
    types, result = cloud_manager_glbl.list_instance_types(world.region)
    assert result.success
    assert [(entry.instance_type, entry.gpu_count) for entry in types] == [("big", 2)]


def test_a_listing_takes_every_page(world: KubeWorld) -> None:
    """More nodes than a page holds are all listed, foreign pods are not."""
    names = sorted(launched(world, name=f"node-{number}").name for number in range(23))
    world.admin.create(foreign_pod())
    nodes, result = cloud_manager_glbl.list_instances(world.region)
    assert result.success
    assert nodes is not None
    assert sorted(node.name for node in nodes) == names


def foreign_pod() -> Pod:
    """A pod that is no node."""
    return Pod(
        metadata=ObjectMeta(name="database"), spec=PodSpec(containers=[Container(name="main", image="i")])
    )


def test_a_foreign_pod_is_not_terminated(world: KubeWorld) -> None:
    """A pod without the labels of a node is left alone, and the result says that it is none."""
    world.admin.create(foreign_pod())
    result = cloud_manager_glbl.terminate_node(world.region, None, "database")
    assert result.error_code is OPResultErrorCode.NOT_FOUND
    assert [pod.metadata.name for pod in world.pods() if pod.metadata] == ["database"]


def test_terminating_twice_succeeds_twice(world: KubeWorld) -> None:
    """A node that is gone already counts as terminated."""
    node = launched(world)
    for _ in range(2):
        assert cloud_manager_glbl.terminate_node(world.region, None, node.instance_id).success
    assert world.is_empty()


def test_missing_rights_come_back_in_the_servers_words(world: KubeWorld) -> None:
    """403: every operation reports it with the server's message, and nothing is created."""
    node = launched(world)
    world.write_kubeconfig(world.powerless_token)
    failed, result = launch(world)
    listed, listing = cloud_manager_glbl.list_instances(world.region)
    templates, catalogue = cloud_manager_glbl.list_current_instance_templates(world.region)
    ended = cloud_manager_glbl.terminate_node(world.region, None, node.instance_id)
    assert (failed, listed, templates) == (None, None, [])
    for refused in (result, listing, catalogue, ended):
        assert refused.error_code is OPResultErrorCode.UNAUTHORIZED_OPERATION
        assert f'User "{world.powerless_user}" cannot' in (refused.msg or "")
    assert len(world.pods()) == len(world.secret_names()) == 1


def test_a_node_is_not_launched_twice(world: KubeWorld) -> None:
    """409: a second launch of a uuid is refused, and the first node stays as it was."""
    node = launched(world)
    before = world.pod(node.instance_id)
    again, result = launch(world, uuid=node.uuid)
    assert again is None
    assert f'pods "{node.instance_id}" already exists' in (result.msg or "")
    assert world.pod(node.instance_id) == before
    assert len(world.secret_names()) == 1


def test_an_impossible_node_is_refused(world: KubeWorld) -> None:
    """422: what Kubernetes finds invalid comes back in its words, and nothing is created."""
    node, result = launch(world, disk_size=-1)
    assert node is None
    assert "is invalid" in (result.msg or "")
    assert world.is_empty()


def test_a_uuid_with_a_path_reaches_no_other_object(world: KubeWorld) -> None:
    """A uuid that would lead to another Secret is refused, and the Secret stays."""
    world.admin.create(Secret(metadata=ObjectMeta(name="database")))
    node, result = launch(world, uuid="../secrets/database?x=")
    assert node is None
    assert "cannot be a uuid" in (result.msg or "")
    assert world.secret_names() == ["database"]
    assert world.pods() == []


def test_a_refused_secret_takes_its_pod_along(world: KubeWorld) -> None:
    """422 for the Secret, which is too large: the pod that was created for it is removed."""
    node, result = launch(world, launch_instance_settings={"blob": "x" * 1_100_000})
    assert node is None
    assert "Too long" in (result.msg or "")
    assert world.is_empty()


def test_a_used_up_quota_is_told(world: KubeWorld) -> None:
    """403 for a quota is RESOURCE_EXHAUSTED, and nothing is created."""
    world.limit_pods(0)
    node, result = launch(world)
    assert node is None
    assert result.error_code is OPResultErrorCode.RESOURCE_EXHAUSTED
    assert "exceeded quota: few" in (result.msg or "")
    assert world.is_empty()


def test_a_restarted_server_is_found_again(world: KubeWorld, server: KubeServer) -> None:
    """While the server is away calls fail at once and the registry stays; afterwards everything is there."""
    if isinstance(server, KubeOwn):
        pytest.skip("stops the server, which a user's cluster is spared")
    node = launched(world)
    assert refresh(world) == [("cold-1", NodeState.STARTING, False)]
    server.stop()
    try:
        with in_time():
            result = cloud_manager_glbl.refresh_node_list(world.region)
            failed, launching = launch(world, name="cold-2")
            ending = cloud_manager_glbl.terminate_node(world.region, None, node.instance_id)
    finally:
        server.start()
    assert failed is None
    assert [refused.error_code for refused in (result, launching, ending)] == [
        OPResultErrorCode.CONNECTION_FAILED
    ] * 3
    assert [known.name for known in cloud_manager_glbl.get_node_list(world.region)] == ["cold-1"]
    assert refresh(world) == [("cold-1", NodeState.STARTING, False)]


def test_a_renewed_token_is_taken_up(world: KubeWorld) -> None:
    """An expired token fails every operation; once the kubeconfig is renewed they work again."""
    node = launched(world)
    world.write_kubeconfig("expired-token")
    listed, result = cloud_manager_glbl.list_instances(world.region)
    failed, launching = launch(world)
    ending = cloud_manager_glbl.terminate_node(world.region, None, node.instance_id)
    assert (listed, failed) == (None, None)
    for refused in (result, launching, ending):
        assert refused.error_code is OPResultErrorCode.UNAUTHENTICATED
        assert "renew" in (refused.msg or "")
        assert "expired-token" not in repr(refused)
    world.write_kubeconfig(world.manager_token)
    assert refresh(world) == [("cold-1", NodeState.STARTING, False)]


def test_a_server_that_does_not_answer_costs_the_time_limit(world: KubeWorld, server: KubeServer) -> None:
    """Every operation on a stuck server ends in time; the registry stays and nothing is left behind."""
    if isinstance(server, KubeOwn):
        pytest.skip("halts the server, which a user's cluster is spared")
    node = launched(world)
    refresh(world)
    server.pause()
    try:
        with in_time(3 * OPERATION_SECONDS):
            results = [cloud_manager_glbl.refresh_node_list(world.region), launch(world, name="cold-2")[1]]
            results.append(cloud_manager_glbl.terminate_node(world.region, None, node.instance_id))
    finally:
        server.resume()
    assert [result.error_code for result in results] == [OPResultErrorCode.TIMEOUT] * 3
    assert refresh(world) == [("cold-1", NodeState.STARTING, False)]
    assert len(world.secret_names()) == 1


def test_regions_of_one_name_reach_their_own_namespace(world: KubeWorld) -> None:
    """Records of one name with other namespaces share neither a provider nor nodes: each ends its own."""
    other = replace(world.region, namespace=f"{world.namespace}-b")
    world.admin.create(Namespace(metadata=ObjectMeta(name=other.namespace)))
    try:
        node = launched(world)
        assert cloud_manager_glbl.get_node_manager(other) is not cloud_manager_glbl.get_node_manager(
            world.region
        )
        cloud_manager_glbl.terminate_node(other, None, node.instance_id)
        assert [pod.metadata.name for pod in world.pods() if pod.metadata] == [node.instance_id]
    finally:
        world.admin.delete(Namespace, other.namespace)
