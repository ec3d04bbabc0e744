"""The local region on a real container engine: a worker's life from its image to its termination."""

from __future__ import annotations

import dataclasses
import os
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager, suppress

from demo.report import DemoStopped, Report, Step
from stage.engine import ContainerEngineServer, EngineNotRunnable
from stage.engine_docker import DockerServer
from stage.patience import SLACK_SECONDS
from stage.ports import free_port
from stage.settings import NOWHERE, environment, surroundings
from tovarincore.cloud_conf import CloudConf
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstances,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    CloudRegions,
    InstanceTemplate,
    NodeState,
)
from tovarincore.cloud_node import CloudManager, cloud_manager_glbl
from tovarincore.core_conf import core_conf_glbl
from tovarincore.testing.worker_image import import_worker_image

IMAGE = "tovarin-worker"
VERSIONS = ["1.2.0", "1.10.0", "1.9.0"]
NEWEST_FIRST = ["1.10.0", "1.9.0", "1.2.0"]
# A busy machine may take tens of seconds to start a worker.
LIMIT_SECONDS = 60.0
READY_SECONDS = 60.0
# While the engine hangs.
SHORT_LIMIT_SECONDS = 5.0


@contextmanager
def _short_limit() -> Iterator[None]:
    """Let the body wait no longer for the engine than somebody who watches would."""
    try:
        with environment({**os.environ, "TOVARIN_CONTAINER__OPERATION_SECONDS": str(SHORT_LIMIT_SECONDS)}):
            core_conf_glbl.reload()
            yield
    finally:
        core_conf_glbl.reload()


class LocalTour:
    """The steps of the tour; each one checks what it shows."""

    def __init__(
        self, manager: CloudManager, engine: ContainerEngineServer, region: CloudRegion, report: Report
    ) -> None:
        self._manager = manager
        self._engine = engine
        self._region = region
        self._report = report

    def run(self) -> None:
        """Run every step; raises DemoStopped after the first one that went wrong."""
        self._make_images()
        template, other = self._list_templates()
        self._launch(template)
        node = self._wait_until_ready("Refresh until the worker answers the ping")
        self._refused_launch(other)
        self._change("Stop the node", lambda: self._stop(node), NodeState.STOPPING)
        self._refresh("Refresh after the stop", NodeState.STOPPED)
        self._change("Start it again", lambda: self._start(node), NodeState.STARTING)
        self._wait_until_ready("Refresh until it answers")
        self._change("Reboot it", lambda: self._start(node, reboot=True), NodeState.STARTING)
        self._wait_until_ready("Refresh until it answers once more")
        self._kill_from_outside(node)
        self._hang_the_engine()
        self._terminate(node)

    def _make_images(self) -> None:
        with self._report.step("Make three versions of the worker image, pulling nothing") as step:
            with self._engine.client() as client:
                import_worker_image(client, IMAGE, VERSIONS)
            step.say("from this machine's Python, its libraries and the reference worker")

    def _list_templates(self) -> tuple[InstanceTemplate, InstanceTemplate]:
        with self._report.step("List the templates: the image's versions, newest first") as step:
            templates, result = self._manager.list_current_instance_templates(self._region)
            step.expect("success", result.success, True)
            step.expect("versions", [template.version for template in templates], NEWEST_FIRST)
            step.say(", ".join(template.name for template in templates))
        return templates[0], templates[1]

    def _launch(self, template: InstanceTemplate) -> None:
        with self._report.step(f"Launch version {template.version}") as step:
            node, result = self._manager.launch_node(self._region, None, *_launch_arguments(template))
            step.expect("success", (result.success, result.msg), (True, None))
            assert node is not None
            step.expect("state", node.state, NodeState.RUNNING)
            _show(step, [node])

    def _refused_launch(self, template: InstanceTemplate) -> None:
        with self._report.step(f"Launch version {template.version} beside it") as step:
            node, result = self._manager.launch_node(self._region, None, *_launch_arguments(template))
            step.expect("node", node, None)
            step.expect("error", result.error, True)
            step.say(f"Refused: {result.msg}")

    def _wait_until_ready(self, name: str) -> CloudNode:
        with self._report.step(name) as step:
            end = time.monotonic() + READY_SECONDS
            while True:
                self._refresh_once(step)
                nodes = self._manager.get_node_list(self._region)
                if any(node.ready for node in nodes) or time.monotonic() > end:
                    break
                time.sleep(0.1)
            step.expect(
                "state and readiness",
                [(node.state, node.ready) for node in nodes],
                [(NodeState.RUNNING, True)],
            )
            self._show_registry(step)
        return nodes[0]

    def _refresh(self, name: str, state: NodeState) -> None:
        with self._report.step(name) as step:
            self._refresh_once(step)
            self._expect_state(step, state)

    def _change(self, name: str, call: Callable[[], None], state: NodeState) -> None:
        with self._report.step(name) as step:
            call()
            self._expect_state(step, state)

    def _kill_from_outside(self, node: CloudNode) -> None:
        with self._report.step("Kill the container behind the manager's back, and refresh") as step:
            with self._engine.client() as client:
                client.kill(node.instance_id)
            self._refresh_once(step)
            self._expect_state(step, NodeState.STOPPED)

    def _hang_the_engine(self) -> None:
        with self._report.step("Refresh while the engine hangs") as step:
            before = self._manager.get_node_list(self._region)
            self._engine.hang()
            try:
                with _short_limit():
                    started = time.monotonic()
                    result = self._manager.refresh_node_list(self._region)
                    seconds = time.monotonic() - started
            finally:
                self._engine.go_on()
            step.expect("error", result.error, True)
            step.expect("ended soon after the limit", seconds < SHORT_LIMIT_SECONDS + SLACK_SECONDS, True)
            step.expect("registry", self._manager.get_node_list(self._region), before)
            last_line = (result.traceback_text or "").strip().rpartition("\n")[2]
            step.say(f"{result.msg}: {last_line.partition(': ')[2]}")
            step.say("A failed listing leaves the registry as it was:")
            self._show_registry(step)

    def _terminate(self, node: CloudNode) -> None:
        with self._report.step("Terminate the node, twice, and refresh") as step:
            for _ in range(2):
                result = self._manager.terminate_node(self._region, None, node.instance_id)
                step.expect("success", (result.success, result.msg), (True, None))
            self._refresh_once(step)
            step.expect("nodes", self._manager.get_node_list(self._region), [])
            self._show_registry(step)

    def _start(self, node: CloudNode, reboot: bool = False) -> None:
        self._manager.start_node(self._region, None, node.instance_id, reboot=reboot)

    def _stop(self, node: CloudNode) -> None:
        self._manager.stop_node(self._region, None, node.instance_id)

    def _refresh_once(self, step: Step) -> None:
        result = self._manager.refresh_node_list(self._region)
        if not result.success:
            step.fail(f"{result.msg}: {result.traceback_text}")

    def _expect_state(self, step: Step, state: NodeState) -> None:
        seen = [(node.state, node.ready) for node in self._manager.get_node_list(self._region)]
        step.expect("state and readiness", seen, [(state, False)])
        self._show_registry(step)

    def _show_registry(self, step: Step) -> None:
        _show(step, self._manager.get_node_list(self._region))


def run_local_demo(json_lines: bool, manager: CloudManager = cloud_manager_glbl) -> int:
    """Run the tour on its own container engine; returns 0, or 1 if a step went wrong.

    The engine is a real one that only root can start; where none can run, the first step says why.
    """
    report = Report(json_lines)
    region = CloudRegions.get_local_container_region()
    assert region is not None
    report.open("Tovarin cloud nodes in local containers", {"region": region.name, "image": IMAGE})
    with ExitStack() as stack, suppress(DemoStopped):
        with report.step("Start a container engine of the demo's own") as step:
            try:
                engine = stack.enter_context(DockerServer())
            except EngineNotRunnable as reason:
                step.fail(str(reason))
            else:
                step.say(engine.url)
        settings = {
            "container": {
                "engine_url": engine.url,
                "image": IMAGE,
                "published_port": free_port(),
                "memory_mib": 256,
                "operation_seconds": LIMIT_SECONDS,
            }
        }
        credentials = CloudConf(cloud_auth=None, user_name="", worker_token="token-of-the-demo")
        stack.enter_context(surroundings(NOWHERE, region, credentials, settings))
        LocalTour(manager, engine, region, report).run()
    return report.close()


def _launch_arguments(template: InstanceTemplate) -> tuple[CloudInstanceTypeDef, CloudInstanceConfig]:
    config = CloudInstanceConfig(disk_size=1, launch_instance_settings={}, instance_template=template)
    return CloudInstances.get_default_local_instance_type(), config


def _show(step: Step, nodes: list[CloudNode]) -> None:
    """Show nodes with as much of the container's id as engines print."""
    step.show_nodes([dataclasses.replace(node, instance_id=node.instance_id[:12]) for node in nodes])
