"""The one exception that container operations raise; its text says what was wrong and what to do."""

from __future__ import annotations

from tovarincore.core_def import OPResultErrorCode


class ContainerError(RuntimeError):
    """A container operation that failed.

    Attribute `error_code` is the OPResultErrorCode to report, or None when none fits.
    """

    def __init__(self, message: str, error_code: OPResultErrorCode | None = None) -> None:
        super().__init__(message)
        self.error_code = error_code


class ContainerNameTakenError(ContainerError):
    """The engine holds a container of the wanted name already."""
