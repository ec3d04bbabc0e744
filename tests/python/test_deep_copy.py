"""The native deep copy in place of copy.deepcopy: whatever goes in, the same comes out."""

from __future__ import annotations

import copy
import gc
import sys
import threading
import unittest
from typing import Any

import pytest

from tests import graphs
from tests.graphs import Plain, Record
from tests.python import _object_layer as layer
from tests.python.copying import first_difference
from tests.thorough import sized

needs_native = pytest.mark.skipif(
    not layer.is_native(None), reason="this interpreter is not one whose structures are known"
)


@needs_native
def test_the_interpreters_own_tests_pass_with_the_native_copy(monkeypatch: pytest.MonkeyPatch) -> None:
    """CPython's test_copy holds with our function in the place of copy.deepcopy."""
    module = pytest.importorskip("test.test_copy", reason="this interpreter comes without its own tests")
    monkeypatch.setattr(copy, "deepcopy", layer.native_deepcopy)
    if hasattr(module, "MiscTestCase"):
        # It looks for the functions that the module copy itself defines, and ours comes from elsewhere.
        monkeypatch.delattr(module.MiscTestCase, "test__all__")
    suite = unittest.defaultTestLoader.loadTestsFromModule(module)
    result = unittest.TestResult()
    suite.run(result)
    assert result.testsRun >= 76
    assert result.errors + result.failures == []


def test_random_graphs_are_copied_as_python_copies_them() -> None:
    """Structure, aliasing and errors agree; `python -m tests.python.copying` tries 100,000 of them."""
    assert first_difference(range(sized(500, 1_500))) is None


@needs_native
def test_a_plain_record_takes_the_way_without_python_code() -> None:
    """Otherwise all of this would only test copy.deepcopy."""
    copy.deepcopy(Record())
    assert layer.plain_copy([Record(a=[1], b={"k": (1, [2])}, c=[graphs.Bits.A])]) is not NotImplemented


def test_records_shared_within_one_copy_stay_shared_and_differ_between_two() -> None:
    """The region and type records that all nodes refer to are copied once per copy."""
    shared = Record()
    nodes = [Record(a=shared), Record(a=shared)]
    first, second = layer.native_deepcopy(nodes), layer.native_deepcopy(nodes)
    assert first[0].a is first[1].a is not shared
    assert second[0].a is second[1].a is not first[0].a


def nested_lists(depth: int) -> Any:
    nested: list[Any] = []
    for _ in range(depth):
        nested = [nested]
    return nested


def chained_objects(depth: int) -> Any:
    chained = Plain()
    for _ in range(depth):
        chained = Plain(next=chained)
    return chained


def nested_tuples(depth: int) -> Any:
    nested: Any = ([],)
    for _ in range(depth):
        nested = (nested,)
    return nested


def nested_dicts(depth: int) -> Any:
    nested: dict[str, Any] = {}
    for _ in range(depth):
        nested = {"k": nested}
    return nested


DEEP = [nested_lists, chained_objects, nested_tuples, nested_dicts]


@pytest.mark.parametrize("build", DEEP)
def test_too_deep_input_ends_in_a_recursion_error(build: Any) -> None:
    """Every container counts against the recursion limit, and the count is right again afterwards."""
    deep = build(sys.getrecursionlimit() + 100)
    for _ in range(3):
        with pytest.raises(RecursionError):
            layer.native_deepcopy(deep)
    assert layer.native_deepcopy(build(150)) is not None


@pytest.mark.parametrize("build", DEEP)
def test_too_deep_input_does_not_end_a_thread_with_a_small_stack(build: Any) -> None:
    """The limit is met before the stack of the thread is used up."""
    deep, caught = build(sys.getrecursionlimit() + 100), []

    def run() -> None:
        try:
            layer.native_deepcopy(deep)
        except RecursionError as error:
            caught.append(error)

    previous = threading.stack_size(512 * 1024)
    try:
        thread = threading.Thread(target=run)
        thread.start()
        thread.join()
    finally:
        threading.stack_size(previous)
    assert len(caught) == 1


class Failing:
    def __init__(self, error: BaseException) -> None:
        self.error = error

    def __deepcopy__(self, memo: Any) -> None:
        raise self.error


@pytest.mark.parametrize("error", [ValueError("no"), KeyboardInterrupt(), SystemExit(3), MemoryError()])
def test_an_exception_midway_travels_on_unchanged_and_leaks_nothing(error: BaseException) -> None:
    """The error that a hook raises is the one that arrives, and the half-made copies go away."""
    marker = Plain()
    graph = [Record(a=[marker], b=Failing(error))]
    for _ in range(5):
        with pytest.raises(type(error)) as caught:
            layer.native_deepcopy(graph)
        assert caught.value is error
    error.__traceback__ = None
    del caught
    gc.collect()
    assert sum(type(thing) is Plain and thing is not marker for thing in gc.get_objects()) == count_of_plain()


def count_of_plain() -> int:
    return sum(type(thing) is Plain for thing in gc.get_objects()) - 1


@pytest.mark.parametrize(
    "graph",
    [
        [Record(a=[1], b=(1, [2]), c={"k": 1})],
        [Record(a=graphs.Hooked([1]))],
        [Record(a=Failing(ValueError()))],
        [Record(a={1, 2}), graphs.Slotted()],
    ],
    ids=["plain", "hook", "failing", "unusual"],
)
def test_copies_leave_no_memory_behind(graph: Any) -> None:
    """After the first few, hundreds of copies take no more blocks than one."""

    def copies(number: int) -> None:
        for _ in range(number):
            try:
                layer.native_deepcopy(graph)
            except ValueError as error:
                error.__traceback__ = None

    copies(50)
    gc.collect()
    before = sys.getallocatedblocks()
    copies(300)
    gc.collect()
    assert sys.getallocatedblocks() - before < 50


def test_a_copy_holds_nothing_of_a_large_one_before_it() -> None:
    """The memo of one copy ends with it: a small copy needs as little memory after a large one as before."""
    import tracemalloc

    small = [Record()]
    layer.native_deepcopy([Record() for _ in range(20_000)])
    gc.collect()
    tracemalloc.start()
    try:
        layer.native_deepcopy(small)
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert peak < 20_000


def test_comparison_and_hash_of_records_are_never_called() -> None:
    """A copy is made by identity alone."""

    class Touchy:
        def __eq__(self, other: object) -> bool:
            raise AssertionError("compared")

        def __hash__(self) -> int:
            raise AssertionError("hashed")

    copied = layer.native_deepcopy([Touchy(), Touchy()])
    assert [type(element) for element in copied] == [Touchy, Touchy]
