"""Turns what the docker package and its transport raise into errors that say what to do."""

from __future__ import annotations

import re
from collections.abc import Iterator
from contextlib import contextmanager
from http import HTTPStatus
from typing import TYPE_CHECKING

from tovarincore._container_helper.errors import ContainerError, unreadable_answer
from tovarincore._container_helper.limit import TimeLimit
from tovarincore._transport.failure import Failure
from tovarincore._transport.masker import mask_start
from tovarincore.core_def import OPResultErrorCode

if TYPE_CHECKING:
    import docker

_PORT_IN_USE = re.compile(
    r"127\.0\.0\.1:(?P<number>\d+)\b.*(?:port is already allocated|address already in use)", re.DOTALL
)
_NAME_IN_USE = re.compile(r"\bname\b.*\bis already in use\b", re.DOTALL)
# Podman says this with status 500 as well.
_NO_CONTAINER = "no such container"
_BUSY: dict[int, OPResultErrorCode] = {
    HTTPStatus.TOO_MANY_REQUESTS: OPResultErrorCode.THROTTLED,
    HTTPStatus.SERVICE_UNAVAILABLE: OPResultErrorCode.UNAVAILABLE,
}
# An engine's own words, of which the first say the most.
_SHOWN_CHARACTERS = 500


@contextmanager
def explained(limit: TimeLimit, address: str) -> Iterator[None]:
    """Turn what the package and its transport raise into a ContainerError.

    Nothing of theirs is chained to it: a traceback would show their texts as they are.
    """
    import docker

    try:
        yield
    except ContainerError:
        raise
    except Failure as error:
        raise unreadable_answer(str(error)) from None
    except docker.errors.APIError as error:
        raise _refusal(error) from None
    except (docker.errors.DockerException, OSError) as error:
        raise _no_answer(error, limit, address) from None


def is_name_conflict(error: docker.errors.APIError) -> bool:
    """Whether a creation failed because the name is taken; older Podman has no status for that."""
    return error.status_code == HTTPStatus.CONFLICT or _NAME_IN_USE.search(_words(error)) is not None


def missing_image(image: str) -> ContainerError:
    """The error for an image that the engine does not have."""
    return ContainerError(
        f"Image {image} is not on the container engine: build it (docker build or podman build -t {image} -f "
        "containers/worker/Dockerfile tovarincore), pull it, or choose a version that "
        "list_instance_templates returns.",
        OPResultErrorCode.NOT_FOUND,
    )


def _refusal(error: docker.errors.APIError) -> ContainerError:
    text = _words(error)
    port = _PORT_IN_USE.search(text)
    if port is not None:
        return ContainerError(
            f"Port {port['number']} of 127.0.0.1 is in use by another program or container: stop that, or "
            "set another published_port in [container], terminate and launch again.",
            OPResultErrorCode.RESOURCE_EXHAUSTED,
        )
    if error.status_code == HTTPStatus.NOT_FOUND or _NO_CONTAINER in text.lower():
        return ContainerError(
            f"The container engine no longer has what was asked for: {text}. Refresh and try again.",
            OPResultErrorCode.NOT_FOUND,
        )
    if error.status_code in _BUSY:
        return ContainerError(
            f"The container engine is busy or starting: {text}. Try again in a moment.",
            _BUSY[error.status_code],
        )
    return ContainerError(
        f"The container engine refused the request: {text}. If it names a value, change that in [container]."
    )


def _words(error: docker.errors.APIError) -> str:
    return mask_start(error.explanation or error, _SHOWN_CHARACTERS).strip()


def _no_answer(error: Exception, limit: TimeLimit, address: str) -> ContainerError:
    import requests

    cause: BaseException = error
    while not isinstance(cause, (OSError, Failure)) and cause.__cause__ is not None:
        cause = cause.__cause__
    if isinstance(cause, ContainerError):
        return cause
    if isinstance(cause, (TimeoutError, requests.Timeout)):
        return limit.expired()
    if isinstance(cause, FileNotFoundError):
        advice = (
            "install and start one (on Debian: apt-get install docker.io, or podman), or set engine_url in "
            "[container] to where it listens (podman: systemctl --user start podman.socket)"
        )
    elif isinstance(cause, PermissionError):
        advice = "this user may not open it: add the user to the engine's group (docker) and log in again"
    elif isinstance(cause, ConnectionRefusedError):
        advice = "it does not run, start it (for example: systemctl start docker)"
    else:
        words = mask_start(cause, _SHOWN_CHARACTERS)
        advice = f"see that it runs and that engine_url in [container] is right ({words})"
    return ContainerError(
        f"No container engine answers at {address}: {advice}.", OPResultErrorCode.ENGINE_UNAVAILABLE
    )
