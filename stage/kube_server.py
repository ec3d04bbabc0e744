"""What the API servers on loopback have in common, whether they stand in for one or are one."""

from __future__ import annotations

from abc import ABC, abstractmethod
from pathlib import Path

from stage.certificates import make_server_certificate


class KubeServer(ABC):
    """An API server on a port that stays the same over stops and starts.

    :param folder: an empty folder for its certificate
    """

    def __init__(self, folder: Path, port: int = 0) -> None:
        self.certificate = make_server_certificate(folder)
        self._port = port

    @property
    def url(self) -> str:
        """Address of the server."""
        return f"https://127.0.0.1:{self._port}"

    @property
    def authority(self) -> Path:
        """File of the authority by which the server's certificate is verified."""
        return self.certificate.authority

    @abstractmethod
    def start(self) -> None:
        """Serve until `stop`."""

    @abstractmethod
    def stop(self) -> None:
        """Refuse connections and break those that are open."""

    def restart(self) -> None:
        """Stop and start with everything that is kept."""
        self.stop()
        self.start()
