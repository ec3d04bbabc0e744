"""The time limit of one container operation, kept whatever the engine or the network does."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Generic, TypeVar

from tovarincore._container_helper.errors import ContainerError
from tovarincore.core_def import OPResultErrorCode

T = TypeVar("T")


class TimeLimit:
    """The moment at which the operation described by `doing` ends at the latest, `seconds` from now."""

    def __init__(self, seconds: float, doing: str) -> None:
        self._seconds = seconds
        self._doing = doing
        self._end = time.monotonic() + seconds

    def remaining(self) -> float:
        """Seconds left, more than 0. Raises ContainerError (TIMEOUT) when there are none."""
        left = self._end - time.monotonic()
        if left <= 0:
            raise self.exceeded()
        return left

    def exceeded(self) -> ContainerError:
        """The error that tells the caller that the time is up."""
        return ContainerError(
            f"The container engine did not answer within {self._seconds:g} s while {self._doing}. Check it "
            "with `docker info` and restart it if that hangs as well; then refresh, since only the engine "
            "knows how far the request got. If it is merely slow, raise operation_seconds in [container].",
            OPResultErrorCode.TIMEOUT,
        )


class _Call(Generic[T]):
    """One function call on a thread of its own, with what it returned or raised."""

    def __init__(self, function: Callable[[], T]) -> None:
        self._function = function
        self._result: list[T] = []
        self._error: BaseException | None = None

    def run(self) -> None:
        try:
            self._result.append(self._function())
        except BaseException as error:
            self._error = error

    def outcome(self) -> T:
        if self._error is not None:
            raise self._error
        return self._result[0]


def run_within(limit: TimeLimit, function: Callable[[], T]) -> T:
    """What `function` returns or raises, or ContainerError (TIMEOUT) as soon as the limit is reached.

    A time-out on a socket bounds one read, not an answer that trickles in, a name look-up or a tunnel
    to a remote engine. So the function runs on a daemon thread that is left behind at the limit; it
    has to ask `limit.remaining()` before each request, so that it begins nothing new by then.
    """
    call = _Call(function)
    thread = threading.Thread(target=call.run, name="container-operation", daemon=True)
    thread.start()
    thread.join(limit.remaining())
    if thread.is_alive():
        raise limit.exceeded()
    return call.outcome()
