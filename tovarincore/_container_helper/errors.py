"""The one exception that container operations raise; its text says what was wrong and what to do."""

from __future__ import annotations

from tovarincore._transport.failure import Failure
from tovarincore.core_def import OPResultErrorCode


class ContainerError(Failure):
    """A container operation that failed. The text holds no secret and says what to do.

    Attribute `error_code` is the OPResultErrorCode to report, or None when none fits.
    """


class ContainerNameTakenError(ContainerError):
    """The engine holds a container of the wanted name already, whether it lists that one yet or not."""


def name_taken(name: str) -> ContainerNameTakenError:
    """The error for a name that belongs to a container of somebody else."""
    return ContainerNameTakenError(
        f'A container named "{name}" that was not made here is on the engine: rename or remove it, or set '
        "another name in [container]."
    )


def unreadable_answer(what: str) -> ContainerError:
    """The error for an answer that no engine gives; `what` says which part of it cannot be read."""
    return ContainerError(
        f"The container engine gave an answer that cannot be read: {what}. See whether engine_url in "
        "[container] leads to a container engine, and whether another client (docker, podman) can use it.",
        OPResultErrorCode.PROTOCOL_ERROR,
    )
