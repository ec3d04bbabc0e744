"""Sets the package's logger up and keeps the libraries underneath from logging secrets."""

import logging
import threading

__all__ = ["LogLevels"]

_HELD = ("boto3", "botocore", "urllib3", "websockets", "httpcore")
"""Libraries whose DEBUG lines show response bodies or request headers."""
_HELD_CHILDREN = tuple(f"{name}." for name in _HELD)


class LogLevels:
    """What was changed in :mod:`logging`, so that it is changed once and can be taken back."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._own_level = logging.NOTSET
        self._own_handler: logging.Handler | None = None
        self._levels_before: dict[str, int] = {}

    def apply(self, level: str, handler: str, show_secrets: bool) -> logging.Logger:
        """Set the logger ``tovarincore`` up and return it; repeating it changes nothing.

        :param level: name of the level
        :param handler: ``"none"`` or ``"stderr"``
        :param show_secrets: let the libraries underneath log at DEBUG
        """
        logger = logging.getLogger("tovarincore")
        with self._lock:
            if logger.level in (logging.NOTSET, self._own_level):
                logger.setLevel(level)
                self._own_level = logger.level
            self._set_handler(logger, handler)
            if show_secrets:
                self._release()
            else:
                self._hold()
        return logger

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
        wanted = max(logging.INFO, logging.root.level)
        for name in _HELD:
            logger = logging.getLogger(name)
            # A level of ours follows the root's: without it the library would have followed it too.
            if name in self._levels_before or logger.level < logging.INFO:
                self._levels_before.setdefault(name, logger.level)
                logger.setLevel(wanted)
        # A child with a level of its own does not ask its parent.
        for name in list(logging.root.manager.loggerDict):
            if name.startswith(_HELD_CHILDREN):
                logger = logging.getLogger(name)
                if logging.NOTSET < logger.level < logging.INFO:
                    self._levels_before.setdefault(name, logger.level)
                    logger.setLevel(logging.INFO)

    def _release(self) -> None:
        for name, level in self._levels_before.items():
            logging.getLogger(name).setLevel(level)
        self._levels_before.clear()
