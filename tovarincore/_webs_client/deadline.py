"""The one clock of a request."""

import math
import time

from tovarincore._webs_client.errors import RequestFailed
from tovarincore.core_def import OPResultErrorCode

__all__ = ["Deadline"]


class Deadline:
    """The moment until which a request may last, by the monotonic clock.

    :param seconds: time from now
    """

    def __init__(self, seconds: float) -> None:
        self.seconds = seconds
        self._stage = "preparing the request"
        self._advice = "see whether this machine is overloaded"
        self._end = time.monotonic() + seconds

    def enter(self, stage: str, advice: str) -> None:
        """Note what the request does from now on, and where to look when it takes too long."""
        self._stage, self._advice = stage, advice

    def remaining(self) -> float:
        """Return the seconds that are left.

        :raises RequestFailed: none are left (``TIMEOUT``)
        """
        left = self._end - time.monotonic()
        if left <= 0:
            raise self.expired()
        return left

    def expired(self) -> RequestFailed:
        """Return the failure that says what was waited for in vain (``TIMEOUT``)."""
        return RequestFailed(
            OPResultErrorCode.TIMEOUT,
            f"no answer within {self.seconds:g} s, stopped while {self._stage}; {self._advice}, or allow "
            "more time",
        )

    def poll_timeout(self) -> int:
        """Return what is left in whole milliseconds, rounded up: waiting never ends before the deadline.

        :raises RequestFailed: nothing is left (``TIMEOUT``)
        """
        return math.ceil(self.remaining() * 1000)
