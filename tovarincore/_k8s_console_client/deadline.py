"""The time within which one operation ends, however many requests it takes."""

import time

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore.core_def import OPResultErrorCode

__all__ = ["Deadline"]


class Deadline:
    """The moment, ``seconds`` from now, at which an operation ends at the latest.

    :param doing: the operation in the error's text, for example ``"listing the nodes"``
    :param reserve: seconds that only :meth:`release_reserve` makes usable: the time to tidy up after a
        failure, which may itself be that the time is up
    """

    def __init__(self, seconds: float, doing: str, reserve: float = 0.0) -> None:
        self._seconds = seconds
        self._doing = doing
        self._reserve = reserve
        self._end = time.monotonic() + seconds

    def remaining(self) -> float:
        """Return the seconds left, more than 0.

        :raises KubernetesError: there are none (TIMEOUT)
        """
        left = self._end - self._reserve - time.monotonic()
        if left <= 0:
            raise self.exceeded()
        return left

    def release_reserve(self) -> None:
        """Make the reserve usable."""
        self._reserve = 0.0

    def exceeded(self) -> KubernetesError:
        """Return the error that tells the caller that the time is up."""
        return KubernetesError(
            f"The Kubernetes API server did not finish {self._doing} within "
            f"{self._seconds - self._reserve:g} s. Check that it is healthy and reachable; for one that is "
            "merely slow raise operation_seconds in [kubernetes].",
            OPResultErrorCode.TIMEOUT,
            outcome_unknown=True,
        )
