"""The main job on an emulated EC2: three nodes from dry run to termination, through the facade alone."""

from __future__ import annotations

import dataclasses
from collections.abc import Callable
from contextlib import ExitStack, suppress

from demo.report import DemoStopped, Report, Step
from stage.ec2_endpoint import ACCESS_KEY_ID, REGION_NAME, SECRET_ACCESS_KEY, Ec2Endpoint, ports_text
from stage.ports import HOST, refusing_port
from stage.settings import surroundings
from tovarincore.cloud_conf import CloudConf
from tovarincore.cloud_def import (
    AWSCloudAuth,
    CloudInstanceConfig,
    CloudInstances,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    CpuPlanA,
    InstanceTemplate,
    NodeState,
    SecurityGroupRules,
)
from tovarincore.cloud_node import CloudManager, cloud_manager_glbl
from tovarincore.sdk_data import service_descriptions_shared
from tovarincore.testing.reference_worker import ReferenceWorker

USER_NAME = "demo-user"
DEFAULT_IMAGE_NAME = "TOVARIN_AI_CPU_PLAN_A_1.4.0"
IMAGE_NAMES = ["TOVARIN_AI_GPU_PLAN_A_1.4.0", DEFAULT_IMAGE_NAME, "TOVARIN_AI_CPU_PLAN_B_1.4.0"]
INSTANCE_TYPE = "t3.small"
UNKNOWN_IMAGE_ID = "ami-0123456789abcdef0"
SECURITY_GROUP_NAME = "tovarin-security-group"
# In launch order, so that the ready node is not simply the first of the list.
SILENT, HEALTHY, UNREACHABLE = "silent-node", "healthy-node", "unreachable-node"
NODE_NAMES = [SILENT, HEALTHY, UNREACHABLE]


class Ec2Tour:
    """The steps of the tour; each one checks what it shows."""

    def __init__(
        self,
        manager: CloudManager,
        endpoint: Ec2Endpoint,
        region: CloudRegion,
        auth: AWSCloudAuth,
        report: Report,
    ) -> None:
        self._manager = manager
        self._endpoint = endpoint
        self._region = region
        self._auth = auth
        self._report = report

    def run(self) -> None:
        """Run every step; raises DemoStopped after the first one that went wrong."""
        template = self._pick_template()
        type_def = next(
            known for known in CloudInstances.instance_type_list if known.instance_type == INSTANCE_TYPE
        )
        self._dry_run(type_def, template)
        self._launch(type_def, template)
        self._refresh("Refresh: list the nodes and ping each worker", NodeState.RUNNING, NodeState.RUNNING)
        node = self._next_in_line()
        self._give_up()
        self._change(
            "Stop the node",
            lambda: self._manager.stop_node(self._region, self._auth, node.instance_id),
            NodeState.STOPPING,
        )
        self._refresh("Refresh after the stop", NodeState.STOPPED)
        self._change(
            "Start it again",
            lambda: self._manager.start_node(self._region, self._auth, node.instance_id),
            NodeState.STARTING,
        )
        self._refresh("Refresh after the start", NodeState.RUNNING)
        self._change(
            "Reboot it",
            lambda: self._manager.start_node(self._region, self._auth, node.instance_id, reboot=True),
            NodeState.STARTING,
        )
        self._refresh("Refresh after the reboot", NodeState.RUNNING)
        self._change(
            "Terminate it",
            lambda: self._manager.terminate_node(self._region, self._auth, node.instance_id),
            NodeState.SHUTTING_DOWN,
        )
        self._refresh("Refresh after the termination", NodeState.TERMINATED)
        self._refused_launch(type_def, template)
        self._security_group()

    def _pick_template(self) -> InstanceTemplate:
        with self._report.step("Pick the default image of the CPU plan A") as step:
            template = self._manager.get_default_instance_template(self._region, self._auth, CpuPlanA())
            assert template is not None, "no public image of that plan is registered"
            step.say(f"{template.name} ({template.instance_template_id})")
            step.expect("image", template.name, DEFAULT_IMAGE_NAME)
        return template

    def _dry_run(self, type_def: CloudInstanceTypeDef, template: InstanceTemplate) -> None:
        with self._report.step(f"Dry run of a launch on {type_def.instance_type}") as step:
            result = self._manager.try_launching_node(
                self._region, self._auth, type_def, self._config(HEALTHY, template)
            )
            step.expect("success", result.success, True)
            step.expect("instances in EC2", self._instance_count(), 0)
            step.say("EC2 says that the launch would succeed; nothing was launched.")
            self._show_registry(step)

    def _launch(self, type_def: CloudInstanceTypeDef, template: InstanceTemplate) -> None:
        with self._report.step("Launch three nodes") as step:
            launched = []
            for name in NODE_NAMES:
                node, result = self._manager.launch_node(
                    self._region, self._auth, type_def, self._config(name, template), username=USER_NAME
                )
                step.expect(f"success of {name}", (result.success, result.msg), (True, None))
                assert node is not None
                launched.append(node)
            step.expect("states", [node.state for node in launched], [NodeState.STARTING] * 3)
            step.expect("instances in EC2", self._instance_count(), 3)
            step.expect("registry", self._manager.get_node_list(self._region), [])
            step.say("The nodes enter the registry with the next refresh; as launched they are:")
            step.show_nodes(launched)

    def _refresh(
        self, name: str, healthy_state: NodeState, silent_state: NodeState = NodeState.TERMINATED
    ) -> None:
        with self._report.step(name) as step:
            result = self._manager.refresh_node_list(self._region, self._auth, USER_NAME)
            step.expect("success", result.success, True)
            if result.traceback_text:
                step.fail(f"{result.msg}: {result.traceback_text.strip()}")
            step.expect(
                "name, state and readiness",
                [(node.name, node.state, node.ready) for node in self._manager.get_node_list(self._region)],
                [
                    (SILENT, silent_state, False),
                    (HEALTHY, healthy_state, healthy_state is NodeState.RUNNING),
                    (UNREACHABLE, NodeState.RUNNING, False),
                ],
            )
            self._show_registry(step)

    def _next_in_line(self) -> CloudNode:
        with self._report.step("The ready node next in line") as step:
            node = self._manager.get_ready_node_next_in_line(self._region)
            assert node is not None, "no node is ready"
            step.expect("name", node.name, HEALTHY)
            step.say(f"{node.name} ({node.instance_id}): its worker answered the ping")
        return node

    def _give_up(self) -> None:
        # Every further refresh would wait for this worker until its time limit.
        silent = self._node(SILENT)
        self._change(
            "Terminate the node whose worker never answers",
            lambda: self._manager.terminate_node(self._region, self._auth, silent.instance_id),
            NodeState.SHUTTING_DOWN,
            SILENT,
        )

    def _node(self, name: str) -> CloudNode:
        return next(node for node in self._manager.get_node_list(self._region) if node.name == name)

    def _change(
        self, name: str, call: Callable[[], object], state: NodeState, node_name: str = HEALTHY
    ) -> None:
        with self._report.step(name) as step:
            call()
            node = self._node(node_name)
            step.expect("recorded state and readiness", (node.state, node.ready), (state, False))
            self._show_registry(step)

    def _refused_launch(self, type_def: CloudInstanceTypeDef, template: InstanceTemplate) -> None:
        with self._report.step("A launch that EC2 refuses: an image that does not exist") as step:
            unknown = dataclasses.replace(template, instance_template_id=UNKNOWN_IMAGE_ID)
            node, result = self._manager.launch_node(
                self._region, self._auth, type_def, self._config("refused-node", unknown), username=USER_NAME
            )
            step.say(f"EC2 says: {result.msg}")
            step.expect("node", node, None)
            step.expect("error", result.error, True)
            step.expect("EC2's message names the image", UNKNOWN_IMAGE_ID in str(result.msg), True)
            step.expect("instances in EC2", self._instance_count(), 3)
            self._show_registry(step)

    def _security_group(self) -> None:
        with self._report.step("The security group, read back by the demo's own EC2 client") as step:
            group_id, rules = self._endpoint.security_group(SECURITY_GROUP_NAME)
            step.say(f"{SECURITY_GROUP_NAME} ({group_id})")
            step.expect(
                "rules",
                sorted((rule["ports"], rule["protocol"], rule["description"]) for rule in rules),
                sorted(
                    (ports_text(rule.from_port, rule.to_port), rule.ip_protocol, rule.description)
                    for rule in SecurityGroupRules.inbound_list
                ),
            )
            step.show_table("inbound rules", rules)

    def _config(self, name: str, template: InstanceTemplate) -> CloudInstanceConfig:
        return CloudInstanceConfig(
            disk_size=20, launch_instance_settings={"idle_minutes": 30}, instance_template=template, name=name
        )

    def _instance_count(self) -> int:
        reservations = self._endpoint.client().describe_instances()["Reservations"]
        return sum(len(reservation["Instances"]) for reservation in reservations)

    def _show_registry(self, step: Step) -> None:
        step.show_nodes(self._manager.get_node_list(self._region))


def run_ec2_demo(json_lines: bool, manager: CloudManager = cloud_manager_glbl) -> int:
    """Run the tour on its own endpoint and workers; returns 0, or 1 if a step went wrong."""
    report = Report(json_lines)
    region = CloudRegion(name=REGION_NAME, cloud="AWS")
    auth = AWSCloudAuth(aws_access_key_id=ACCESS_KEY_ID, aws_secret_access_key=SECRET_ACCESS_KEY)
    with ExitStack() as stack:
        # Without it each of the many clients reads the SDK's description of EC2 again, a third of a second.
        stack.enter_context(service_descriptions_shared())
        endpoint = stack.enter_context(Ec2Endpoint())
        healthy = stack.enter_context(ReferenceWorker())
        silent = stack.enter_context(ReferenceWorker(answer=False))
        unreachable = stack.enter_context(refusing_port())
        settings = {
            # An emulated node's name resolves nowhere, or to a stranger's machine.
            "worker_addresses": {
                HEALTHY: f"{HOST}:{healthy.port}",
                SILENT: f"{HOST}:{silent.port}",
                UNREACHABLE: f"{HOST}:{unreachable}",
            },
        }
        credentials = CloudConf(cloud_auth=auth, user_name=USER_NAME)
        stack.enter_context(surroundings(endpoint.url, region, credentials, settings))
        endpoint.prepare_account(IMAGE_NAMES)
        report.open(
            "Tovarin cloud nodes on an emulated EC2",
            {
                "endpoint": endpoint.url,
                "region": region.name,
                "user": USER_NAME,
                "healthy worker": f"{HOST}:{healthy.port}",
                "silent worker": f"{HOST}:{silent.port}",
            },
        )
        with suppress(DemoStopped):
            Ec2Tour(manager, endpoint, region, auth, report).run()
        return report.close()
