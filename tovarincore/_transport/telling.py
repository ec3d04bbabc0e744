"""Lets somebody watch requests to engines and clusters as they are made; without anybody it costs a look."""

import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager

__all__ = ["requests_told_to", "told"]

_listeners: list[Callable[[str], None]] = []


@contextmanager
def requests_told_to(tell: Callable[[str], None]) -> Iterator[None]:
    """Give a line about each request, and one about its answer, to a function while the body runs.

    :param tell: called in the thread that sends the request; secrets are not masked yet
    """
    _listeners.append(tell)
    try:
        yield
    finally:
        _listeners.remove(tell)


@contextmanager
def told(request: str, endpoint: str, signed_with: str) -> Iterator[Callable[[int], None]]:
    """Tell of the request that the body sends.

    :param request: method and path
    :param endpoint: who is asked
    :param signed_with: where the credentials come from
    :return: takes the status of the answer
    """
    if not _listeners:
        yield lambda status: None
        return
    answered: list[int] = []
    _tell(f"{request}: asking {endpoint}, with {signed_with}")
    started = time.monotonic()
    try:
        yield answered.append
    except BaseException as error:
        _tell(f"{request}: no answer after {time.monotonic() - started:.2f} s: {type(error).__name__}")
        raise
    what = f"status {answered[0]}" if answered else "done"
    _tell(f"{request}: {what} after {time.monotonic() - started:.2f} s")


def _tell(line: str) -> None:
    for listener in list(_listeners):
        listener(line)
