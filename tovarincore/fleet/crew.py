"""Work side by side: a few threads that work through what they are given."""

import queue
import threading
import time
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import Future, as_completed, wait
from types import TracebackType
from typing import Any, TypeVar

__all__ = ["Crew", "work_through"]

S = TypeVar("S")
T = TypeVar("T")
_Task = tuple["Future[Any]", Callable[..., Any], tuple[Any, ...]]
_SLOW_SECONDS = 0.01
"""Threads that take on less than one task each in this time wait for somebody: others can work meanwhile."""


class Crew:
    """A context manager with threads that work through what is submitted, in that order.

    Leaving it drops what has not begun and waits for nothing: the threads end after what they are doing. They
    are daemon threads, since a process must not wait for a silent worker when it ends.

    :param size: most threads; each is started when there is something for it
    :param name: name of the threads
    :param first: threads to begin with; :meth:`results` starts the others while these get on slowly. Tasks
        that are over at once are done sooner by few threads, which do not contend for the interpreter.
    """

    def __init__(self, size: int, name: str, first: int | None = None) -> None:
        self._size = size
        self._name = name
        self._tasks: queue.SimpleQueue[_Task | None] = queue.SimpleQueue()
        self._threads = 0
        self._wanted = size if first is None else min(first, size)
        self._submitted = 0
        self._begun = 0
        self._looked = 0.0
        self._left = False
        self._lock = threading.Lock()

    def submit(self, function: Callable[..., T], *arguments: Any) -> "Future[T]":
        """Have a function called; any thread may submit.

        :return: what becomes of the call; cancelled when the crew has been left
        :raises RuntimeError: no thread can be started, and there is none yet
        """
        future: Future[T] = Future()
        with self._lock:
            if self._left:
                future.cancel()
                return future
            if self._threads < self._wanted:
                self._start_thread()
            self._submitted += 1
            self._tasks.put((future, function, arguments))
        return future

    def results(self, futures: Sequence["Future[T]"]) -> Iterator[T]:
        """Give what came of tasks, one after the other; any thread may wait.

        :param futures: what :meth:`submit` returned
        :raises Exception: what a task raised
        """
        for future in futures:
            while not future.done() and not wait([future], _SLOW_SECONDS).done:
                self._start_more()
            yield future.result()

    def __enter__(self) -> "Crew":
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        with self._lock:
            self._left = True
            while True:
                try:
                    task = self._tasks.get_nowait()
                except queue.Empty:
                    break
                if task is not None:
                    task[0].cancel()
            for _ in range(self._threads):
                self._tasks.put(None)

    def _start_more(self) -> None:
        with self._lock:
            now, begun = time.monotonic(), self._submitted - self._tasks.qsize()
            if self._left or now - self._looked < _SLOW_SECONDS:
                return
            if begun - self._begun < self._threads:
                self._wanted = min(2 * self._wanted, self._size)
                for _ in range(min(self._wanted - self._threads, self._tasks.qsize())):
                    self._start_thread()
            self._looked, self._begun = now, begun

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
