"""Starts the command; what is imported here needs none of the optional packages."""

import sys
from collections.abc import Sequence

__all__ = ["main"]

_NOT_CONFIGURED = 4
_INTERRUPTED = 130


def main(arguments: Sequence[str] | None = None) -> int:
    """Run one command.

    :param arguments: the words after the program's name; ``None`` means ``sys.argv``
    :return: the exit code; ``--help`` lists them
    """
    try:
        try:
            from tovarincore.command.app import run
        except ModuleNotFoundError as error:
            if error.name != "click":
                raise
            print(
                f"error: tovarin-nodes needs the package {error.name}, which is not installed:"
                " pip install 'tovarincore[cli]'",
                file=sys.stderr,
            )
            return _NOT_CONFIGURED
        return run(arguments)
    except KeyboardInterrupt:
        # It came before the command was there to say so itself.
        print("Interrupted.", file=sys.stderr)
        return _INTERRUPTED
