"""Taking a free built-in lock at once, and any other lock by its own methods."""

from __future__ import annotations

import threading
import time
from typing import Any

import pytest

from stage.patience import in_time
from tests.python import _object_layer as layer


class Owner:
    def __init__(self, lock: Any) -> None:
        self.lock = lock


def test_a_built_in_lock_is_held_during_the_body_and_free_afterwards() -> None:
    """Also when the body fails."""
    lock = threading.Lock()
    assert layer.with_lock(Owner(lock), lock.locked) is True
    assert lock.locked() is False

    def fail() -> None:
        raise KeyError(lock.locked())

    with pytest.raises(KeyError, match="True"):
        layer.with_lock(Owner(lock), fail)
    assert lock.locked() is False


def test_a_taken_built_in_lock_is_waited_for_while_other_threads_run() -> None:
    """The interpreter is free meanwhile: the holder can release it."""
    lock = threading.Lock()
    lock.acquire()
    began = threading.Event()

    def release() -> None:
        began.wait()
        time.sleep(0.2)
        lock.release()

    thread = threading.Thread(target=release)
    thread.start()
    began.set()
    assert layer.with_lock(Owner(lock), lambda: "done") == "done"
    thread.join()
    assert lock.locked() is False


def test_a_built_in_lock_not_freed_within_three_seconds_is_a_bare_timeout_error() -> None:
    """And it stays with its holder."""
    lock = threading.Lock()
    lock.acquire()
    with in_time(3, least=2.9), pytest.raises(TimeoutError) as caught:
        layer.with_lock(Owner(lock), lambda: "done")
    assert caught.value.args == ()
    assert lock.locked() is True


def test_the_lock_that_was_taken_is_the_one_that_is_released() -> None:
    """Even when the body puts another one in its place."""
    first, second = threading.Lock(), threading.Lock()
    owner = Owner(first)
    layer.with_lock(owner, lambda: setattr(owner, "lock", second))
    assert (first.locked(), second.locked()) == (False, False)


def test_many_threads_take_one_lock_in_turns() -> None:
    """Two bodies never run at once."""
    owner = Owner(threading.Lock())
    inside: list[int] = []
    most: list[int] = []

    def body() -> None:
        inside.append(1)
        most.append(len(inside))
        time.sleep(0.001)
        inside.pop()

    threads = [
        threading.Thread(target=lambda: [layer.with_lock(owner, body) for _ in range(20)]) for _ in range(6)
    ]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(most) == 120
    assert set(most) == {1}


def test_a_reentrant_lock_goes_by_its_own_methods() -> None:
    """It is no plain lock: the same thread may take it again."""
    lock = threading.RLock()
    with lock:
        assert layer.with_lock(Owner(lock), lambda: "done") == "done"


def test_a_lock_that_the_body_has_freed_cannot_be_released() -> None:
    """As release() itself says; the body's result is lost."""
    lock = threading.Lock()
    with pytest.raises(RuntimeError, match="release unlocked lock"):
        layer.with_lock(Owner(lock), lock.release)
    assert lock.locked() is False


def test_a_failing_body_that_freed_its_lock_is_the_context_of_the_failed_release() -> None:
    """As in a finally clause."""
    lock = threading.Lock()

    def fail() -> None:
        lock.release()
        raise KeyError("body")

    with pytest.raises(RuntimeError, match="release unlocked lock") as caught:
        layer.with_lock(Owner(lock), fail)
    assert isinstance(caught.value.__context__, KeyError)
