"""Docker, started by the tests for themselves."""

from __future__ import annotations

import os
import signal
import subprocess
from contextlib import ExitStack, suppress

from stage.engine import ContainerEngineServer, EngineNotRunnable

# Set aside for measurements within one network, so no machine has a route to it.
_BRIDGE_ADDRESS = "198.18.{}.1/24"


class DockerServer(ContainerEngineServer):
    """A dockerd. Outside its folder it has a bridge interface and a control group.

    It makes no firewall rule and no route. Published ports work through the engine's own proxy, on loopback.
    """

    programs = ("dockerd", "ip")

    def kill(self) -> None:
        """End the engine at once, in the middle of whatever it does."""
        super().kill()
        # The containerd that it started lives on.
        with suppress(FileNotFoundError, ProcessLookupError):
            os.kill(int((self._folder / "exec/containerd/containerd.pid").read_text()), signal.SIGKILL)

    def _prepare(self, cleanup: ExitStack) -> list[str]:
        folder, name = self._folder, self._control_group()
        self._add_bridge(name)
        cleanup.callback(_ip, "link", "delete", name)
        # Else the daemon reads the machine's file, which may contradict these arguments.
        (folder / "daemon.json").write_text("{}")
        return [
            "dockerd",
            f"--config-file={folder}/daemon.json",
            f"--data-root={folder}/data",
            f"--exec-root={folder}/exec",
            f"--pidfile={folder}/pid",
            f"--host={self.url}",
            f"--bridge={name}",
            f"--cgroup-parent=/{name}",
            "--exec-opt=native.cgroupdriver=cgroupfs",
            "--iptables=false",
            "--ip-forward=false",
            "--ip-masq=false",
            "--shutdown-timeout=1",
            "--log-level=warn",
        ]

    def _control_group(self) -> str:
        # The bridge's name as well; an interface's name has at most 15 characters.
        return "tovarin" + self._folder.name[-8:]

    def _add_bridge(self, name: str) -> None:
        _ip("link", "add", "name", name, "type", "bridge")
        try:
            taken = _ip("-oneline", "-4", "address", "show")
            free = (address for address in map(_BRIDGE_ADDRESS.format, range(256)) if address not in taken)
            _ip("address", "add", next(free), "dev", name)
            _ip("link", "set", name, "up")
        except EngineNotRunnable:
            _ip("link", "delete", name)
            raise


def _ip(*arguments: str) -> str:
    done = subprocess.run(["ip", *arguments], check=False, capture_output=True, text=True)
    if done.returncode != 0:
        raise EngineNotRunnable(f"no bridge network here: ip {' '.join(arguments)}: {done.stderr.strip()}")
    return done.stdout
