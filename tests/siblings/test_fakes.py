"""Tests of the fakes that users put in place of the world outside of the module."""

from __future__ import annotations

import os
from collections.abc import Callable
from typing import Any

import pytest

from tovarincore import cloud_node
from tovarincore.cloud_conf import CloudConf
from tovarincore.cloud_def import (
    AWSCloudAuth,
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    CloudRegions,
    CpuPlanA,
    GpuPlanB,
    InstanceTemplate,
    K8sRegion,
    NodeState,
)
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.testing.fakes import Call, FakeCloud, client_error, patched_cloud_node

AMAZON = CloudRegion(name="eu-central-1", cloud="AWS")
CLUSTER = K8sRegion(name="lab")
SMALL = CloudInstanceTypeDef(instance_type="t3.small", cpu_count=2, memory_mib=2048)


def local_region() -> CloudRegion:
    """The region of the container engine."""
    region = CloudRegions.get_local_container_region()
    assert region is not None
    return region


def config_of(template: InstanceTemplate | None, name: str = "node-1") -> CloudInstanceConfig:
    """Settings of a launch from a template that exists."""
    assert template is not None
    return CloudInstanceConfig(
        disk_size=20,
        launch_instance_settings={},
        instance_template=template,
        uuid=f"uuid of {name}",
        name=name,
    )


def amazon_config(name: str = "node-1") -> CloudInstanceConfig:
    """Settings of a launch from the default image."""
    return config_of(cloud_manager_glbl.get_default_instance_template(AMAZON, None, CpuPlanA()), name)


def launched(name: str = "node-1") -> CloudNode:
    """A node launched in the Amazon region as the user that listings ask for."""
    node, result = cloud_manager_glbl.launch_node(AMAZON, None, SMALL, amazon_config(name), username="tester")
    assert result.success and node is not None
    return node


def states(region: CloudRegion) -> list[tuple[str, NodeState, bool]]:
    """Name, state and readiness of a region's nodes after a refresh that went well."""
    result = cloud_manager_glbl.refresh_node_list(region)
    assert result.success, result.traceback_text
    return [(node.name, node.state, node.ready) for node in cloud_manager_glbl.get_node_list(region)]


def test_a_node_of_amazon_goes_through_its_life() -> None:
    """The real facade and provider launch, list, stop, start and end a node on the EC2 in memory."""
    with patched_cloud_node():
        node = launched()
        assert node.state is NodeState.STARTING
        assert states(AMAZON) == [("node-1", NodeState.RUNNING, True)]
        cloud_manager_glbl.stop_node(AMAZON, None, node.instance_id)
        assert states(AMAZON) == [("node-1", NodeState.STOPPED, False)]
        cloud_manager_glbl.start_node(AMAZON, None, node.instance_id, wait_until_cloud_provider_ready=True)
        cloud_manager_glbl.start_node(AMAZON, None, node.instance_id, reboot=True)
        assert states(AMAZON) == [("node-1", NodeState.RUNNING, True)]
        assert cloud_manager_glbl.terminate_node(AMAZON, None, node.instance_id).success
        assert states(AMAZON) == [("node-1", NodeState.TERMINATED, False)]


def test_a_dry_run_launches_nothing_and_makes_the_security_group() -> None:
    """As EC2 does: the trial succeeds, no instance exists, and the group has its rule."""
    with patched_cloud_node() as cloud:
        assert cloud_manager_glbl.try_launching_node(AMAZON, None, SMALL, amazon_config()).success
        ec2 = cloud.ec2(AMAZON)
        assert ec2.instances == {}
        assert ec2.rules is not None
        assert [rule["FromPort"] for rule in ec2.rules] == [8855]
        cloud_manager_glbl.try_launching_node(AMAZON, None, SMALL, amazon_config())
        assert cloud.names.count("ec2.create_security_group") == 1
        assert cloud.names.count("ec2.authorize_security_group_ingress") == 1


def test_every_plan_has_an_image() -> None:
    """The default image of a plan is found among the public images."""
    with patched_cloud_node():
        template = cloud_manager_glbl.get_default_instance_template(AMAZON, None, GpuPlanB())
        assert template is not None
        assert template.name == "TOVARIN_AI_GPU_PLAN_B_1.0.0"


def test_listings_show_the_stored_users_nodes_alone() -> None:
    """A node launched under another user name stays out of the listing, as on EC2."""
    with patched_cloud_node():
        cloud_manager_glbl.launch_node(AMAZON, None, SMALL, amazon_config(), username="somebody else")
        assert states(AMAZON) == []


def test_a_local_node_goes_through_its_life() -> None:
    """The container is launched from a version that exists, stopped, started and deleted."""
    with patched_cloud_node() as cloud:
        region = local_region()
        cloud.local.versions = ["2.0.0", "1.0.0"]
        templates, _ = cloud_manager_glbl.list_current_instance_templates(region)
        assert [template.version for template in templates] == ["2.0.0", "1.0.0"]
        assert states(region) == []
        node, result = cloud_manager_glbl.launch_node(region, None, SMALL, config_of(templates[0]))
        assert result.success and node is not None
        assert states(region) == [("tovarin-worker", NodeState.RUNNING, True)]
        cloud_manager_glbl.stop_node(region, None, node.instance_id)
        assert states(region) == [("tovarin-worker", NodeState.STOPPED, False)]
        cloud_manager_glbl.start_node(region, None, node.instance_id)
        assert states(region) == [("tovarin-worker", NodeState.RUNNING, True)]
        assert cloud_manager_glbl.terminate_node(region, None, node.instance_id).success
        assert states(region) == []
        cloud.local.versions = []
        refused, result = cloud_manager_glbl.launch_node(region, None, SMALL, config_of(templates[0]))
        assert (refused, result.error_code) == (None, OPResultErrorCode.NOT_FOUND)


def test_a_node_of_a_cluster_goes_through_its_life() -> None:
    """A pod is launched from the one image, listed and removed."""
    with patched_cloud_node():
        templates, _ = cloud_manager_glbl.list_current_instance_templates(CLUSTER)
        types, _ = cloud_manager_glbl.list_instance_types(CLUSTER)
        node, _ = cloud_manager_glbl.launch_node(CLUSTER, None, types[0], config_of(templates[0]))
        assert node is not None
        assert node.state is NodeState.STARTING
        assert states(CLUSTER) == [("node-1", NodeState.RUNNING, True)]
        assert cloud_manager_glbl.terminate_node(CLUSTER, None, node.instance_id).success
        assert states(CLUSTER) == []


def test_a_silent_worker_is_not_ready() -> None:
    """Nodes named as silent, by name or id, are listed but not ready; the others report their load."""
    with patched_cloud_node() as cloud:
        node = launched("one")
        launched("two")
        launched("three")
        cloud.silent = {node.instance_id, "two"}
        assert [ready for _, _, ready in states(AMAZON)] == [False, False, True]
        ready = cloud_manager_glbl.get_ready_node_next_in_line(AMAZON)
        assert ready is not None
        assert (ready.name, ready.cpu_percent) == ("three", 12.5)


def test_calls_are_recorded_in_order() -> None:
    """The record names service and operation, with the arguments as they were passed."""
    with patched_cloud_node() as cloud:
        node = launched()
        cloud.calls.clear()
        cloud_manager_glbl.stop_node(AMAZON, None, node.instance_id)
        request = {"InstanceIds": ["i-1"], "Hibernate": False, "DryRun": False, "Force": True}
        assert cloud.calls == [Call("ec2.stop_instances", (), request)]


def test_an_exception_laid_down_is_raised() -> None:
    """A refusal laid down for a request reaches the facade's caller as EC2's would."""
    with patched_cloud_node() as cloud:
        cloud.answers["ec2.run_instances"] = client_error("InsufficientInstanceCapacity", "No capacity")
        node, result = cloud_manager_glbl.launch_node(AMAZON, None, SMALL, amazon_config(), username="tester")
        assert (node, result.error, result.msg) == (None, True, "No capacity")
        assert cloud.names[-1] == "ec2.run_instances"


def test_an_answer_laid_down_takes_the_place_of_the_fakes_own() -> None:
    """What a test lays down for a call is what the call gives."""
    with patched_cloud_node() as cloud:
        full = OPResult(error=True, error_code=OPResultErrorCode.RESOURCE_EXHAUSTED, msg="quota")
        cloud.answers["k8s.get_cloud_nodes"] = (None, full)
        assert cloud_manager_glbl.refresh_node_list(CLUSTER) is full


def test_an_unknown_instance_is_refused() -> None:
    """A request for an instance that does not exist raises the SDK's error."""
    with patched_cloud_node(), pytest.raises(type(client_error("", "")), match="i-404"):
        cloud_manager_glbl.terminate_node(AMAZON, None, "i-404")


def test_key_pairs_are_made_once_and_deleted() -> None:
    """A key pair's name can be taken once, until it is deleted."""
    with patched_cloud_node():
        key, result = cloud_manager_glbl.create_key_pair(AMAZON, None, "work", "tester")
        assert (key, result.success) == ("private key of work", True)
        assert cloud_manager_glbl.create_key_pair(AMAZON, None, "work", "tester")[1].error
        cloud_manager_glbl.delete_key_pair(AMAZON, None, "work")
        assert cloud_manager_glbl.create_key_pair(AMAZON, None, "work", "tester")[1].success


def test_credentials_can_be_stored_and_taken_away() -> None:
    """Amazon regions have credentials until the test deletes them; what it stores is what is read."""
    with patched_cloud_node() as cloud:
        assert cloud.conf.delete_cloud_conf(AMAZON)
        conf = CloudConf(AWSCloudAuth(aws_profile="work"), "ada")
        cloud.conf.set_cloud_conf(AMAZON, conf)
        assert cloud.conf.get_cloud_conf(AMAZON) is conf
        assert cloud.conf.delete_cloud_conf(AMAZON)
        assert cloud.conf.get_cloud_conf(AMAZON) is None
        assert not cloud.conf.delete_cloud_conf(AMAZON)
        assert cloud.conf.get_cloud_conf(CLUSTER) is None
        with pytest.raises(AssertionError):
            cloud_manager_glbl.list_instances(AMAZON)


def test_clients_of_workers_can_be_pooled() -> None:
    """A client made by the module's own name talks to the fake worker and can be pooled and closed."""
    with patched_cloud_node():
        client = cloud_node.WebSocketClient(launched(), client_timeout_sec=1)
        cloud_manager_glbl.add_to_webs_client_pool(client)
        assert cloud_manager_glbl.get_from_webs_client_pool("uuid of node-1") is client
        client.close()


def test_everything_is_put_back(monkeypatch: pytest.MonkeyPatch) -> None:
    """Names of the module, the facade, the environment and the settings are as before, also after an
    error."""
    monkeypatch.setenv("TOVARIN_WORKER__PORT", "9000")
    core_conf_glbl.reload()

    def outside() -> list[Any]:
        manager: Any = cloud_manager_glbl
        module = vars(cloud_node)
        return [
            *(
                module[name]
                for name in ("ContainerHelper", "K8sConsoleClient", "WebSocketClient", "CloudConfManager")
            ),
            cloud_node.AWSNodeManager._get_client,
            manager.cloud_conf_manager,
            manager._node_manager_hashset,
            manager.webs_client_pool,
            dict(os.environ),
            core_conf_glbl.worker__port,
        ]

    before = outside()
    with pytest.raises(ZeroDivisionError), patched_cloud_node():
        assert core_conf_glbl.worker__port == 8855
        assert cloud_manager_glbl.webs_client_pool == []
        raise ZeroDivisionError
    after = outside()
    assert after == before
    assert all(new is old for new, old in zip(after[:8], before[:8], strict=True))


def test_each_region_has_its_own_ec2() -> None:
    """What is launched in one region does not show in another."""
    with patched_cloud_node() as cloud:
        launched()
        assert states(CloudRegion(name="us-east-1", cloud="AWS")) == []
        assert isinstance(cloud, FakeCloud)


@pytest.mark.parametrize(
    "lay_down",
    [
        lambda cloud: cloud.answers.__setitem__("ec2.run_instance", None),
        lambda cloud: cloud.answers.update({"ec2.run_instance": None}),
        lambda cloud: setattr(cloud, "answers", {"ec2.run_instance": None}),
    ],
    ids=["item", "update", "attribute"],
)
def test_a_misspelt_answer_is_refused_with_the_right_name(lay_down: Callable[[FakeCloud], object]) -> None:
    """An answer that no call would ever ask for must not let a test pass."""
    with patched_cloud_node() as cloud, pytest.raises(ValueError, match='"ec2.run_instances"'):
        lay_down(cloud)


def test_every_recorded_call_can_be_answered() -> None:
    """The names that are accepted are those of all fakes."""
    with patched_cloud_node() as cloud:
        for name in ("ec2.get_waiter", "local.get_existing_node", "k8s.launch_node"):
            cloud.answers[name] = None
        cloud.answers.update({"worker.refresh_system_stat": None, "cloud_conf.get_cloud_conf": None})
        assert len(cloud.answers) == 5
