"""The docker package's client with bounded answers. Importing this needs the package."""

from __future__ import annotations

import re
from io import BytesIO
from typing import Any

import docker
import requests

from tovarincore._container_helper.limit import TimeLimit
from tovarincore._transport.inflating import read_body
from tovarincore._transport.telling import told

# A few thousand images; a list of empty lists of this size takes about a hundred megabytes.
MOST_ANSWER_BYTES = 4 << 20
_CHUNK_BYTES = 1 << 16
_VERSION = re.compile(r"\d{1,3}\.\d{1,3}")


class BoundedClient(docker.APIClient):
    """Reads each answer whole, into a bounded amount of memory and time, before the package sees it."""

    def __init__(self, limit: TimeLimit, **settings: Any) -> None:
        # Making a client sends a request.
        self._limit = limit
        self._address = settings["base_url"]
        self._credentials = "a TLS certificate" if settings.get("tls") else "no credentials"
        super().__init__(**settings)

    def _retrieve_server_version(self) -> str:
        """The interface's version. The package's own way costs a second of processor time on Podman."""
        ping = self.get(f"{self.base_url}/_ping", timeout=self._limit.remaining())
        version = ping.headers.get("Api-Version", "")
        if not ping.ok or not _VERSION.fullmatch(version):
            raise docker.errors.DockerException("it does not tell the version of an engine's interface")
        return version

    def send(self, request: requests.PreparedRequest, **options: Any) -> requests.Response:
        """Send a request; engines redirect nothing, and what a redirection led to would get the token."""
        request.headers["Accept-Encoding"] = "identity"
        what = f"{request.method} {request.path_url}"
        with told(what, self._address, self._credentials) as answered:
            response = super().send(request, **{**options, "stream": True, "allow_redirects": False})
            answered(response.status_code)
            self._read_whole(response)
        return response

    def _read_whole(self, response: requests.Response) -> None:
        try:
            body = read_body(
                response.raw.stream(_CHUNK_BYTES, decode_content=False),
                response.headers.get("Content-Encoding", ""),
                MOST_ANSWER_BYTES,
                self._limit,
                "remove images and containers that nobody needs, if it is an engine that answers",
            )
        finally:
            response.raw.close()
        response.headers.pop("Content-Encoding", None)
        response.raw = BytesIO(body)
