"""A real kube-apiserver with its etcd, on loopback ports, in a folder that holds nothing else."""

from __future__ import annotations

import os
import signal
import ssl
import subprocess
import time
import urllib.error
import urllib.request
from pathlib import Path

from stage.certificates import make_key
from stage.kube_api import ADMIN_TOKEN, MANAGER_TOKEN, POWERLESS_TOKEN
from stage.kube_server import KubeServer
from stage.patience import SETUP_SECONDS
from stage.ports import free_port


class KubeReal(KubeServer):
    """Context manager: the API server alone, without scheduler, controllers and kubelet.

    So nothing collects what is left behind, pods are in the state that a test gives them, and quotas count
    what the test says. Only processes that were started here are ended, by their ids.

    :param program: path of kube-apiserver; etcd lies beside it
    :param folder: an empty folder for data, logs and certificates
    """

    def __init__(self, program: Path, folder: Path) -> None:
        super().__init__(folder, free_port())
        self._program = program
        self._folder = folder
        make_key(folder / "accounts.key")
        users = (
            f'{ADMIN_TOKEN},admin,1,"system:masters"',
            f"{MANAGER_TOKEN},manager,2",
            f"{POWERLESS_TOKEN},powerless,3",
        )
        (folder / "tokens.csv").write_text("\n".join(users), encoding="utf-8")
        self._etcd_port, self._peer_port = free_port(), free_port()
        self._etcd: subprocess.Popen[bytes] | None = None
        self._server: subprocess.Popen[bytes] | None = None

    def __enter__(self) -> KubeReal:
        client, peer = (f"http://127.0.0.1:{port}" for port in (self._etcd_port, self._peer_port))
        self._etcd = self._run(
            self._program.parent / "etcd",
            f"--data-dir={self._folder / 'data'}",
            f"--listen-client-urls={client}",
            f"--advertise-client-urls={client}",
            f"--listen-peer-urls={peer}",
            f"--initial-advertise-peer-urls={peer}",
            f"--initial-cluster=default={peer}",
        )
        self.start()
        return self

    def __exit__(self, *exception: object) -> None:
        self.stop()
        if self._etcd is not None:
            self._etcd.kill()
            self._etcd.wait()

    def start(self) -> None:
        """Start the server and wait until it is ready."""
        key = self._folder / "accounts.key"
        self._server = self._run(
            self._program,
            f"--etcd-servers=http://127.0.0.1:{self._etcd_port}",
            "--bind-address=127.0.0.1",
            "--advertise-address=127.0.0.1",
            f"--secure-port={self._port}",
            f"--cert-dir={self._folder}",
            f"--tls-cert-file={self.certificate.certificate}",
            f"--tls-private-key-file={self.certificate.key}",
            f"--token-auth-file={self._folder / 'tokens.csv'}",
            "--authorization-mode=RBAC",
            # It waits for accounts that a controller makes.
            "--disable-admission-plugins=ServiceAccount",
            "--service-account-issuer=https://tests",
            f"--service-account-key-file={key}",
            f"--service-account-signing-key-file={key}",
            "--service-cluster-ip-range=10.0.0.0/24",
            "--endpoint-reconciler-type=none",
        )
        self._wait_until_ready()

    def stop(self) -> None:
        """End the server; etcd keeps what it knows."""
        if self._server is not None:
            self._server.kill()
            self._server.wait()
            self._server = None

    def pause(self) -> None:
        """Leave every request unanswered until `resume`."""
        assert self._server is not None
        self._server.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self._server.pid, os.WSTOPPED)  # its threads may go on for a moment

    def resume(self) -> None:
        """Answer again, also what came in meanwhile."""
        assert self._server is not None
        self._server.send_signal(signal.SIGCONT)

    def _run(self, program: Path, *arguments: str) -> subprocess.Popen[bytes]:
        with open(self._folder / f"{program.name}.log", "ab") as log:
            return subprocess.Popen([program, *arguments], stdout=log, stderr=log, cwd=self._folder)

    def _wait_until_ready(self) -> None:
        assert self._server is not None
        tls = ssl.create_default_context(cafile=str(self.authority))
        request = urllib.request.Request(
            f"{self.url}/readyz", headers={"Authorization": f"Bearer {ADMIN_TOKEN}"}
        )
        end = time.monotonic() + SETUP_SECONDS
        while True:
            try:
                with urllib.request.urlopen(request, timeout=5, context=tls):
                    return
            except urllib.error.HTTPError as error:
                error.close()
            except OSError:
                pass
            if self._server.poll() is not None or time.monotonic() > end:
                log = (self._folder / f"{self._program.name}.log").read_text(errors="replace")
                raise RuntimeError(f"kube-apiserver did not become ready; the end of its log:\n{log[-2000:]}")
            time.sleep(0.1)
