"""A container engine of the tests' own, started by root: dockerd with its own data, socket and bridge."""

from __future__ import annotations

import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from contextlib import ExitStack, suppress
from pathlib import Path
from types import TracebackType

import docker

_START_SECONDS = 30.0
_STOP_SECONDS = 30.0
# Set aside for measurements within one network, so no machine has a route to it.
_BRIDGE_ADDRESS = "198.18.{}.1/24"


class EngineNotRunnable(Exception):
    """No engine can be started on this machine; the text says why."""


class ContainerEngineServer:
    """Context manager that runs dockerd until its end, leaving no process, mount, group or file behind.

    It changes nothing outside its temporary folder but a bridge interface and a control group of its own:
    no firewall rule, no routing. Published ports work through the engine's own proxy, on loopback.
    """

    def __init__(self) -> None:
        self._cleanup = ExitStack()
        self.url = ""

    def __enter__(self) -> ContainerEngineServer:
        """Start; raises EngineNotRunnable with the reason when that is not possible here."""
        _check_machine()
        with ExitStack() as cleanup:
            self._folder = Path(tempfile.mkdtemp(prefix="tovarin-engine-"))
            # Of the bridge and the control group; an interface's name has at most 15 characters.
            self._name = "tovarin" + self._folder.name[-8:]
            cleanup.callback(shutil.rmtree, self._folder, ignore_errors=True)
            cleanup.callback(self._remove_control_groups)
            cleanup.callback(self._unmount)
            self._add_bridge()
            cleanup.callback(_ip, "link", "delete", self._name)
            self.url = f"unix://{self._folder}/engine.sock"
            self._start_process()
            cleanup.callback(self._stop_process)
            self._wait_until_it_answers()
            self._cleanup = cleanup.pop_all()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.go_on()
        if self._process.poll() is None:
            with self.client() as client:
                for container in client.containers(all=True):
                    client.remove_container(container["Id"], force=True, v=True)
        self._cleanup.close()

    def client(self, seconds: int = 30) -> docker.APIClient:
        """A client of this engine that does not pass through the code under test; a context manager."""
        return docker.APIClient(base_url=self.url, timeout=seconds)

    def hang(self) -> None:
        """Stop the engine in the middle of whatever it does: it keeps its socket and answers nothing."""
        self._process.send_signal(signal.SIGSTOP)

    def go_on(self) -> None:
        """Let the engine go on after `hang`."""
        self._process.send_signal(signal.SIGCONT)

    def kill(self) -> None:
        """End the engine at once, in the middle of whatever it does."""
        self._process.kill()
        self._process.wait()
        # The containerd that it started lives on.
        with suppress(FileNotFoundError, ProcessLookupError):
            os.kill(int((self._folder / "exec/containerd/containerd.pid").read_text()), signal.SIGKILL)

    def _start_process(self) -> None:
        folder = self._folder
        # Else the daemon reads the machine's file, which may contradict these arguments.
        (folder / "daemon.json").write_text("{}")
        with (folder / "log").open("wb") as log:
            self._process = subprocess.Popen(
                [
                    "dockerd",
                    f"--config-file={folder}/daemon.json",
                    f"--data-root={folder}/data",
                    f"--exec-root={folder}/exec",
                    f"--pidfile={folder}/pid",
                    f"--host={self.url}",
                    f"--bridge={self._name}",
                    f"--cgroup-parent=/{self._name}",
                    "--exec-opt=native.cgroupdriver=cgroupfs",
                    "--iptables=false",
                    "--ip-forward=false",
                    "--ip-masq=false",
                    "--shutdown-timeout=1",
                    "--log-level=warn",
                ],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,
                # What the tests may run under, such as a sanitizer, is not for the engine's programs.
                env={name: value for name, value in os.environ.items() if name != "LD_PRELOAD"},
            )

    def _wait_until_it_answers(self) -> None:
        end = time.monotonic() + _START_SECONDS
        while time.monotonic() < end and self._process.poll() is None:
            # Not by a client: the package leaves its socket open when it cannot connect.
            with suppress(OSError), socket.socket(socket.AF_UNIX) as probe:
                probe.connect(self.url.removeprefix("unix://"))
                return
            time.sleep(0.05)
        last_lines = (self._folder / "log").read_text(errors="replace").splitlines()[-3:]
        raise EngineNotRunnable("dockerd does not start on this machine: " + " | ".join(last_lines))

    def _stop_process(self) -> None:
        self.go_on()
        self._process.terminate()
        try:
            self._process.wait(_STOP_SECONDS)
        except subprocess.TimeoutExpired:
            self.kill()

    def _add_bridge(self) -> None:
        _ip("link", "add", "name", self._name, "type", "bridge")
        try:
            taken = _ip("-oneline", "-4", "address", "show")
            free = (address for address in map(_BRIDGE_ADDRESS.format, range(256)) if address not in taken)
            _ip("address", "add", next(free), "dev", self._name)
            _ip("link", "set", self._name, "up")
        except EngineNotRunnable:
            _ip("link", "delete", self._name)
            raise

    def _unmount(self) -> None:
        mounted = [line.split()[1] for line in Path("/proc/self/mounts").read_text().splitlines()]
        for place in reversed([place for place in mounted if place.startswith(f"{self._folder}/")]):
            subprocess.run(["umount", "--lazy", place], check=False, capture_output=True)

    def _remove_control_groups(self) -> None:
        for top in [Path("/sys/fs/cgroup"), *Path("/sys/fs/cgroup").glob("*/")]:
            group = top / self._name
            for inner in [*sorted(group.glob("**/"), reverse=True), group]:
                with suppress(OSError):
                    inner.rmdir()


def _check_machine() -> None:
    if os.geteuid() != 0:
        raise EngineNotRunnable("starting a container engine needs root")
    for program in ("dockerd", "ip", "ldd"):
        if shutil.which(program) is None:
            raise EngineNotRunnable(
                f"{program} is not installed; scripts/install_container_engine installs it"
            )


def _ip(*arguments: str) -> str:
    done = subprocess.run(["ip", *arguments], check=False, capture_output=True, text=True)
    if done.returncode != 0:
        raise EngineNotRunnable(f"no bridge network here: ip {' '.join(arguments)}: {done.stderr.strip()}")
    return done.stdout
