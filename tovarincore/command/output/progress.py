"""A line on a terminal that tells what the command waits for, from the moment that a person would wonder."""

import sys
import threading
from collections.abc import Iterator
from contextlib import contextmanager

__all__ = ["clear", "working"]

_AFTER_SECONDS = 0.5
_EVERY_SECONDS = 0.12
_SIGNS = "|/-\\"


class _Spinner:
    def __init__(self, text: str) -> None:
        self._text = text
        self._ended = threading.Event()
        self._drawing = threading.Lock()
        self._thread = threading.Thread(target=self._turn, name="tovarin-progress", daemon=True)
        self._thread.start()

    def _turn(self) -> None:
        pause, count = _AFTER_SECONDS, 0
        while not self._ended.wait(pause):
            with self._drawing:
                if not self._ended.is_set():
                    sys.stderr.write(f"\r{_SIGNS[count % len(_SIGNS)]} {self._text}\x1b[K")
                    sys.stderr.flush()
            pause, count = _EVERY_SECONDS, count + 1
        if count:
            sys.stderr.write("\r\x1b[K")
            sys.stderr.flush()

    def end(self) -> None:
        with self._drawing:
            self._ended.set()
        self._thread.join()


_running: list[_Spinner] = []


@contextmanager
def working(text: str) -> Iterator[None]:
    """Tell on a terminal what is being done while the body runs, until the body writes something.

    :param text: what is being done
    """
    _running.append(_Spinner(text))
    try:
        yield
    finally:
        clear()


def clear() -> None:
    """Take the line away; what is written next begins on a clean one."""
    while _running:
        _running.pop().end()
