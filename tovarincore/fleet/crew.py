"""Work side by side: a few threads that work through what they are given."""

import queue
import threading
from collections.abc import Callable, Sequence
from concurrent.futures import Future, as_completed, wait
from types import TracebackType
from typing import Any, TypeVar

__all__ = ["Crew", "work_through"]

S = TypeVar("S")
T = TypeVar("T")
_Task = tuple["Future[Any]", Callable[..., Any], tuple[Any, ...]]


class Crew:
    """A context manager with threads that work through what is submitted, in that order.

    Leaving it drops what has not begun and waits for nothing: the threads end after what they are doing. They
    are daemon threads, since a process must not wait for a silent worker when it ends.

    :param size: most threads; each is started when there is something for it
    :param name: name of the threads
    """

    def __init__(self, size: int, name: str) -> None:
        self._size = size
        self._name = name
        self._tasks: queue.SimpleQueue[_Task | None] = queue.SimpleQueue()
        self._threads = 0
        self._lock = threading.Lock()

    def submit(self, function: Callable[..., T], *arguments: Any) -> "Future[T]":
        """Have a function called; any thread may submit.

        :return: what becomes of the call
        :raises RuntimeError: no thread can be started, and there is none yet
        """
        with self._lock:
            if self._threads < self._size:
                self._start_thread()
        future: Future[T] = Future()
        self._tasks.put((future, function, arguments))
        return future

    def __enter__(self) -> "Crew":
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        while True:
            try:
                task = self._tasks.get_nowait()
            except queue.Empty:
                break
            if task is not None:
                task[0].cancel()
        for _ in range(self._threads):
            self._tasks.put(None)

    def _start_thread(self) -> None:
        try:
            threading.Thread(target=self._work, name=self._name, daemon=True).start()
            self._threads += 1
        except RuntimeError:
            # Fewer threads do the same work.
            if not self._threads:
                raise

    def _work(self) -> None:
        while (task := self._tasks.get()) is not None:
            future, function, arguments = task
            if future.set_running_or_notify_cancel():
                try:
                    future.set_result(function(*arguments))
                except BaseException as error:
                    future.set_exception(error)
            # What is waited for next may take long: nothing of this task stays alive meanwhile.
            del task, future, function, arguments


def work_through(
    items: Sequence[S],
    function: Callable[[S], T],
    at_once: int,
    cancel: threading.Event,
    on_outcome: Callable[[T], None] | None,
) -> list[T]:
    """Call a function for each item, some at a time, and return the results in the order of the items.

    When it is interrupted, or a call raises, it begins no more, waits for the calls under way and tells what
    came of them.

    :param items: what the function is called with
    :param function: what is called
    :param at_once: most calls at a time
    :param cancel: set when it is interrupted, for the function to see
    :param on_outcome: called in this thread with each result as soon as it is there
    """
    tell = on_outcome or (lambda outcome: None)
    told = set()
    with Crew(at_once, "tovarin-fleet") as crew:
        outcomes = [crew.submit(function, item) for item in items]
        try:
            for outcome in as_completed(outcomes):
                told.add(outcome)
                tell(outcome.result())
        except BaseException:
            cancel.set()
            for outcome in outcomes:
                outcome.cancel()
            wait(outcomes)
            for outcome in outcomes:
                if outcome not in told and not outcome.cancelled() and outcome.exception() is None:
                    tell(outcome.result())
            raise
        return [outcome.result() for outcome in outcomes]
