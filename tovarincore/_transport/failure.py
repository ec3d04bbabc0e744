"""The one failure of everything that speaks to the outside, on its way to becoming a result."""

from tovarincore._transport.masker import mask_start
from tovarincore.core_def import OPResult, OPResultErrorCode

__all__ = ["Failure"]

_LONGEST_MESSAGE = 4000


class Failure(RuntimeError):
    """What was asked could not be done. Secrets are taken out of the text.

    :param message: what went wrong and what to do about it; texts of libraries and peers may be part of it
    :param error_code: kind of the failure, ``None`` when none fits
    """

    def __init__(self, message: str, error_code: OPResultErrorCode | None = None) -> None:
        super().__init__(mask_start(message, _LONGEST_MESSAGE))
        self.error_code = error_code

    def as_result(self, before: str = "") -> OPResult:
        """Return the failure as callers get it.

        :param before: the text in front of the message
        """
        return OPResult(error=True, error_code=self.error_code, msg=f"{before}{self}")
