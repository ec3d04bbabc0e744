"""The names under which engines list an image: Docker as it was given, Podman with its registry in front."""

from __future__ import annotations

from collections.abc import Iterable

from tovarincore._transport.gate import RefusedName, check_version

_DOCKER_HUB = "docker.io/"
_PODMAN_BUILDS = "localhost/"


def spellings(repository: str) -> list[str]:
    """The names that mean this repository, the given one first.

    A name without a registry is Docker Hub's, where "worker" is short for "library/worker"; Podman also
    puts what was built on this machine under "localhost".
    """
    host, slash, rest = repository.partition("/")
    if slash and ("." in host or ":" in host or host == "localhost"):
        short = rest.removeprefix("library/") if f"{host}/" == _DOCKER_HUB else None
        return [repository, *([short] if short else [])]
    library = "" if slash else "library/"
    return [repository, f"{_DOCKER_HUB}{library}{repository}", f"{_PODMAN_BUILDS}{repository}"]


def tags_of(repository: str, references: Iterable[str]) -> list[str]:
    """The tags that a repository has among image names such as "docker.io/library/worker:1.0", each once."""
    names = set(spellings(repository))
    found = (reference.rpartition(":") for reference in references)
    return sorted({tag for name, _, tag in found if name in names and _is_version(tag)})


def _is_version(tag: str) -> bool:
    try:
        check_version(tag)
    except RefusedName:
        return False
    return True
