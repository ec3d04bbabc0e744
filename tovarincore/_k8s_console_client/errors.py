"""The one exception that operations on a cluster raise; its text says what was wrong and what to do."""

from tovarincore.core_def import OPResult, OPResultErrorCode

__all__ = ["KubernetesError"]


class KubernetesError(RuntimeError):
    """An operation on a cluster that failed.

    :param message: what was wrong, for people; the API server's own text where it gave one
    :param error_code: the kind of failure, ``None`` when none fits
    :param status: HTTP status of the API server's refusal, ``None`` when it was no refusal
    :param outcome_unknown: the API server may have done what it was asked although it did not say so
    """

    def __init__(
        self,
        message: str,
        error_code: OPResultErrorCode | None = None,
        *,
        status: int | None = None,
        outcome_unknown: bool = False,
    ) -> None:
        super().__init__(message)
        self.error_code = error_code
        self.status = status
        self.outcome_unknown = outcome_unknown

    def as_result(self) -> OPResult:
        """Return the failure as callers get it."""
        return OPResult(error=True, error_code=self.error_code, msg=str(self))
