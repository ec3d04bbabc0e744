"""What a check of ``doctor`` comes to."""

from dataclasses import dataclass
from enum import Enum

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.errors.explain import explain

__all__ = ["Level", "Verdict", "failed", "ok", "skipped", "warn"]


class Level(Enum):
    """How a check ended."""

    OK = "ok"
    WARN = "warn"
    FAIL = "fail"
    SKIPPED = "skipped"


@dataclass(frozen=True)
class Verdict:
    """One line of the report.

    :param subject: what was looked at
    :param level: how it is
    :param text: what was found
    :param remedy: what to do; empty when nothing has to be done
    """

    subject: str
    level: Level
    text: str
    remedy: str = ""


def ok(subject: str, text: str) -> Verdict:
    """Return the verdict that all is well."""
    return Verdict(subject, Level.OK, text)


def warn(subject: str, text: str, remedy: str) -> Verdict:
    """Return the verdict that something may not be what was meant."""
    return Verdict(subject, Level.WARN, text, remedy)


def failed(
    subject: str, error: Exception | str, remedy: str = "", region: CloudRegion | None = None
) -> Verdict:
    """Return the verdict that something will not work, from an exception or in words.

    :param region: where the exception comes from
    """
    if isinstance(error, str):
        return Verdict(subject, Level.FAIL, error, remedy)
    failure = explain(error, region)
    return Verdict(subject, Level.FAIL, failure.what, remedy or failure.remedy)


def skipped(subject: str, text: str) -> Verdict:
    """Return the verdict of a check that could not be made."""
    return Verdict(subject, Level.SKIPPED, text)
