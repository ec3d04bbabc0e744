"""One clock for an operation, and calls that are left behind when it strikes."""

import threading
import time

import pytest

from stage.patience import SETUP_SECONDS, in_time
from tovarincore._transport import deadline as deadline_module
from tovarincore._transport.deadline import Deadline, run_within
from tovarincore._transport.failure import Failure
from tovarincore._transport.masker import Secret
from tovarincore.core_def import OPResult, OPResultErrorCode


def test_a_time_out_tells_what_was_waited_for() -> None:
    """The text names the limit, the stage and where to look."""
    deadline = Deadline(0.01)
    deadline.enter("counting sheep", "see the shepherd")
    time.sleep(0.02)
    with pytest.raises(Failure) as caught:
        deadline.remaining()
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT
    assert str(caught.value) == (
        "no answer within 0.01 s, stopped while counting sheep; see the shepherd, or allow more time"
    )


def test_the_reserve_is_there_when_the_time_is_up() -> None:
    """Tidying up gets what the operation could not use."""
    deadline = Deadline(30, "launching", reserve=29.99)
    time.sleep(0.02)
    with pytest.raises(Failure, match=r"within 0\.01 s, stopped while launching"):
        deadline.remaining()
    deadline.release_reserve()
    assert 25 < deadline.remaining() < 30


def test_a_client_may_say_it_in_its_own_words() -> None:
    """The failure of a subclass is the one that is raised."""

    class Own(Failure):
        pass

    class OwnDeadline(Deadline):
        def expired(self) -> Failure:
            return Own("late")

    with pytest.raises(Own, match="late"):
        OwnDeadline(0).remaining()


def test_the_result_of_the_function_is_returned() -> None:
    """A function that ends in time gives its result."""
    assert run_within(Deadline(SETUP_SECONDS), lambda: 42, "test") == 42


def test_what_the_function_raises_is_raised() -> None:
    """An error of the function reaches the caller as the same object."""
    error = KeyError("x")

    def fail() -> None:
        raise error

    with pytest.raises(KeyError) as caught:
        run_within(Deadline(SETUP_SECONDS), fail, "test")
    assert caught.value is error


def test_a_function_that_hangs_is_left_at_the_deadline() -> None:
    """The caller gets a time-out that says what was being done, while the function still hangs."""
    released = threading.Event()
    with in_time(0.2), pytest.raises(Failure, match=r"within 0\.2 s, stopped while testing") as caught:
        run_within(Deadline(0.2, "testing"), released.wait, "test-hanging")
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT
    assert [t.daemon for t in threading.enumerate() if t.name == "test-hanging"] == [True]
    released.set()


def test_calls_that_were_left_behind_are_bounded(monkeypatch: pytest.MonkeyPatch) -> None:
    """No other is begun while too many hang, and the next is once one of them has ended."""
    for thread in threading.enumerate():
        if getattr(thread, "left_behind", False):  # by another test
            thread.join(SETUP_SECONDS)
    monkeypatch.setattr(deadline_module, "_MOST_LEFT_BEHIND", 2)
    released = threading.Event()
    # The second one's time is up before anybody waits for it.
    for seconds in (0.05, 1e-9):
        with pytest.raises(Failure, match="stopped while testing"):
            run_within(Deadline(seconds, "testing"), released.wait, "test-left")
    with pytest.raises(Failure, match="2 earlier calls still wait .* while testing") as caught:
        run_within(Deadline(5, "testing"), lambda: 1, "test-left")
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT
    released.set()
    for thread in threading.enumerate():
        if thread.name == "test-left":
            thread.join()
    assert run_within(Deadline(5, "testing"), lambda: 1, "test-left") == 1


def test_no_thread_to_be_had_is_a_failure(monkeypatch: pytest.MonkeyPatch) -> None:
    """And no error of another kind."""

    def refuse(thread: threading.Thread) -> None:
        raise RuntimeError("can't start new thread")

    with monkeypatch.context() as patch:
        patch.setattr(threading.Thread, "start", refuse)
        with pytest.raises(Failure, match="cannot start a thread while testing"):
            run_within(Deadline(1, "testing"), lambda: 1, "test")


def test_a_failure_shows_no_secret_and_becomes_a_result() -> None:
    """Whatever text it was made of."""
    token = Secret("canary-in-a-failure")
    failure = Failure(f"the peer said {token}, twice {token}", OPResultErrorCode.PROTOCOL_ERROR)
    assert str(failure) == "the peer said ***, twice ***"
    assert failure.as_result("Node n: ") == OPResult(
        error=True, error_code=OPResultErrorCode.PROTOCOL_ERROR, msg="Node n: the peer said ***, twice ***"
    )


def test_a_failure_is_of_bounded_length() -> None:
    """A peer's megabyte does not become a message."""
    assert len(str(Failure("x" * 1_000_000))) < 5000
