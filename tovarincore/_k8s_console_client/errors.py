"""What operations on a cluster raise, and how it becomes a result."""

import traceback

from tovarincore._config_files.errors import ConfigError
from tovarincore._transport.failure import Failure
from tovarincore._transport.masker import mask
from tovarincore.core_def import OPResult, OPResultErrorCode

__all__ = ["KubernetesError", "result_of"]


class KubernetesError(Failure):
    """An operation on a cluster that failed. Secrets are taken out of the text.

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
        super().__init__(message, error_code)
        self.status = status
        self.outcome_unknown = outcome_unknown


def result_of(error: Exception) -> OPResult:
    """Return the result that callers get for an error; to be called while it is being handled."""
    if isinstance(error, Failure):
        return error.as_result()
    if isinstance(error, ConfigError):
        return OPResult(error=True, msg=mask(error))
    if isinstance(error, ModuleNotFoundError) and not (error.name or "tovarincore").startswith("tovarincore"):
        return OPResult(
            error=True,
            msg=f"Kubernetes regions need the package {error.name}, which is not installed: "
            "pip install tovarincore[kubernetes]",
        )
    # A defect, or an answer that nobody thought of: callers rely on getting a result anyway.
    return OPResult(
        error=True,
        error_code=OPResultErrorCode.PROTOCOL_ERROR,
        msg=f"The Kubernetes client cannot handle what it met ({type(error).__name__}). Please report it, "
        "with the traceback of this result.",
        exc_info=mask(traceback.format_exc()),
    )
