"""Podman, started by the tests for themselves."""

from __future__ import annotations

import resource
import shutil
import subprocess
from contextlib import ExitStack

import tomli_w

from stage.engine import ContainerEngineServer
from stage.patience import SETUP_SECONDS

_MOST_FILES = 1024
_MOST_PROCESSES = 4096


class PodmanServer(ContainerEngineServer):
    """A `podman system service`. Outside its folder it has the control group that every Podman shares.

    Each container has a network in user space: no bridge, no firewall rule, no route.
    """

    programs = ("podman", "conmon", "slirp4netns")

    def _prepare(self, cleanup: ExitStack) -> list[str]:
        folder = self._folder
        (folder / "containers.conf").write_text(tomli_w.dumps(self._configuration()))
        storage = {"driver": "overlay", "graphroot": f"{folder}/data", "runroot": f"{folder}/run"}
        (folder / "storage.conf").write_text(tomli_w.dumps({"storage": storage}))
        # The service's end is not its containers'.
        cleanup.callback(self._end_containers)
        return ["podman", "--log-level=warn", "system", "service", "--time=0", self.url]

    def _configuration(self) -> dict[str, dict[str, object]]:
        limits = {
            "nofile": min(_MOST_FILES, resource.getrlimit(resource.RLIMIT_NOFILE)[1]),
            "nproc": min(_MOST_PROCESSES, resource.getrlimit(resource.RLIMIT_NPROC)[1]),
        }
        engine: dict[str, object] = {
            "cgroup_manager": "cgroupfs",
            "events_logger": "file",
            "tmp_dir": f"{self._folder}/tmp",
            # The other kind is shared by all Podmans of the machine.
            "lock_type": "file",
        }
        # Podman's first choice refuses machines with control groups of both versions.
        if shutil.which("runc"):
            engine["runtime"] = "runc"
        return {
            "containers": {
                "netns": "slirp4netns",
                "log_driver": "k8s-file",
                "default_sysctls": [],
                "default_ulimits": [f"{name}={most}:{most}" for name, most in limits.items() if most > 0],
            },
            "engine": engine,
            "network": {"network_config_dir": f"{self._folder}/net"},
        }

    def _control_group(self) -> str:
        return "libpod_parent"

    def _environment(self) -> dict[str, str]:
        return {
            **super()._environment(),
            "CONTAINERS_CONF": f"{self._folder}/containers.conf",
            "CONTAINERS_STORAGE_CONF": f"{self._folder}/storage.conf",
        }

    def _end_containers(self) -> None:
        subprocess.run(
            ["podman", "rm", "--all", "--force", "--time=0"],
            check=False,
            capture_output=True,
            timeout=SETUP_SECONDS,
            env=self._environment(),
        )
