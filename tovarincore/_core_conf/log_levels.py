"""Sets the package's logger up and keeps the libraries underneath from logging secrets."""

import logging
import threading
from typing import NamedTuple

__all__ = ["LogLevels"]

_HELD = (
    "boto3",
    "botocore",
    "docker",
    "httpcore",
    "httpcore2",
    "httpx",
    "httpx2",
    "lightkube",
    "requests",
    "s3transfer",
    "urllib3",
    "websockets",
)
"""The libraries underneath, and those that they are made of: their DEBUG lines show bodies and headers."""
_HELD_CHILDREN = tuple(f"{name}." for name in _HELD)


class _HeldLevel(NamedTuple):
    """A logger's level before, and the one set instead."""

    before: int
    given: int


class _Masking(logging.Filter):
    """Takes secrets out of what the package logs: texts and tracebacks may be a library's or a peer's."""

    def filter(self, record: logging.LogRecord) -> bool:
        # Imported here: few programs log.
        from tovarincore._transport.masker import mask

        message = record.getMessage()
        masked = mask(message)
        if masked != message:
            record.msg, record.args = masked, None
        if record.exc_info and record.exc_info[1] is not None:
            text = _formatter.formatException(record.exc_info)
            masked = mask(text)
            if masked != text:
                # Handlers write this text; without the exception they cannot make another one.
                record.exc_text, record.exc_info = masked, None
        return True


_formatter = logging.Formatter()
_masking = _Masking()


class LogLevels:
    """What was changed in :mod:`logging`, so that it is changed once and can be taken back."""

    def __init__(self) -> None:
        # Entered again by a finaliser that makes a manager while this one's loggers are being set up.
        self._lock = threading.RLock()
        self._own_level = logging.NOTSET
        self._own_handler: logging.Handler | None = None
        self._held: dict[str, _HeldLevel] = {}

    def apply(self, level: str, handler: str, show_secrets: bool) -> logging.Logger:
        """Set the logger ``tovarincore`` up and return it; repeating it changes nothing.

        :param level: name of the level
        :param handler: ``"none"`` or ``"stderr"``
        :param show_secrets: let the libraries underneath log at DEBUG
        """
        logger = logging.getLogger("tovarincore")
        for masked in (logger, logging.getLogger("CloudManager")):
            # Adding it twice does nothing.
            masked.addFilter(_masking)
        self._apply_locked(logger, level, handler, show_secrets)
        return logger

    # Short on purpose: where no memory is left, CPython 3.11 to 3.13 loop for ever at the end of a `finally`
    # that stands behind a function's first 256 instructions, and fail at the end of a `with`.
    def _apply_locked(self, logger: logging.Logger, level: str, handler: str, show_secrets: bool) -> None:
        self._lock.acquire()
        try:
            self._set_up(logger, level, handler, show_secrets)
        finally:
            self._lock.release()

    def _set_up(self, logger: logging.Logger, level: str, handler: str, show_secrets: bool) -> None:
        if logger.level in (logging.NOTSET, self._own_level):
            logger.setLevel(level)
            self._own_level = logger.level
        self._set_handler(logger, handler)
        if show_secrets:
            self._release()
        else:
            self._hold()

    def _set_handler(self, logger: logging.Logger, handler: str) -> None:
        # A NullHandler keeps logging's handler of last resort from writing to standard error.
        kind = logging.StreamHandler if handler == "stderr" else logging.NullHandler
        if type(self._own_handler) is kind and self._own_handler in logger.handlers:
            return
        if self._own_handler is not None:
            logger.removeHandler(self._own_handler)
        self._own_handler = kind()
        self._own_handler.setFormatter(logging.Formatter("%(asctime)s %(levelname)s %(name)s: %(message)s"))
        logger.addHandler(self._own_handler)

    def _hold(self) -> None:
        # Without a level of ours the library would have followed the root's.
        wanted = max(logging.INFO, logging.root.level)
        for name in _HELD:
            self._hold_one(name, wanted, least=logging.NOTSET)
        # A child with its own level does not ask its parent.
        for name in list(logging.root.manager.loggerDict):
            if name.startswith(_HELD_CHILDREN):
                self._hold_one(name, logging.INFO, least=logging.NOTSET + 1)

    def _hold_one(self, name: str, wanted: int, least: int) -> None:
        logger = logging.getLogger(name)
        held = self._held.get(name)
        if held is not None and logger.level == held.given:
            before = held.before
        elif least <= logger.level < logging.INFO:
            before = logger.level
        else:
            return
        logger.setLevel(wanted)
        self._held[name] = _HeldLevel(before, wanted)

    def _release(self) -> None:
        for name, held in list(self._held.items()):
            logger = logging.getLogger(name)
            if logger.level == held.given:
                logger.setLevel(held.before)
        self._held.clear()
