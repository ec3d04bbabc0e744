"""The time within which one operation ends, however many requests it takes."""

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._transport.deadline import Deadline
from tovarincore.core_def import OPResultErrorCode

__all__ = ["ApiDeadline"]


class ApiDeadline(Deadline):
    """The deadline of an operation on a cluster.

    :param seconds: time from now
    :param operation: the operation in the error's text, for example ``"listing the nodes"``
    :param reserve: seconds for tidying up after a failure
    """

    def __init__(self, seconds: float, operation: str, *, reserve: float = 0.0) -> None:
        super().__init__(seconds, reserve=reserve)
        self._operation = operation
        self.await_answer()

    def await_answer(self) -> None:
        """Note that the connection stands."""
        self.enter("waiting for the API server's answer", "check that it is healthy and reachable")

    def expired(self) -> KubernetesError:
        """Return the error that tells the caller that the time is up."""
        return KubernetesError(
            f"{self._operation[0].upper()}{self._operation[1:]} did not finish within "
            f"{self.seconds - self.reserve:g} s, stopped while {self.doing}: {self.advice}; for a server "
            "that is merely slow raise operation_seconds in [kubernetes].",
            OPResultErrorCode.TIMEOUT,
            outcome_unknown=True,
        )
