"""Raising, handling and cleaning up."""

import sys
import traceback

import pytest

from tests.python import _object_layer as layer


def boom():
    raise KeyError("boom")


def test_a_handled_error_is_what_the_interpreter_reports_while_it_is_handled():
    """Inside the handler sys.exc_info() shows the error with a traceback; afterwards the old state is
    back."""
    seen = []

    def handler(error):
        seen.append((sys.exc_info()[1] is error, error.__traceback__ is not None))
        return "handled"

    assert layer.handle(boom, KeyError, handler) == "handled"
    assert seen == [(True, True)]
    assert sys.exc_info() == (None, None, None)


def test_handling_inside_another_handler_restores_the_outer_error():
    """Nested handlers see their own error, and the outer one comes back."""
    try:
        raise ValueError("outer")
    except ValueError as outer:
        layer.handle(boom, KeyError, lambda error: error)
        assert sys.exc_info()[1] is outer


def test_an_error_of_another_class_passes_the_handler():
    """An `except KeyError` lets a ZeroDivisionError through, unchained."""
    with pytest.raises(ZeroDivisionError) as caught:
        layer.handle(lambda: 1 // 0, KeyError, lambda error: error)
    assert caught.value.__context__ is None


def test_an_error_raised_by_a_handler_carries_the_handled_one_as_context():
    """Implicit chaining, as the interpreter does it."""

    def handler(error):
        raise RuntimeError("in the handler")

    with pytest.raises(RuntimeError) as caught:
        layer.handle(boom, KeyError, handler)
    assert isinstance(caught.value.__context__, KeyError)
    assert sys.exc_info() == (None, None, None)


def test_raising_again_keeps_the_error_and_adds_one_traceback_entry():
    """The plain `raise` at the end of a handler: same object, one entry for the native function."""
    with pytest.raises(KeyError) as caught:
        layer.handle_and_raise_again(boom, lambda error: None)
    names = [entry.name for entry in traceback.extract_tb(caught.value.__traceback__)]
    assert names.count("handle_and_raise_again") == 1
    assert caught.value.__context__ is None


def test_a_traceback_names_function_file_and_line():
    """A native statement stands in the traceback like a Python one."""
    with pytest.raises(KeyError) as caught:
        layer.handle_and_raise_again(boom, lambda error: None)
    entry = next(
        e for e in traceback.extract_tb(caught.value.__traceback__) if e.name == "handle_and_raise_again"
    )
    assert entry.filename == "tests/python/object_layer.cpp"
    with open(entry.filename) as source:
        assert "return body();" in source.read().splitlines()[entry.lineno - 1]


def test_a_finally_clause_runs_on_both_paths():
    """Body and clause run in order; the body's result or error comes back."""
    events = []
    assert layer.with_finally(lambda: events.append("body") or 1, lambda: events.append("clause")) == 1
    with pytest.raises(KeyError):
        layer.with_finally(boom, lambda: events.append(sys.exc_info()[0]))
    assert events == ["body", "clause", KeyError]


def test_an_error_of_the_clause_replaces_result_and_error():
    """A clause that raises wins; the body's error becomes its context."""

    def clause():
        raise RuntimeError("clause")

    with pytest.raises(RuntimeError) as caught:
        layer.with_finally(lambda: 1, clause)
    assert caught.value.__context__ is None
    with pytest.raises(RuntimeError) as caught:
        layer.with_finally(boom, clause)
    assert isinstance(caught.value.__context__, KeyError)


@pytest.mark.parametrize("error", [ValueError, ValueError("x")], ids=["class", "instance"])
def test_classes_and_instances_can_be_raised(error):
    """`raise` takes both."""
    with pytest.raises(ValueError):
        layer.raise_it(error)


def test_what_is_no_error_cannot_be_raised():
    """The interpreter's own text."""
    with pytest.raises(TypeError, match="exceptions must derive from BaseException"):
        layer.raise_it(3)


def test_a_raised_error_is_chained_to_the_one_being_handled():
    """`raise` inside a handler sets the context."""
    try:
        boom()
    except KeyError as outer:
        with pytest.raises(ValueError) as caught:
            layer.raise_it(ValueError)
        assert caught.value.__context__ is outer


def test_an_assertion_carries_its_message():
    """assert condition, message"""
    layer.assert_it(True)
    with pytest.raises(AssertionError, match="^the condition does not hold$"):
        layer.assert_it(False)


def test_c_plus_plus_errors_become_python_errors_at_the_edge():
    """A failed allocation is a MemoryError, any other standard exception a SystemError."""
    with pytest.raises(MemoryError):
        layer.out_of_memory(None)
    with pytest.raises(SystemError, match="a C\\+\\+ error"):
        layer.standard_error(None)


class Lock:
    """Records what is called on it."""

    def __init__(self, acquired=True, release_error=None):
        self.events = []
        self.acquired = acquired
        self.release_error = release_error

    def acquire(self, *args, **kwargs):
        self.events.append(("acquire", args, kwargs))
        return self.acquired

    def release(self, *args, **kwargs):
        self.events.append(("release", args, kwargs))
        if self.release_error:
            raise self.release_error


class Owner:
    def __init__(self, lock):
        self.lock = lock


def test_a_lock_is_waited_for_three_seconds_by_keyword_and_released():
    """acquire(timeout=3), the body, release()."""
    lock = Lock()
    assert layer.with_lock(Owner(lock), lambda: "done") == "done"
    assert lock.events == [("acquire", (), {"timeout": 3}), ("release", (), {})]


@pytest.mark.parametrize("answer", [False, 0, None, []], ids=repr)
def test_a_lock_not_obtained_is_a_bare_timeout_error(answer):
    """The answer is tested for truth; nothing is run or released."""
    lock = Lock(acquired=answer)
    with pytest.raises(TimeoutError) as caught:
        layer.with_lock(Owner(lock), boom)
    assert caught.value.args == ()
    assert lock.events == [("acquire", (), {"timeout": 3})]


def test_a_lock_is_released_when_the_body_fails():
    """The body's error travels on after the release."""
    lock = Lock()
    with pytest.raises(KeyError):
        layer.with_lock(Owner(lock), boom)
    assert [event[0] for event in lock.events] == ["acquire", "release"]


def test_an_error_of_release_replaces_the_result():
    """As a `finally` clause that raises."""
    with pytest.raises(OSError, match="stuck"):
        layer.with_lock(Owner(Lock(release_error=OSError("stuck"))), lambda: 1)


def test_handling_inside_a_generator_leaves_the_generators_own_state_alone():
    """An error that a caller outside is handling does not stay with the generator once the caller is done."""

    def generator():
        layer.handle(boom, KeyError, lambda error: error)
        yield
        yield sys.exc_info()[1]

    steps = generator()
    try:
        raise ValueError("outer")
    except ValueError:
        next(steps)
    assert next(steps) is None
