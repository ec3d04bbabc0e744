"""What ends a command: the exit codes, and the one exception that carries one with words for people."""

from enum import IntEnum

__all__ = ["EXIT_CODES", "CommandFailure", "ExitCode", "TimeIsUp"]


class ExitCode(IntEnum):
    """The exit codes of the command; :data:`EXIT_CODES` says what each means."""

    DONE = 0
    FAILED = 1
    USAGE = 2
    NOT_FOUND = 3
    NOT_CONFIGURED = 4
    UNREACHABLE = 5
    REFUSED = 6
    TIMED_OUT = 7
    BUSY = 8
    DEFECT = 70
    INTERRUPTED = 130


EXIT_CODES = {
    ExitCode.DONE: "done",
    ExitCode.FAILED: "the operation failed, was declined, or doctor found a failure",
    ExitCode.USAGE: "wrong usage: an unknown option, region or value",
    ExitCode.NOT_FOUND: "no such node, template or type, or a name that means several nodes",
    ExitCode.NOT_CONFIGURED: "configuration, credentials or a package are missing or cannot be used",
    ExitCode.UNREACHABLE: "provider, container engine or cluster cannot be reached",
    ExitCode.REFUSED: "credentials or rights were refused",
    ExitCode.TIMED_OUT: "the node was not ready, or the command not done, in time",
    ExitCode.BUSY: "the provider asks for fewer requests, or is not available for a moment",
    ExitCode.DEFECT: "an error that the command does not know; --debug shows where",
    ExitCode.INTERRUPTED: "interrupted with Ctrl-C",
}


class CommandFailure(Exception):
    """Ends the command.

    :param what: one line of what happened
    :param remedy: one line of what to do; empty when there is nothing to do
    :param code: exit code
    :param details: what ``--debug`` shows beside the traceback
    :param wait_seconds: how long a service asked to be left alone, when it said so
    """

    def __init__(
        self,
        what: str,
        remedy: str = "",
        code: ExitCode = ExitCode.FAILED,
        details: str = "",
        wait_seconds: float | None = None,
    ) -> None:
        super().__init__(what)
        self.what = what
        self.remedy = remedy
        self.code = code
        self.details = details
        self.wait_seconds = wait_seconds


class TimeIsUp(BaseException):
    """The time of ``--timeout`` is over.

    Like Ctrl-C it must pass the libraries underneath, which catch every ``Exception``.
    """
