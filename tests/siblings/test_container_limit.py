"""The time limit of a container operation."""

from __future__ import annotations

import threading
import time

import pytest

from tovarincore._container_helper.errors import ContainerError
from tovarincore._container_helper.limit import TimeLimit, run_within
from tovarincore.core_def import OPResultErrorCode


def test_the_result_of_the_function_is_returned() -> None:
    """A function that ends in time gives its result."""
    assert run_within(TimeLimit(5, "testing"), lambda: 42) == 42


def test_what_the_function_raises_is_raised() -> None:
    """An error of the function reaches the caller as the same object."""
    error = KeyError("x")

    def fail() -> None:
        raise error

    with pytest.raises(KeyError) as caught:
        run_within(TimeLimit(5, "testing"), fail)
    assert caught.value is error


def test_a_function_that_hangs_is_left_at_the_limit() -> None:
    """The caller gets a time-out that says what was being done, while the function still hangs."""
    released = threading.Event()
    started = time.monotonic()
    with pytest.raises(ContainerError, match=r"within 0\.2 s while testing") as caught:
        run_within(TimeLimit(0.2, "testing"), released.wait)
    assert time.monotonic() - started < 1
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT
    released.set()


def test_no_time_is_left_after_the_limit() -> None:
    """What asks for the remaining time after the limit gets the time-out, and so begins nothing new."""
    limit = TimeLimit(0.01, "testing")
    assert 0 < limit.remaining() <= 0.01
    time.sleep(0.02)
    with pytest.raises(ContainerError, match="while testing"):
        limit.remaining()
