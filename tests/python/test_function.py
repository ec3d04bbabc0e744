"""Native methods behave as Python functions, and classes made from tables as class statements."""

import copy
import gc
import inspect
import pickle
import pydoc
import typing
import weakref
from unittest import mock

import pytest

from tests.python import _object_layer as layer


class Twin:
    """The same class, written in Python."""

    kind = "sample"

    def __init__(self, value: "int") -> "None":
        super().__init__()
        self.value = value

    def echo(self, a: "str", b=None, c: "bool" = True) -> "Tuple[str, None, bool]":  # type: ignore # noqa: F821
        """Returns its arguments."""
        return a, b, c

    def fail(self):
        return self.no_such_attribute  # type: ignore[attr-defined]

    def recurse(self):
        return self.again()  # type: ignore[attr-defined]

    @staticmethod
    def __hidden(a):
        return a


Sample = layer.Sample

CALLS = [
    ((), {}),
    ((1,), {}),
    ((1, 2, 3), {}),
    ((1, 2, 3, 4), {}),
    ((), {"a": 1, "c": 3}),
    ((1,), {"a": 2}),
    ((), {"b": 2}),
    ((1,), {"d": 2}),
    ((1,), {"c": 2, "b": 5}),
    ((), {"self": 1}),
]


def outcome(function, args, kwargs):
    try:
        return function(*args, **kwargs)
    except TypeError as error:
        return str(error).replace("Twin.", "Sample.")


@pytest.mark.parametrize("args, kwargs", CALLS, ids=[f"{args}{kwargs}" for args, kwargs in CALLS])
def test_arguments_are_bound_as_python_binds_them(args, kwargs):
    """Positions, keywords, defaults, and the interpreter's own TypeError texts."""
    assert outcome(Sample(1).echo, args, kwargs) == outcome(Twin(1).echo, args, kwargs)
    assert outcome(Sample.echo, args, kwargs) == outcome(Twin.echo, args, kwargs)


def test_a_keyword_that_is_equal_but_not_identical_is_found():
    """A name built at run time names the parameter as well."""
    assert Sample(1).echo(**{"".join(["a"]): 1, "".join("b"): 2}) == (1, 2, True)


@pytest.mark.parametrize("name", ["__init__", "echo", "fail"])
def test_what_a_function_shows_of_itself_is_the_same(name):
    """Names, defaults, annotations, doc, signature and arguments, as inspect tells them."""
    ours, plain = getattr(Sample, name), getattr(Twin, name)
    for attribute in ("__name__", "__defaults__", "__kwdefaults__", "__annotations__", "__doc__"):
        assert getattr(ours, attribute) == getattr(plain, attribute), attribute
    assert ours.__qualname__ == f"Sample.{name}"
    assert ours.__module__ == layer.__name__
    assert inspect.signature(ours) == inspect.signature(plain)
    assert inspect.getfullargspec(ours) == inspect.getfullargspec(plain)
    assert inspect.signature(getattr(Sample(1), name)) == inspect.signature(getattr(Twin(1), name))
    assert repr(ours).startswith(f"<function Sample.{name} at 0x")


def test_annotations_resolve_in_the_module(monkeypatch):
    """typing.get_type_hints evaluates the strings with the function's globals."""
    monkeypatch.setattr(layer, "Tuple", typing.Tuple, raising=False)
    assert typing.get_type_hints(Sample.echo)["return"] == typing.Tuple[str, None, bool]


def test_help_shows_the_methods_with_their_signatures():
    """pydoc takes our functions for routines."""
    text = pydoc.plain(pydoc.render_doc(Sample))
    assert (
        "echo(self, a: 'str', b=None, c: 'bool' = True) -> 'Tuple[str, None, bool]'\n"
        " |      Returns its arguments." in text
    )


def test_private_static_methods_are_stored_under_their_mangled_name():
    """As a class statement does."""
    assert isinstance(Sample.__dict__["_Sample__hidden"], staticmethod)
    assert Sample._Sample__hidden(3) == Sample(1)._Sample__hidden(3) == 3
    assert Sample._Sample__hidden.__name__ == Twin._Twin__hidden.__name__ == "__hidden"


def test_class_attributes_and_super_work():
    """`kind` is readable without an instance, and __init__ reached its base."""
    assert Sample.kind == "sample"
    assert Sample(5).value == 5
    assert list(Sample.__dict__)[:4] == ["__module__", "kind", "__init__", "echo"]


def test_an_abstract_method_forbids_instances():
    """The class is made by its metaclass, so abstractness is Python's."""
    with pytest.raises(TypeError, match="abstract method"):
        layer.Base()
    assert layer.Base.required.__isabstractmethod__ is True
    assert layer.Base.__abstractmethods__ == frozenset({"required"})
    assert layer.Base.__doc__ == "A base with one abstract operation."


def test_functions_take_attributes_weak_references_copies_and_pickles():
    """What libraries do with functions."""
    Sample.echo.note = "kept"
    assert Sample.echo.note == "kept"
    del Sample.echo.note
    assert weakref.ref(Sample.echo)() is Sample.echo
    assert copy.deepcopy(Sample.echo) is Sample.echo
    assert pickle.loads(pickle.dumps(Sample.echo)) is Sample.echo


def test_defaults_can_be_replaced_as_on_a_function():
    """`__defaults__` is honoured at the next call, and refuses what is no tuple."""
    original = Sample.echo.__defaults__
    try:
        Sample.echo.__defaults__ = (7, 8, 9)
        assert Sample(1).echo() == (7, 8, 9)
        Sample.echo.__defaults__ = None
        with pytest.raises(TypeError, match="missing 3 required positional arguments"):
            Sample(1).echo()
        with pytest.raises(TypeError, match="must be set to a tuple"):
            Sample.echo.__defaults__ = [1]
    finally:
        Sample.echo.__defaults__ = original


def test_recursion_without_a_python_frame_ends_in_recursion_error():
    """A method that calls itself natively does not overflow the stack."""
    sample = Sample(1)
    sample.again = sample.recurse
    with pytest.raises(RecursionError):
        sample.recurse()


def test_calls_and_failed_calls_leave_nothing_behind():
    """Thousands of calls on each path leave no object on the collector's lists."""

    def round_trip():
        sample = Sample(object())
        sample.echo(1, c=2)
        for arguments in ((), (1, 2, 3, 4)):
            with pytest.raises(TypeError):
                sample.echo(*arguments)
        with pytest.raises(AttributeError):
            sample.fail()

    for _ in range(50):
        round_trip()
    gc.collect()
    before = len(gc.get_objects())
    for _ in range(300):
        round_trip()
    gc.collect()
    assert len(gc.get_objects()) - before < 50


@pytest.mark.parametrize("attribute", ["__name__", "__qualname__"])
def test_names_of_a_function_are_texts_and_stay(attribute):
    """They can be replaced, but neither deleted nor set to what is no text."""
    original = getattr(Sample.echo, attribute)
    with pytest.raises(TypeError, match=f"{attribute} must be set to a string object"):
        setattr(Sample.echo, attribute, 3)
    with pytest.raises(TypeError, match=f"{attribute} must be set to a string object"):
        delattr(Sample.echo, attribute)
    setattr(Sample.echo, attribute, "other")
    assert getattr(Sample.echo, attribute) == "other"
    setattr(Sample.echo, attribute, original)


class ChangesItsMind(str):
    """A name that is equal to nothing when it is first compared, and to everything later."""

    asked = 0
    __hash__ = str.__hash__

    def __eq__(self, other):
        self.asked += 1
        return self.asked > 4


class SetsDefaults(str):
    """A name that gives the function other defaults when it is compared."""

    function = None
    __hash__ = str.__hash__

    def __eq__(self, other):
        self.function.__defaults__ = (["new b"], ["new c"])
        return str(self) == other


def each_side(monkeypatch, tried):
    """What `tried(class, instance, function)` gives for our function, and for Python's."""
    results = []
    for owner in (Sample, Twin):
        with monkeypatch.context() as patched:
            for attribute in (
                "__defaults__", "__kwdefaults__", "__annotations__", "__doc__", "__name__", "__qualname__",
                "__module__",
            ):  # fmt: skip
                patched.setattr(owner.echo, attribute, getattr(owner.echo, attribute))
            try:
                result = tried(owner, owner(1), owner.echo)
            except Exception as error:
                result = f"{type(error).__name__}: {error}"
            results.append(repr(result).replace("Twin", "Sample"))
    return results


def code_replaced(owner, instance, function):
    original = function.__code__

    def other(self, a, b, c):
        return "other", a, b, c

    try:
        function.__code__ = other.__code__
        return instance.echo(1), instance.echo(1, 2, 3), function.__code__ is other.__code__
    finally:
        function.__code__ = original


def called_with(name, *arguments):
    def call(owner, instance, function):
        name.function = function
        return instance.echo(*arguments, **{name: "named"})

    return call


def assigned(attribute, value):
    def assign(owner, instance, function):
        setattr(function, attribute, value)
        return (
            getattr(function, attribute),
            outcome(instance.echo, (1,), {}),
            outcome(instance.echo, (), {"d": 1}),
        )

    return assign


def deleted(attribute):
    def delete(owner, instance, function):
        delattr(function, attribute)
        return getattr(function, attribute), outcome(instance.echo, (1,), {})

    return delete


TRIED = {
    "a name that is found late": lambda *which: called_with(ChangesItsMind("x"))(*which),
    "a name that is found late, after others": lambda *which: called_with(ChangesItsMind("x"), 1)(*which),
    "defaults set by a name that fits": lambda *which: called_with(SetsDefaults("a"))(*which),
    "defaults set by a name that does not": lambda *which: called_with(SetsDefaults("x"), 1)(*which),
    "defaults set by a name that comes twice": lambda *which: called_with(SetsDefaults("a"), 1)(*which),
    "other code": code_replaced,
    **{
        f"{attribute} = {value!r}": assigned(attribute, value)
        for attribute, values in {
            "__defaults__": [None, (), (5,), (5, 6), (5, 6, 7, 8, 9), [1], 3],
            "__kwdefaults__": [None, {}, {"c": 9}, 3],
            "__annotations__": [{}, {"a": int}, None, 3],
            "__closure__": [None, ()],
            "__builtins__": [{}],
            "__globals__": [{}],
            "__code__": [None, 3],
            "__name__": ["other", 3],
            "__qualname__": ["Other.other", 3],
            "__module__": ["elsewhere", None, 3],
            "__class__": [object],
        }.items()
        for value in values
    },
    **{
        f"del {attribute}": deleted(attribute)
        for attribute in (
            "__defaults__", "__kwdefaults__", "__annotations__", "__closure__", "__builtins__", "__globals__",
            "__code__", "__name__", "__qualname__", "__doc__", "__class__",
        )
    },
}  # fmt: skip


@pytest.mark.parametrize("tried", TRIED.values(), ids=TRIED.keys())
def test_it_takes_what_a_function_takes(monkeypatch, tried):
    """And gives the same results, and the same errors, down to their texts."""
    ours, plain = each_side(monkeypatch, tried)
    assert ours == plain


def test_it_has_every_attribute_that_a_function_has():
    """On this version of the interpreter; `__call__`, `__get__` and the like are the type's own business."""
    assert set(vars(type(Twin.echo))) - set(vars(type(Sample.echo))) <= {"__call__", "__get__", "__new__"}
    assert isinstance(Sample.echo, type(Twin.echo))
    assert Sample.echo.__closure__ is None
    assert Sample.echo.__globals__ is vars(layer)


def test_a_mock_with_its_specification_refuses_wrong_arguments():
    """As for a class written in Python: autospec knows signatures, and which argument is `self`."""
    for owner in (Sample, Twin):
        stand_in = mock.create_autospec(owner)
        stand_in(5).echo(1, c=2)
        with pytest.raises(TypeError):
            stand_in(5).echo(1, d=2)
        with pytest.raises(TypeError):
            stand_in(5).fail(1)
        with pytest.raises(TypeError):
            stand_in()
        with mock.patch.object(owner, "echo", autospec=True) as patched:
            instance = owner(1)
            instance.echo(1)
            patched.assert_called_once_with(instance, 1)
            with pytest.raises(TypeError):
                instance.echo(1, d=2)
        with pytest.raises(TypeError):
            mock.create_autospec(owner.echo)(1, 2, 3, 4, 5)


def test_a_docstring_can_be_replaced_and_deleted():
    """A deleted one reads as None, as a function's does."""
    original = Sample.echo.__doc__
    try:
        Sample.echo.__doc__ = ["any", "object"]
        assert Sample.echo.__doc__ == ["any", "object"]
        del Sample.echo.__doc__
        assert Sample.echo.__doc__ is None
    finally:
        Sample.echo.__doc__ = original
    assert Sample.echo.__doc__ is original
