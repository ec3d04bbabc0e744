"""A container engine that the tests start for themselves, as root, with its own data and socket."""

from __future__ import annotations

import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from abc import ABC, abstractmethod
from contextlib import ExitStack, suppress
from pathlib import Path

import docker

from stage.patience import SETUP_SECONDS


class EngineNotRunnable(Exception):
    """No engine can be started on this machine; the text says why."""


class ContainerEngineServer(ABC):
    """Context manager that runs an engine until its end, leaving no process, mount, group or file behind.

    It changes nothing outside its temporary folder but what its kind says.
    """

    programs: tuple[str, ...]
    """What has to be installed; the first is the engine."""

    def __init__(self) -> None:
        self._cleanup = ExitStack()
        self.url = ""

    def __enter__(self) -> ContainerEngineServer:
        """Start; raises EngineNotRunnable with the reason when that is not possible here."""
        self._check_machine()
        with ExitStack() as cleanup:
            self._folder = Path(tempfile.mkdtemp(prefix="tovarin-engine-"))
            cleanup.callback(shutil.rmtree, self._folder, ignore_errors=True)
            cleanup.callback(self._remove_control_groups)
            cleanup.callback(self._unmount)
            self.url = f"unix://{self._folder}/engine.sock"
            command = self._prepare(cleanup)
            with (self._folder / "log").open("wb") as log:
                self._process = subprocess.Popen(
                    command,
                    stdin=subprocess.DEVNULL,
                    stdout=log,
                    stderr=log,
                    start_new_session=True,
                    env=self._environment(),
                )
            cleanup.callback(self._stop_process)
            self._wait_until_it_answers()
            self._cleanup = cleanup.pop_all()
        return self

    def __exit__(self, *exception: object) -> None:
        self.go_on()
        if self._process.poll() is None:
            with self.client() as client:
                for container in client.containers(all=True):
                    client.remove_container(container["Id"], force=True, v=True)
        self._cleanup.close()

    def client(self, seconds: int = SETUP_SECONDS) -> docker.APIClient:
        """A client of this engine that does not pass through the code under test; a context manager."""
        return docker.APIClient(base_url=self.url, timeout=seconds)

    def hang(self) -> None:
        """Stop the engine in the middle of whatever it does: it keeps its socket and answers nothing."""
        self._process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self._process.pid, os.WSTOPPED)  # its threads may go on for a moment

    def go_on(self) -> None:
        """Let the engine go on after `hang`."""
        self._process.send_signal(signal.SIGCONT)

    def kill(self) -> None:
        """End the engine at once, in the middle of whatever it does."""
        self._process.kill()
        self._process.wait()

    @abstractmethod
    def _prepare(self, cleanup: ExitStack) -> list[str]:
        """Make what the engine needs in the folder and return its command."""

    @abstractmethod
    def _control_group(self) -> str:
        """The name of the group below which containers are put."""

    def _environment(self) -> dict[str, str]:
        # What the tests may run under, such as a sanitizer, is not for the engine's programs.
        return {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}

    def _check_machine(self) -> None:
        if os.geteuid() != 0:
            raise EngineNotRunnable("starting a container engine needs root")
        for program in (*self.programs, "ldd"):
            if shutil.which(program) is None:
                raise EngineNotRunnable(
                    f"{program} is not installed; scripts/install_container_engine installs it"
                )

    def _wait_until_it_answers(self) -> None:
        end = time.monotonic() + SETUP_SECONDS
        while time.monotonic() < end and self._process.poll() is None:
            # Not by a client: the package leaves its socket open when it cannot connect.
            with suppress(OSError), socket.socket(socket.AF_UNIX) as probe:
                probe.connect(self.url.removeprefix("unix://"))
                return
            time.sleep(0.05)
        last_lines = (self._folder / "log").read_text(errors="replace").splitlines()[-3:]
        raise EngineNotRunnable(
            f"{self.programs[0]} does not start on this machine: {' | '.join(last_lines)}"
        )

    def _stop_process(self) -> None:
        self.go_on()
        self._process.terminate()
        try:
            self._process.wait(SETUP_SECONDS)
        except subprocess.TimeoutExpired:
            self.kill()

    def _unmount(self) -> None:
        mounted = [line.split()[1] for line in Path("/proc/self/mounts").read_text().splitlines()]
        for place in reversed([place for place in mounted if place.startswith(f"{self._folder}/")]):
            subprocess.run(["umount", "--lazy", place], check=False, capture_output=True)

    def _remove_control_groups(self) -> None:
        for top in [Path("/sys/fs/cgroup"), *Path("/sys/fs/cgroup").glob("*/")]:
            group = top / self._control_group()
            for inner in [*sorted(group.glob("**/"), reverse=True), group]:
                # One that somebody else uses stays.
                with suppress(OSError):
                    inner.rmdir()
