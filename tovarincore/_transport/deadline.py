"""The one clock of an operation, however many waits it consists of."""

import threading
import time
from collections.abc import Callable
from typing import Generic, TypeVar

from tovarincore._transport.failure import Failure
from tovarincore.core_def import OPResultErrorCode

__all__ = ["Deadline", "run_within"]

T = TypeVar("T")

# So many calls that were left behind may still run before no other is begun.
_MOST_LEFT_BEHIND = 64


class Deadline:
    """The latest moment, by the monotonic clock, at which an operation may end.

    A client that words a time-out differently overrides :meth:`expired`.

    :param seconds: time from now
    :param doing: what the operation begins with, for the error's text: ``"listing the nodes"``
    :param advice: where to look when that takes too long
    :param reserve: seconds that only :meth:`release_reserve` makes usable: the time to tidy up after a
        failure, which may itself be that the time is up
    """

    def __init__(
        self,
        seconds: float,
        doing: str = "preparing the request",
        advice: str = "see whether this machine is overloaded",
        *,
        reserve: float = 0.0,
    ) -> None:
        self.seconds = seconds
        self.doing = doing
        self.advice = advice
        self.reserve = reserve
        self._end = time.monotonic() + seconds

    def enter(self, doing: str, advice: str) -> None:
        """Note what the operation does from now on, and where to look when it takes too long."""
        self.doing, self.advice = doing, advice

    def remaining(self) -> float:
        """Return the seconds that are left, more than 0.

        :raises Failure: none are left (``TIMEOUT``)
        """
        left = self._end - self.reserve - time.monotonic()
        if left <= 0:
            raise self.expired()
        return left

    def release_reserve(self) -> None:
        """Make the reserve usable."""
        self.reserve = 0.0

    def expired(self) -> Failure:
        """Return the failure that says what was being waited for (``TIMEOUT``)."""
        return Failure(
            f"no answer within {self.seconds - self.reserve:g} s, stopped while {self.doing}; {self.advice}, "
            "or allow more time",
            OPResultErrorCode.TIMEOUT,
        )


class _Call(Generic[T]):
    """A function call on another thread, with what it returned or raised."""

    def __init__(self, function: Callable[[], T]) -> None:
        self._function = function
        self._results: list[T] = []
        self._error: BaseException | None = None

    def run(self) -> None:
        try:
            self._results.append(self._function())
        except BaseException as error:
            self._error = error

    def outcome(self) -> T:
        error, self._error = self._error, None
        if error is not None:
            try:
                raise error
            finally:
                # An exception that its own frames refer to would wait for the collector.
                del error
        return self._results[0]


class _Thread(threading.Thread):
    left_behind = False


def run_within(deadline: Deadline, function: Callable[[], T], thread_name: str) -> T:
    """Return what a function returns, or raise what it raises, or the time-out at the deadline.

    For libraries that bound one read at most: an answer that trickles in, a look-up or a tunnel to another
    machine keeps them. The function runs on a daemon thread, which is left behind at the deadline: it has to
    ask ``deadline.remaining()`` before each request, so that it begins nothing more by then.

    :raises Failure: the deadline has come, or too many calls that were left behind still run (``TIMEOUT``),
        or no thread can be started
    """
    if sum(isinstance(thread, _Thread) and thread.left_behind for thread in threading.enumerate()) >= (
        _MOST_LEFT_BEHIND
    ):
        raise Failure(
            f"{_MOST_LEFT_BEHIND} earlier calls still wait for an answer, so none is begun while "
            f"{deadline.doing}; {deadline.advice}",
            OPResultErrorCode.TIMEOUT,
        )
    call = _Call(function)
    thread = _Thread(target=call.run, name=thread_name, daemon=True)
    try:
        thread.start()
    except RuntimeError as error:
        raise Failure(f"cannot start a thread while {deadline.doing}: {error}") from error
    try:
        thread.join(deadline.remaining())
    finally:
        # Also when the time is up before the thread is waited for, or the wait is interrupted.
        thread.left_behind = thread.is_alive()
    if thread.left_behind:
        raise deadline.expired()
    return call.outcome()
