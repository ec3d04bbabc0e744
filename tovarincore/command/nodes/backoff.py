"""How long to leave a service alone that asked for it."""

from tovarincore.command.errors.failures import CommandFailure, ExitCode

__all__ = ["Backoff"]

_LONGEST_SECONDS = 60.0


class Backoff:
    """Pauses that grow while a service is busy, and are short again once it has answered.

    :param usual: pause in seconds while all goes well
    """

    def __init__(self, usual: float) -> None:
        self.usual = usual
        self._pause = usual

    def answered(self) -> None:
        """Begin with short pauses again."""
        self._pause = self.usual

    def pause_after(self, failure: CommandFailure) -> float:
        """Return how many seconds to wait after a failure; what the service asked for comes first."""
        if failure.code is not ExitCode.BUSY:
            return self.usual
        self._pause = min(self._pause * 2, max(_LONGEST_SECONDS, self.usual))
        return max(self._pause, failure.wait_seconds or 0.0)
