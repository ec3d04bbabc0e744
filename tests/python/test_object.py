"""Owning and borrowed references, and the operations on them."""

import builtins
import gc
import sys
from inspect import signature

import pytest

from tests.python import _object_layer as layer


class Silent:
    """Equal to nothing, not even itself."""

    def __eq__(self, other: object) -> bool:
        return False

    __hash__ = None  # type: ignore[assignment]


class Failing:
    """Raises from every protocol method that an operation may reach."""

    def fail(self, *_: object) -> None:
        raise ZeroDivisionError("from the object")

    __eq__ = __gt__ = __bool__ = __len__ = __str__ = __contains__ = __getitem__ = __iter__ = fail  # type: ignore
    __hash__ = None  # type: ignore[assignment]


def test_an_object_counts_one_reference_through_every_step_of_its_life():
    """Copy, move, self-assignment, self-move, replacement, containers and release leave exact counts."""
    assert layer.lifetimes(object()) == [1, 2, 2, 2, 2, 1, 4, 3, 3, 0]


def test_equality_asks_the_object_even_for_itself():
    """`==` is not shortened by identity, as an `if a == b` is not."""
    silent = Silent()
    assert layer.equals(silent, silent) is False
    assert layer.equals(1, 1.0) is True


def test_a_comparison_result_is_tested_for_truth():
    """An `__eq__` may return any object; its truth decides."""

    class Odd:
        def __eq__(self, other: object) -> object:  # type: ignore[override]
            return [] if other == 1 else [0]

        __hash__ = None  # type: ignore[assignment]

    assert layer.equals(Odd(), 1) is False
    assert layer.equals(Odd(), 2) is True


@pytest.mark.parametrize(
    "operation",
    [
        lambda: layer.equals(Failing(), 1),
        lambda: layer.greater(Failing(), 1),
        lambda: layer.truthy(Failing()),
        lambda: layer.length(Failing()),
        lambda: layer.text(Failing()),
        lambda: layer.formatted(Failing()),
        lambda: layer.contains(Failing(), 1),
        lambda: layer.item(Failing(), 1),
        lambda: layer.collect(Failing()),
        lambda: layer.unpack_pair(Failing()),
    ],
    ids=["equals", "greater", "truthy", "len", "str", "format", "in", "item", "iterate", "unpack"],
)
def test_an_error_of_an_operand_travels_on_unchanged(operation):
    """What a protocol method raises reaches the caller."""
    with pytest.raises(ZeroDivisionError, match="from the object"):
        operation()


IN_PYTHON = {
    "name_equals": lambda a, b: True if a.name == b else False,
    "names_are_equal": lambda a, b: True if a.name == b.name else False,
    "names_contain": lambda a, b: b in a.name and b in a.name,
    "item_of_name": lambda a, b: a.name[b][b],
    "item_of_item_at": lambda a: a.name[0][0],
    "first_of_first": lambda a: a.name[0][0],
}


@pytest.mark.parametrize("operation", IN_PYTHON)
def test_a_temporary_goes_as_soon_as_it_has_served(operation):
    """Before the truth of what came of it is asked, and before the next operation."""

    class Temporary:
        def __init__(self, log, name):
            self.log, self.own_name = log, name
            log.append(f"made {name}")

        def __del__(self):
            self.log.append(f"dropped {self.own_name}")

        def step(self, kind):
            return Temporary(self.log, f"{self.own_name} {kind}")

        name = property(lambda self: self.step("name"))

        def __eq__(self, other):
            return self.step("comparison")

        def __bool__(self):
            self.log.append(f"truth of {self.own_name}")
            return True

        def __contains__(self, other):
            return self.step("search")

        def __getitem__(self, key):
            return self.step("item")

    def steps(operate):
        log = []
        names = signature(IN_PYTHON[operation]).parameters
        given = [Temporary(log, name) for name in names]
        result = operate(*given)
        log.append("done")
        del result, given
        return log

    assert steps(getattr(layer, operation)) == steps(IN_PYTHON[operation])


def test_a_missing_attribute_raises_the_interpreters_error():
    """`o.name` on an object without it is Python's AttributeError."""
    with pytest.raises(AttributeError, match="'int' object has no attribute 'name'"):
        layer.get_name(1)


def test_an_index_is_read_from_lists_their_subclasses_and_sequences():
    """`o[i]` is the list's own element for a list and `__getitem__` for everything else."""

    class Doubling(list):
        def __getitem__(self, index):
            return 2 * super().__getitem__(index)

    assert layer.item_at([1, 2], 1) == 2
    assert layer.item_at([1, 2], -1) == 2
    assert layer.item_at(Doubling([1, 2]), 1) == 4
    assert layer.item_at((1, 2), 0) == 1
    with pytest.raises(IndexError, match="list index out of range"):
        layer.item_at([1, 2], 2)


def test_an_index_is_written_through_the_protocol():
    """`o[i] = v` reaches an overridden `__setitem__`."""
    seen = []

    class Recording(list):
        def __setitem__(self, index, value):
            seen.append((index, value))

    layer.set_item_at(Recording([1]), 0, "x")
    plain = [1]
    layer.set_item_at(plain, 0, "y")
    assert (seen, plain) == ([(0, "x")], ["y"])


def test_a_call_passes_positions_and_keywords_in_order():
    """`f(a, second=b, third=a)` arrives as written, keyword order included."""

    def record(*args, **kwargs):
        return args, list(kwargs.items())

    class Owner:
        def method(self, *args, **kwargs):
            return args, list(kwargs.items())

    assert layer.call_mixed(record, 1, 2) == ((1,), [("second", 2), ("third", 1)])
    assert layer.call_method(Owner(), 1, 2) == ((1,), [("second", 2)])


def test_a_class_that_is_called_makes_an_instance_as_python_does():
    """Its attributes lie where Python puts them: from 3.11 on in the instance, without a dictionary."""

    class Record:
        def __init__(self, first, second, third):
            self.first, self.second, self.third = first, second, third

    made = layer.call_mixed(Record, "a", "b")
    assert gc.get_referents(made) == gc.get_referents(Record("a", second="b", third="a"))
    assert vars(made) == {"first": "a", "second": "b", "third": "a"}


@pytest.mark.parametrize("entry", ["call_method_of_answers", "call_attribute_of_answers"])
def test_what_is_called_is_looked_up_before_its_arguments_are_evaluated(entry):
    """A method is looked up, then its arguments are evaluated from left to right, then it is called."""
    events = []

    class Owner:
        @property
        def method(self):
            events.append("looked up")
            return lambda *given, **named: events.append((given, named))

    numbers = iter(range(2))

    def argument():
        number = next(numbers)
        events.append(f"argument {number}")
        return number

    getattr(layer, entry)(Owner(), argument)
    assert events == ["looked up", "argument 0", "argument 1", ((0,), {"second": 1})]


def test_arguments_are_not_evaluated_for_a_missing_method():
    """A look-up that fails leaves the arguments alone."""
    events = []
    with pytest.raises(AttributeError):
        layer.call_method_of_answers(object(), lambda: events.append("argument"))
    with pytest.raises(NameError):
        layer.call_global_of_answers(lambda: events.append("argument"))
    assert events == []


def test_braces_are_evaluated_left_to_right():
    """The elements of a literal are made in the order in which they are written."""
    numbers = iter(range(10))
    assert layer.in_braces(lambda: next(numbers)) == [0, 1, 2]
    assert list(layer.dict_of(lambda: next(numbers)).items()) == [("a", 3), ("b", 4)]


def test_texts_are_joined_as_the_plus_operator_joins_them():
    """`a + b + c`, with the operator's own TypeError for a value that is no text."""
    assert layer.joined("a", "b", "c") == "abc"
    with pytest.raises(TypeError, match='can only concatenate str \\(not "int"\\) to str'):
        layer.joined("a", 1, "c")


def test_names_are_looked_up_at_each_call():
    """A global is found in the module, then in the built-ins, else it is a NameError that carries its
    name."""
    with pytest.raises(NameError, match="name 'a_global_of_the_test' is not defined") as caught:
        layer.read_global(None)
    assert caught.value.name == "a_global_of_the_test"
    layer.a_global_of_the_test = 1
    try:
        assert layer.read_global(None) == 1
    finally:
        del layer.a_global_of_the_test
    builtins.a_global_of_the_test = 2
    try:
        assert layer.read_global(None) == 2
    finally:
        del builtins.a_global_of_the_test


@pytest.mark.parametrize("name, function", [("len", "length"), ("isinstance", "is_a"), ("str", "text")])
def test_a_built_in_replaced_in_the_module_is_honoured(name, function, monkeypatch):
    """len, isinstance and str are looked up as well: a test may put its own in the module."""
    monkeypatch.setattr(layer, name, lambda *args: len(args), raising=False)
    result = getattr(layer, function)(*([7] * (2 if name == "isinstance" else 1)))
    assert result == {"len": 1, "isinstance": True, "str": 1}[name]


def test_an_import_inside_a_function_is_pythons_import():
    """`from json import dumps` gives the object, and missing names the interpreter's texts."""
    import json

    assert layer.import_one(None) is json.dumps
    with pytest.raises(
        ImportError, match="cannot import name 'no_such_name' from 'json' \\(.*json.*__init__.py\\)"
    ) as caught:
        layer.import_missing(None)
    assert (caught.value.name, caught.value.path) == ("json", json.__file__)
    with pytest.raises(ModuleNotFoundError, match="No module named 'no_such_module_here'"):
        layer.import_nowhere(None)


def test_an_import_goes_through_a_replaced_import_function(monkeypatch):
    """`__import__` is taken from the built-ins at the time of the call."""
    calls = []
    genuine = builtins.__import__

    def recording(name, globals=None, locals=None, fromlist=(), level=0):
        calls.append((name, fromlist, level))
        return genuine(name, globals, locals, fromlist, level)

    monkeypatch.setattr(builtins, "__import__", recording)
    layer.import_one(None)
    monkeypatch.undo()
    assert ("json", ("dumps",), 0) in calls


def test_iteration_and_unpacking_use_the_interpreters_own_texts():
    """`for` and `a, b = pair` raise what the statements raise."""
    assert layer.collect(iter([1, 2])) == [1, 2]
    assert layer.unpack_pair([1, 2]) == layer.unpack_pair((1, 2)) == layer.unpack_pair(iter((1, 2))) == (1, 2)
    with pytest.raises(TypeError, match="'int' object is not iterable"):
        layer.collect(1)
    with pytest.raises(TypeError, match="cannot unpack non-iterable int object"):
        layer.unpack_pair(1)
    with pytest.raises(ValueError, match="not enough values to unpack \\(expected 2, got 1\\)"):
        layer.unpack_pair((1,))
    with pytest.raises(ValueError, match="too many values to unpack \\(expected 2"):
        layer.unpack_pair((1, 2, 3))


def test_a_lazy_search_stops_at_the_first_match():
    """`next((x for x in xs if wanted(x)), None)` looks no further than its match."""
    seen = []

    def wanted(x):
        seen.append(x)
        return x > 1

    assert layer.find([1, 2, 3], wanted) == 2
    assert seen == [1, 2]
    assert layer.find([], wanted) is None


def test_a_stop_iteration_inside_a_lazy_search_becomes_a_runtime_error():
    """As inside any generator expression, with the original as cause and context."""

    def wanted(_):
        raise StopIteration(3)

    with pytest.raises(RuntimeError, match="generator raised StopIteration") as caught:
        layer.find([1], wanted)
    assert isinstance(caught.value.__cause__, StopIteration)
    assert caught.value.__context__ is caught.value.__cause__


def test_operations_leave_no_reference_behind():
    """Counts of the operands are the same after thousands of calls, on the error paths too."""
    value, failing = object(), Failing()
    before = sys.getrefcount(value), sys.getrefcount(failing), sys.getrefcount(None)
    for _ in range(2000):
        layer.equals(value, value)
        layer.in_braces(lambda: value)
        layer.unpack_pair((value, value))
        layer.find([value], lambda x: True)
        for operation in (
            layer.truthy,
            layer.length,
            layer.text,
            layer.collect,
            layer.unpack_pair,
            layer.get_name,
        ):
            try:
                operation(failing)
            except (ZeroDivisionError, AttributeError):
                pass
    after = sys.getrefcount(value), sys.getrefcount(failing), sys.getrefcount(None)
    assert after[:2] == before[:2]
    assert sys.version_info >= (3, 12) or abs(after[2] - before[2]) < 50


def test_isinstance_asks_for_the_class_that_an_object_claims():
    """`__class__` as a property, from __getattribute__, and of a class with its own check."""

    class Plain:
        pass

    class Claims:
        __class__ = property(lambda self: Plain)  # type: ignore[assignment]

    class Hooked:
        def __getattribute__(self, name):
            return Plain if name == "__class__" else object.__getattribute__(self, name)

    class Checks(type):
        def __instancecheck__(cls, instance):
            return instance == 7

    derived = type("Derived", (Plain,), {})
    checked = Checks("Checked", (), {})
    for _ in range(3):
        for thing in (Plain(), derived(), Claims(), Hooked(), 7, Plain, derived):
            for kind in (Plain, derived, int, object, type, checked, (int, Plain)):
                assert layer.is_a(thing, kind) is isinstance(thing, kind), (thing, kind)
    late = type("Late", (), {})()
    assert layer.is_a(late, Plain) is False
    late.__class__ = derived
    assert layer.is_a(late, Plain) is True


def test_calls_pass_keywords_whatever_was_called_before():
    """Calls whose first keyword has the same name share a place for the names."""

    def given(*positional, **named):
        return positional, named

    for _ in range(3):
        assert layer.call_keywords(given, 1, 2) == [
            ((), {"first": 1}),
            ((), {"first": 1, "second": 2}),
            ((), {"first": 1, "third": 2}),
            ((1,), {"first": 2}),
        ]
