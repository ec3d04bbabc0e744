"""Native methods behave as Python functions, and classes made from tables as class statements."""

import copy
import gc
import inspect
import pickle
import pydoc
import typing
import weakref

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


def test_defaults_replaced_during_a_call_live_until_its_end():
    """The call goes on with the values that it began with."""
    original = Sample.echo.__defaults__

    class Trap(str):
        def __hash__(self):
            return hash("a")

        def __eq__(self, other):
            Sample.echo.__defaults__ = original
            return str(self) == other

    try:
        Sample.echo.__defaults__ = (["a"], ["b"], ["c"])
        assert Sample(1).echo(**{Trap("a"): 1}) in ((1, ["b"], ["c"]), (1, None, True))
    finally:
        Sample.echo.__defaults__ = original


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
