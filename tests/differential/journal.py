"""The journal of one program run: every event in order, the failures injected into it, and how values
are written down."""

from __future__ import annotations

import random
import sys
from types import SimpleNamespace
from typing import Any, Callable, Optional

from tests.fakes import client_error


class Aborted(Exception):
    """A program ran longer than any sensible one: both sides stop at the same event."""


class Injected(Exception):
    """An ordinary error from outside."""


class InjectedBase(BaseException):
    """An error that only a handler without a type catches."""


class Odd:
    """A value with one protocol method that raises."""

    def __init__(self, method: str) -> None:
        self.method = method

    def __repr__(self) -> str:
        return f"Odd({self.method})"

    def _raise_if(self, method: str) -> None:
        if self.method == method:
            raise Injected(method)

    def __eq__(self, other: object) -> bool:
        self._raise_if("__eq__")
        return self is other

    __hash__ = None  # type: ignore[assignment]

    def __bool__(self) -> bool:
        self._raise_if("__bool__")
        return True

    def __len__(self) -> int:
        self._raise_if("__len__")
        return 3

    def __str__(self) -> str:
        self._raise_if("__str__")
        return "odd text"

    def __iter__(self) -> Any:
        self._raise_if("__iter__")
        return iter((1, 2))


# What may happen instead of an event's ordinary outcome: an error, or another value in its place.
ERRORS: dict[str, Callable[[], BaseException]] = {
    "exception": lambda: Injected("injected"),
    "base": lambda: InjectedBase("injected"),
    "interrupt": KeyboardInterrupt,
    "exit": lambda: SystemExit(3),
    "stop": lambda: StopIteration(1),
    "generator exit": GeneratorExit,
    "memory": MemoryError,
    "key": lambda: KeyError("Reservations"),
    "attribute": lambda: AttributeError("injected"),
    "timeout": TimeoutError,
    "client: empty": lambda: client_error({}),
    "client: no code": lambda: client_error({"Error": {}}),
    "client: dry run": lambda: client_error({"Error": {"Code": "DryRunOperation"}}),
    "client: refused": lambda: client_error({"Error": {"Code": "UnauthorizedOperation", "Message": "no"}}),
    "client: refused, silent": lambda: client_error({"Error": {"Code": "UnauthorizedOperation"}}),
    "client: other": lambda: client_error({"Error": {"Code": "Other", "Message": "text"}}),
    "client: not a table": lambda: client_error({"Error": "ErrorCode"}),
    "client: null": lambda: client_error(None),  # type: ignore[arg-type]
}
VALUES: dict[str, Callable[[], Any]] = {
    "None": lambda: None,
    "False": lambda: False,
    "empty text": lambda: "",
    "text": lambda: "some text",
    "zero": lambda: 0,
    "empty tuple": lambda: (),
    "single": lambda: (1,),
    "triple": lambda: (1, 2, 3),
    "empty dict": dict,
    "odd eq": lambda: Odd("__eq__"),
    "odd bool": lambda: Odd("__bool__"),
    "odd len": lambda: Odd("__len__"),
    "odd str": lambda: Odd("__str__"),
    "odd iter": lambda: Odd("__iter__"),
}
FAILURES = [*ERRORS, *VALUES]

LONGEST_PROGRAM = 4000


class Journal:
    """Notes events; at event `fail_at` the named failure happens instead."""

    def __init__(self, seed: int, fail_at: Optional[int] = None, failure: str = "exception") -> None:
        self.random = random.Random(seed)
        self.health = self.random.choice((0.0, 0.8, 0.97))
        self.events: list[tuple[str, ...]] = []
        # Events at which a failure can be injected; the results and states between them are none.
        self.noted = 0
        self.fail_at = fail_at
        self.failure = failure
        self.numbers: dict[int, int] = {}
        self.kept: list[Any] = []  # numbered objects stay alive, so that their ids stay theirs

    def note(self, *event: Any, outcome: Callable[[], Any] = lambda: None) -> Any:
        """Notes one event with the handled exception of the moment, and gives its outcome or the
        injected one."""
        number = self.noted
        self.noted += 1
        handled = sys.exc_info()[1]
        self.events.append(
            (
                *(part if isinstance(part, str) else self.show(part) for part in event),
                self.show_error(handled),
            )
        )
        if number > LONGEST_PROGRAM:
            raise Aborted
        if number == self.fail_at:
            if self.failure in ERRORS:
                raise ERRORS[self.failure]()
            return VALUES[self.failure]()
        return outcome()

    def choice(self, *options: Any) -> Any:
        """One of the options, each as likely as the others."""
        return self.random.choice(options)

    def prefer(self, usual: Any, *others: Any) -> Any:
        """The usual option, or now and then another: how often is the program's own health."""
        return usual if self.random.random() < self.health else self.random.choice((usual, *others))

    def number_of(self, value: Any) -> int:
        """The rank of an object among those shown so far: the same in both runs, unlike its id."""
        if id(value) not in self.numbers:
            self.numbers[id(value)] = len(self.numbers)
            self.kept.append(value)
        return self.numbers[id(value)]

    def show(self, value: Any, depth: int = 0) -> str:
        """A text for any value that is the same in both runs when the values correspond."""
        if value is None or type(value) in (str, int, bool, float, bytes):
            return repr(value)
        label = getattr(type(value), "journal_label", None)
        if label is not None:
            return str(label(value))
        if depth > 6:
            return "..."
        kind = type(value)
        if isinstance(value, (list, tuple)):
            elements = list.__iter__(value) if isinstance(value, list) else tuple.__iter__(value)
            return f"{kind.__name__}[{', '.join(self.show(element, depth + 1) for element in elements)}]"
        if kind is dict:
            return (
                "{"
                + ", ".join(f"{self.show(k, depth + 1)}: {self.show(v, depth + 1)}" for k, v in value.items())
                + "}"
            )
        if isinstance(value, BaseException):
            return self.show_error(value)
        if isinstance(value, Odd):
            return repr(value)
        if kind is SimpleNamespace:
            return "record" + self.show(vars(value), depth + 1)
        if isinstance(value, type):
            return f"class {value.__name__}"
        return f"<{kind.__name__} {self.number_of(value)}>"

    def show_error(self, error: Optional[BaseException], depth: int = 0) -> str:
        """Type, arguments, cause and context of an error."""
        if error is None:
            return "-"
        if depth > 8:
            return "..."
        parts = [type(error).__name__, self.show(error.args)]
        if error.__cause__ is not None:
            parts.append("from " + self.show_error(error.__cause__, depth + 1))
        if error.__context__ is not None and error.__context__ is not error.__cause__:
            parts.append("during " + self.show_error(error.__context__, depth + 1))
        if error.__suppress_context__:
            parts.append("suppressed")
        return f"({' '.join(parts)})"
