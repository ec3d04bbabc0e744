"""The log on standard error, its secrets masked."""

import logging
from collections.abc import Iterator
from contextlib import contextmanager

from tovarincore.command.output.writer import write

__all__ = ["log_shown"]


class _MaskingHandler(logging.Handler):
    """Writes records where the command writes notes; a traceback in one is masked like all the rest."""

    def emit(self, record: logging.LogRecord) -> None:
        try:
            write(self.format(record), err=True)
        except Exception:
            self.handleError(record)


@contextmanager
def log_shown(everything: bool) -> Iterator[None]:
    """Write the package's log during the body.

    :param everything: also the lines of level DEBUG; otherwise what was changed
    """
    logger = logging.getLogger("tovarincore")
    before = logger.level
    handler = _MaskingHandler()
    handler.setFormatter(logging.Formatter("%(levelname)s %(name)s: %(message)s"))
    logger.setLevel(logging.DEBUG if everything else logging.INFO)
    logger.addHandler(handler)
    try:
        yield
    finally:
        logger.removeHandler(handler)
        logger.setLevel(before)
