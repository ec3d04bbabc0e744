"""The time limit of one container operation."""

from __future__ import annotations

from tovarincore._container_helper.errors import ContainerError
from tovarincore._transport.deadline import Deadline
from tovarincore.core_def import OPResultErrorCode


class TimeLimit(Deadline):
    """The moment at which the operation described by `doing` ends at the latest, `seconds` from now."""

    def __init__(self, seconds: float, doing: str) -> None:
        super().__init__(seconds, doing)

    def expired(self) -> ContainerError:
        """The error that tells the caller that the time is up."""
        return ContainerError(
            f"The container engine did not answer within {self.seconds:g} s while {self.doing}. Check it "
            "with `docker info` or `podman info` and restart it if that hangs as well; then refresh, since "
            "only the engine knows how far the request got. If it is merely slow, raise operation_seconds in "
            "[container].",
            OPResultErrorCode.TIMEOUT,
        )
