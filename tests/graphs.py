"""Random graphs of objects, and descriptions to compare their copies by."""

from __future__ import annotations

import collections
import copy
import datetime
import decimal
import enum
import functools
import random
import re
import types
import uuid
import weakref
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from typing import Any

ATOMIC = (type(None), bool, int, float, complex, str, bytes)


@dataclass
class Record:
    """A plain record, as the registry keeps them."""

    a: Any = None
    b: Any = None
    c: Any = field(default_factory=list)


class Plain:
    """Any attributes."""

    def __init__(self, **attributes: Any) -> None:
        self.__dict__.update(attributes)

    def method(self) -> None:
        """Something to bind."""


class Slotted:
    __slots__ = ("x", "y")


class SlottedAndDict:
    __slots__ = ("__dict__", "x")


class Hooked:
    """Copies itself, and leaves its own entry in the memo."""

    def __init__(self, value: Any) -> None:
        self.value = value

    def __deepcopy__(self, memo: dict[int, Any]) -> Hooked:
        assert type(memo) is dict
        made = Hooked(None)
        memo[id(self)] = made
        made.value = copy.deepcopy(self.value, memo)
        return made


class Itself:
    def __deepcopy__(self, memo: dict[int, Any]) -> Itself:
        return self


class Nothing:
    def __deepcopy__(self, memo: dict[int, Any]) -> None:
        return None


class WithState:
    def __init__(self, value: Any) -> None:
        self.value = value

    def __getstate__(self) -> Any:
        return [self.value]

    def __setstate__(self, state: Any) -> None:
        self.value = state[0]


class Reduced:
    def __init__(self, value: Any = None) -> None:
        self.value = value

    def __reduce_ex__(self, protocol: Any) -> Any:
        return Reduced, (self.value,), {"extra": [self.value]}


class ByName:
    def __reduce__(self) -> str:
        return "ByName"


class NewArguments:
    def __new__(cls, value: Any) -> NewArguments:
        made = super().__new__(cls)
        made.value = value  # type: ignore[attr-defined]
        return made

    def __getnewargs__(self) -> tuple[Any, ...]:
        return (self.value,)  # type: ignore[attr-defined]


class ListOf(list):  # type: ignore[type-arg]
    pass


class DictOf(dict):  # type: ignore[type-arg]
    pass


class TupleOf(tuple):  # type: ignore[type-arg]
    pass


class Text(str):
    pass


class Colour(enum.Enum):
    RED = "red"
    MANY = ("a", "b")
    LIST = [1]


class Count(enum.IntEnum):
    ONE = 1


class Bits(enum.Flag):
    A = 1
    B = 2


class Custom(enum.Enum):
    X = 1

    def __deepcopy__(self, memo: Any) -> Custom:
        return self


@dataclass(frozen=True)
class Frozen:
    a: Any
    b: Any = None


SLOTTED = [Slotted, SlottedAndDict]
WITH_BUILT_IN_BASES = [ListOf, DictOf, TupleOf, Text]

FIXED: list[Any] = [
    Itself(),
    Nothing(),
    ByName(),
    Colour.RED,
    Colour.MANY,
    Colour.LIST,
    Count.ONE,
    Bits.A,
    Bits.A | Bits.B,
    Custom.X,
    Text("text"),
    datetime.datetime(2024, 1, 2),
    decimal.Decimal("1.5"),
    uuid.UUID(int=5),
    re.compile("a+"),
    len,
    Plain,
    enum.EnumMeta,
    Plain.method,
    range(3),
    Ellipsis,
    NotImplemented,
    bytearray(b"ab"),
    weakref.ref(Plain),
]


def random_graph(seed: int, more: Sequence[Callable[[list[Any]], Any]] = ()) -> list[Any]:
    """Build a graph of up to forty objects, with aliases and cycles, the same for the same seed.

    :param more: makers of further kinds of objects out of given parts
    """
    rng = random.Random(seed)
    made: list[Any] = []
    unusual = rng.random() < 0.6

    def atom() -> Any:
        return rng.choice([None, True, 3, 2.5, "text", "", b"bytes", 1 << 70, "other", 1j, -1])

    def part() -> Any:
        roll = rng.random()
        if made and roll < 0.45:
            return rng.choice(made)
        if unusual and roll < 0.6:
            return rng.choice(FIXED)
        return atom()

    def parts(most: int = 4) -> list[Any]:
        return [part() for _ in range(rng.randrange(most + 1))]

    def keyed() -> dict[Any, Any]:
        keys = ["a", "b", "c", 1, 2.0, None, "long name"]
        return {rng.choice(keys): part() for _ in range(rng.randrange(4))}

    def slotted(kind: type) -> Any:
        thing = kind()
        if rng.random() < 0.8:
            thing.x = part()
        return thing

    plain = [
        lambda: parts(),
        lambda: tuple(parts()),
        lambda: keyed(),
        lambda: Plain(**{name: part() for name in rng.sample("pqrstu", rng.randrange(5))}),
        lambda: Record(part(), part(), parts()),
        lambda: Record(rng.choice([Bits.A, Count.ONE, Colour.RED]), atom(), []),
    ]
    others = [
        lambda: Hooked(part()),
        lambda: WithState(part()),
        lambda: Reduced(part()),
        lambda: NewArguments(part()),
        lambda: Frozen(part(), part()),
        lambda: slotted(Slotted),
        lambda: slotted(SlottedAndDict),
        lambda: ListOf(parts()),
        lambda: DictOf(keyed()),
        lambda: TupleOf(parts()),
        lambda: {atom() for _ in range(3)},
        lambda: frozenset(atom() for _ in range(3)),
        lambda: collections.deque(parts()),
        lambda: collections.OrderedDict(keyed()),
        lambda: collections.defaultdict(list, keyed()),
        lambda: types.SimpleNamespace(a=part()),
        lambda: Plain(a=part()).method,
        lambda: Plain(__odd__=part()),
        lambda: shared_attributes(),
        *(functools.partial(lambda make: make(parts()), make) for make in more),
    ]

    def shared_attributes() -> Any:
        thing = Plain(a=part())
        made.append(thing.__dict__)
        return thing

    for _ in range(rng.randrange(1, 40)):
        kinds = others if unusual and rng.random() < 0.4 else plain
        made.append(rng.choice(kinds)())
    for _ in range(rng.randrange(4)):  # cycles
        target, element = rng.choice(made), rng.choice(made)
        if type(target) is list and len(target) < 8:
            target.append(element)
        elif type(target) is Plain:
            target.back = element
        elif type(target) is dict:
            target["back"] = element
    return made


def parts_of(thing: Any) -> list[Any]:
    """What a graph goes on with behind an object, in a fixed order."""
    if isinstance(thing, type | types.FunctionType | enum.Enum) or type(thing) in ATOMIC:
        return []
    found: list[Any] = []
    if isinstance(thing, types.MethodType | types.BuiltinMethodType):
        found += [thing.__self__]
    if isinstance(thing, functools.partial | BaseException):
        found += thing.args
    if isinstance(thing, list | tuple | collections.deque):
        found += list(thing)
    if isinstance(thing, set | frozenset):
        found += sorted(thing, key=repr)
    if isinstance(thing, dict):
        for key, value in thing.items():
            found += [key, value]
    for name in getattr(type(thing), "__slots__", ()):
        if name != "__dict__" and hasattr(thing, name):
            found += [name, getattr(thing, name)]
    attributes = getattr(thing, "__dict__", None)
    if isinstance(attributes, dict):
        found += ["__dict__", attributes]
    return found


def numbered(graph: Any) -> dict[int, tuple[int, Any]]:
    """Number the objects of a graph in the order in which they are met, and keep them and so their ids."""
    numbers: dict[int, tuple[int, Any]] = {}
    waiting = [graph]
    while waiting:
        thing = waiting.pop()
        if id(thing) not in numbers:
            numbers[id(thing)] = (len(numbers), thing)
            waiting += reversed(parts_of(thing))
    return numbers


def describe(copied: Any, original: dict[int, tuple[int, Any]]) -> list[Any]:
    """Describe a copy: two copies of one original are alike exactly if their descriptions are equal."""
    numbers = numbered(copied)
    lines = []
    for number, thing in numbers.values():
        if type(thing) in ATOMIC:
            lines.append((number, type(thing), repr(thing)))
        elif id(thing) in original:
            lines.append((number, "original", original[id(thing)][0]))
        else:
            has_value = isinstance(thing, str | int) or (
                not parts_of(thing) and type(thing).__repr__ is not object.__repr__
            )
            kind = repr(thing) if has_value else ""
            lines.append((number, type(thing), kind, [numbers[id(part)][0] for part in parts_of(thing)]))
    return lines


def outcome(copier: Any, graph: Any, original: dict[int, tuple[int, Any]]) -> Any:
    """The description of the copy, or the error."""
    try:
        copied = copier(graph)
    except Exception as error:
        return type(error), str(error)
    return describe(copied, original)
