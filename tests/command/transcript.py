"""Runs the commands in docs/command.md and puts what they write into it.

`python -m tests.command.transcript` rewrites the file. Every block of commands is run, in the order of the
file, on an emulated EC2, an API server and, where one can be started, its own container engine. What
differs from run to run (ids, times, ports, load) is replaced by made-up values.
"""

from __future__ import annotations

import os
import re
import shlex
import signal
import sys
import tempfile
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from functools import partial
from pathlib import Path
from types import SimpleNamespace
from typing import Any

import click.testing
import pytest
import tomli_w
from lightkube.models.meta_v1 import ObjectMeta
from lightkube.resources.core_v1 import Namespace

from stage.ec2_endpoint import (
    ACCESS_KEY_ID,
    INSTANCE_PROFILE_NAME,
    KEY_PAIR_NAME,
    SECRET_ACCESS_KEY,
    Ec2Endpoint,
)
from stage.engine import ContainerEngineServer, EngineNotRunnable
from stage.engine_docker import DockerServer
from stage.fault import FaultEndpoint, unauthorized
from stage.kube_api import KubeApi
from stage.kube_world import KubeWorld
from stage.ports import free_port, refusing_port
from stage.settings import environment
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.app import cli
from tovarincore.command.nodes import readiness
from tovarincore.core_conf import core_conf_glbl
from tovarincore.testing.reference_worker import ReferenceWorker
from tovarincore.testing.worker_image import import_worker_image

DOCUMENT = Path(__file__).parents[2] / "docs" / "command.md"

_BLOCK = re.compile(
    r"(?P<before>(?:<!-- before: (?P<step>\w+) -->\n\n)?```console\n)(?P<body>.*?)(?=```)", re.DOTALL
)
_ANSWERS = {
    "tovarin-nodes terminate us-east-1 trainer-2": "y\n",
    "tovarin-nodes configure local --worker-token": "a-token-for-the-local-worker\n",
}
_USER = "ada"
_IMAGES = ["TOVARIN_AI_CPU_PLAN_A_1.4.0", "TOVARIN_AI_GPU_PLAN_A_1.4.0"]


class Stage:
    """What the commands of the document work on, and what happens between them."""

    def __init__(self, folder: Path, cleanup: ExitStack, engine_wanted: bool) -> None:
        self._engine_wanted = engine_wanted
        self.folder = folder
        self._cleanup = cleanup
        self.endpoint = cleanup.enter_context(Ec2Endpoint())
        worker = cleanup.enter_context(ReferenceWorker())
        closed = cleanup.enter_context(refusing_port())
        self.worker, self.closed = f"127.0.0.1:{worker.port}", f"127.0.0.1:{closed}"
        self._settings: dict[str, Any] = {
            # Whatever engine this machine has is not looked at.
            "container": {"engine_url": f"tcp://{self.closed}"},
            "worker_addresses": {"trainer-1": self.worker, "*": self.closed, "127.0.0.1": self.worker},
        }
        self._patched = cleanup.enter_context(pytest.MonkeyPatch.context())
        self.engine: ContainerEngineServer | None = None

    def prepare(self) -> None:
        """Make the account, and a profile of the SDK that can use it."""
        self.endpoint.prepare_account(_IMAGES)
        (self.folder / "credentials").write_text(
            f"[work]\naws_access_key_id = {ACCESS_KEY_ID}\naws_secret_access_key = {SECRET_ACCESS_KEY}\n"
        )
        self._write_settings()

    def run_step(self, name: str) -> bool:
        """Let something happen; says whether the block that follows can be run."""
        step: Callable[[], bool | None] = getattr(self, name)
        return step() is not False

    def a_stranger(self) -> None:
        """Somebody else's program launches a node under the user's name."""
        tags = {"tovarin_uuid": "11111111-2222-4333-8444-555555555555", "Name": "left-over"}
        tags["tovarin_username"] = _USER
        ec2 = self.endpoint.client()
        ec2.run_instances(
            ImageId=ec2.describe_images(Owners=["self"])["Images"][0]["ImageId"],
            InstanceType="t3.small",
            KeyName=KEY_PAIR_NAME,
            IamInstanceProfile={"Name": INSTANCE_PROFILE_NAME},
            MinCount=1,
            MaxCount=1,
            TagSpecifications=[
                {
                    "ResourceType": "instance",
                    "Tags": [{"Key": key, "Value": value} for key, value in tags.items()],
                }
            ],
        )

    def ctrl_c(self) -> None:
        """Ctrl-C is pressed while the next command waits."""
        clock = SimpleNamespace(
            sleep=lambda seconds: signal.raise_signal(signal.SIGINT), monotonic=time.monotonic
        )
        self._patched.setattr(readiness, "time", clock)

    def no_network(self) -> None:
        """Nothing answers where EC2 should be."""
        os.environ["AWS_ENDPOINT_URL_EC2"] = f"http://{self.closed}"

    def no_rights(self) -> None:
        """EC2 refuses to describe instances."""
        faults = self._cleanup.enter_context(FaultEndpoint(self.endpoint.url))
        faults.script("DescribeInstances", unauthorized())
        os.environ["AWS_ENDPOINT_URL_EC2"] = faults.url

    def kubernetes(self) -> None:
        """A cluster with a namespace for nodes is there, as the region lab."""
        folder = self.folder / "kube"
        folder.mkdir()
        world = KubeWorld(self._cleanup.enter_context(KubeApi(folder)), folder)
        self._cleanup.enter_context(world.admin)
        world.admin.create(Namespace(metadata=ObjectMeta(name=world.namespace)))
        region = {"cloud": "k8s", "name": "lab", "namespace": world.namespace}
        path = self.folder / "regions.toml"
        path.write_text(tomli_w.dumps({"region": [{**region, "kubeconfig": str(world.kubeconfig)}]}))
        self._settings["cloud"] = {"regions_file": str(path)}
        self._write_settings()

    def container_engine(self) -> bool:
        """A container engine with two versions of the worker is there, where one can be started."""
        if not self._engine_wanted:
            return False
        try:
            self.engine = self._cleanup.enter_context(DockerServer())
        except EngineNotRunnable as reason:
            print(f"left as they are: the blocks that need a container engine ({reason})", file=sys.stderr)
            return False
        with self.engine.client() as client:
            import_worker_image(client, "tovarin-worker", ["1.4.0", "1.3.2"])
        port = free_port()
        self._settings["container"] = {
            "engine_url": self.engine.url,
            "published_port": port,
            "memory_mib": 256,
        }
        self._settings["worker_addresses"]["tovarin-worker"] = f"127.0.0.1:{port}"
        self._write_settings()
        return True

    def with_engine(self) -> bool:
        """The block needs the engine."""
        return self.engine is not None

    def _write_settings(self) -> None:
        (self.folder / "core.toml").write_text(tomli_w.dumps(self._settings))
        core_conf_glbl.reload()

    def run(self, command: str) -> tuple[str, int]:
        """What a command writes on a terminal, and its exit code."""
        arguments = shlex.split(command)[1:]
        result = click.testing.CliRunner().invoke(cli, arguments, input=_ANSWERS.get(command, ""))
        self._patched.undo()
        return result.output, int(result.exit_code)


class _Disguise:
    """Replaces what differs from run to run, the same value always by the same."""

    def __init__(self, stage: Stage) -> None:
        self._stage = stage
        self._seen: dict[str, str] = {}

    def __call__(self, text: str) -> str:
        for endpoint in (self._stage.endpoint.url, self._stage.closed):
            text = text.replace(endpoint, endpoint.rpartition(":")[0] + ":5000")
        text = text.replace(str(self._stage.folder), "~/.config/tovarin")
        for pattern, form in _FORMS:
            text = re.sub(pattern, partial(self._name, form), text)
        for pattern, replacement in _FIXED:
            text = re.sub(pattern, replacement, text)
        return text

    def _name(self, form: str, match: re.Match[str]) -> str:
        found = match[0]
        if found not in self._seen:
            number = 1 + sum(name.startswith(form[:3]) for name in self._seen.values())
            self._seen[found] = form.format(number)
        return self._seen[found]


_FORMS = [
    (r"\b[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\b", "0a1b2c3d-0000-4000-8000-{:012d}"),
    (r"\bi-[0-9a-f]{17}\b", "i-0{:016d}"),
    (r"\bami-[0-9a-f]{17}\b", "ami-0{:016d}"),
    (r"\bsg-[0-9a-f]{17}\b", "sg-0{:016d}"),
    (r"\bvpc-[0-9a-f]{17}\b", "vpc-0{:016d}"),
    (r"\b[0-9a-f]{64}\b", "c0ffee{:058d}"),
    (r"\bec2-[0-9-]+(?=\.compute-1\.amazonaws\.com)", "ec2-198-51-100-{}"),
    (r"\bip-[0-9-]+(?=\.ec2\.internal)", "ip-10-0-0-{}"),
    (r"\btest-[0-9a-f]{8}\b", "workers"),
]
_FIXED = [
    (r"\b20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\+00:00", "2026-01-05T09:00:00+00:00"),
    (r"\b20\d\d-\d\d-\d\d\b(?!T)", "2026-01-05"),
    (r" at \d\d:\d\d:\d\d", " at 09:00:00"),
    (r"port \d{5}\b", "port 8855"),
    (r"(?m)^ +\d+ s  ", "    0 s  "),
    (r"\d+ of \d+ MiB", "1843 of 15871 MiB"),
    (r"(?m)^(Processor load +)[\d.]+ %", r"\g<1>7.5 %"),
    (r'("cpu_percent": )[\d.]+', r"\g<1>7.5"),
    (r'("memory_used_bytes": )\d+', r"\g<1>1932735283"),
    (r'("memory_total_bytes": )\d+', r"\g<1>16642998272"),
    (r"\b\d+ min\b", "3 min"),
]


@contextmanager
def stage(engine_wanted: bool) -> Iterator[Stage]:
    """A stage with nothing configured yet, and the user's own settings out of reach."""
    with ExitStack() as cleanup:
        folder = Path(cleanup.enter_context(tempfile.TemporaryDirectory(prefix="tovarin-transcript-")))
        opened = Stage(folder, cleanup, engine_wanted)
        variables = {
            "AWS_ENDPOINT_URL_EC2": opened.endpoint.url,
            "AWS_CONFIG_FILE": str(folder / "config"),
            "AWS_SHARED_CREDENTIALS_FILE": str(folder / "credentials"),
            "AWS_EC2_METADATA_DISABLED": "true",
            "TOVARIN_CONF": str(folder / "core.toml"),
            "TOVARIN_CLOUD_CONF": str(folder / "cloud.toml"),
        }
        cleanup.enter_context(environment(variables))
        for name in ("HTTPS_PROXY", "HTTP_PROXY", "ALL_PROXY", "NO_PROXY", "REQUESTS_CA_BUNDLE"):
            os.environ.pop(name, None)
            os.environ.pop(name.lower(), None)
        vars(cloud_manager_glbl)["_node_manager_hashset"].clear()
        opened.prepare()
        before = Path.cwd()
        os.chdir(folder)
        try:
            yield opened
        finally:
            os.chdir(before)
            core_conf_glbl.reload()
            vars(cloud_manager_glbl)["_node_manager_hashset"].clear()


def rewritten(text: str, engine_wanted: bool) -> str:
    """The document with what its commands write now, those on the container engine only if it is wanted."""
    with stage(engine_wanted) as opened:
        disguise = _Disguise(opened)

        def run_block(match: re.Match[str]) -> str:
            if match["step"] and not opened.run_step(match["step"]):
                return match[0]
            lines, code = [], 0
            for line in match["body"].splitlines():
                if line == "$ echo $?":
                    lines += [line, f"{code}"]
                elif line.startswith("$ "):
                    output, code = opened.run(line[2:])
                    lines += [line, *disguise(output).splitlines()]
            return match["before"] + "\n".join(lines) + "\n"

        return _BLOCK.sub(run_block, text)


if __name__ == "__main__":
    DOCUMENT.write_text(rewritten(DOCUMENT.read_text(encoding="utf-8"), engine_wanted=True), encoding="utf-8")
