"""Objects that note everything that is done to them, and answer by the name under which they were reached."""

from __future__ import annotations

from typing import Any

from tests.differential.journal import Journal

_OWN = ("_journal", "_label", "_values")


class Probe:
    """Notes attribute reads and writes, calls, comparisons, truth tests, lengths, iteration and texts.

    An attribute or a result is made once, by `answers.attribute` or `answers.result`, and kept.
    """

    def __init__(self, journal: Journal, label: str) -> None:
        object.__setattr__(self, "_journal", journal)
        object.__setattr__(self, "_label", f"{label}#{len(journal.kept)}")
        object.__setattr__(self, "_values", {})
        journal.kept.append(self)

    def journal_label(self) -> str:
        return str(object.__getattribute__(self, "_label"))

    def __getattribute__(self, name: str) -> Any:
        if name in _OWN or (name.startswith("__") and name.endswith("__")):
            return object.__getattribute__(self, name)
        from tests.differential import answers

        values = self._values

        def read() -> Any:
            if name not in values:
                values[name] = answers.attribute(self._journal, f"{self._label}.{name}", name)
            return values[name]

        return self._journal.note("get", self._label, name, outcome=read)

    def __setattr__(self, name: str, value: Any) -> None:
        self._journal.note("set", self._label, name, value)
        self._values[name] = value

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        from tests.differential import answers

        name = self._label.rsplit(".", 1)[-1].split("#")[0]
        return self._journal.note(
            "call", self._label, args, kwargs, outcome=lambda: answers.result(self._journal, name, args)
        )

    def __eq__(self, other: object) -> Any:
        return self._journal.note(
            "eq", self._label, other, outcome=lambda: self is other or self._journal.choice(True, False)
        )

    __hash__ = None  # type: ignore[assignment]

    def __bool__(self) -> bool:
        return bool(self._journal.note("bool", self._label, outcome=lambda: True))

    def __len__(self) -> int:
        length = self._journal.note("len", self._label, outcome=lambda: self._journal.choice(0, 1, 12))
        return length if isinstance(length, int) else 1

    def __str__(self) -> str:
        text = self._journal.note("str", self._label, outcome=lambda: f"<{self._label}>")
        return text  # type: ignore[no-any-return]

    def __repr__(self) -> str:
        return f"<{self._label}>"

    def __format__(self, form: str) -> str:
        text = self._journal.note("format", self._label, form, outcome=lambda: f"<<{self._label}>>")
        return text  # type: ignore[no-any-return]

    def __getitem__(self, key: Any) -> Any:
        from tests.differential import answers

        return self._journal.note(
            "item",
            self._label,
            key,
            outcome=lambda: answers.attribute(self._journal, f"{self._label}.{key}", str(key)),
        )

    def __setitem__(self, key: Any, value: Any) -> None:
        self._journal.note("set item", self._label, key, value)

    def __contains__(self, key: Any) -> bool:
        return bool(
            self._journal.note("in", self._label, key, outcome=lambda: self._journal.choice(True, False))
        )

    def __iter__(self) -> Any:
        journal = self._journal
        journal.note("iter", self._label)
        for index in range(journal.choice(0, 1, 3)):
            yield journal.note(
                "next",
                self._label,
                index,
                outcome=lambda index=index: Probe(journal, f"{self._label}.{index}"),
            )

    def __gt__(self, other: Any) -> Any:
        return self._journal.note("gt", self._label, other, outcome=lambda: self._journal.choice(True, False))

    def __lt__(self, other: Any) -> Any:
        return self._journal.note("lt", self._label, other, outcome=lambda: self._journal.choice(True, False))

    def __add__(self, other: Any) -> Any:
        return self._journal.note("add", self._label, other, outcome=lambda: Probe(self._journal, "sum"))

    def __radd__(self, other: Any) -> Any:
        return self._journal.note("radd", self._label, other, outcome=lambda: Probe(self._journal, "sum"))


class NotedList(list):  # type: ignore[type-arg]
    """A list subclass whose reads and writes are noted: what a caller may have put in the registry's or
    pool's place."""

    journal: Journal

    @classmethod
    def make(cls, journal: Journal, elements: Any) -> NotedList:
        made = cls(elements)
        made.journal = journal
        return made

    def __getitem__(self, index: Any) -> Any:
        return self.journal.note("list item", index, outcome=lambda: list.__getitem__(self, index))

    def __setitem__(self, index: Any, value: Any) -> None:
        self.journal.note("list set", index, value)
        list.__setitem__(self, index, value)

    def __len__(self) -> int:
        self.journal.note("list len")
        return list.__len__(self)

    def __iter__(self) -> Any:
        self.journal.note("list iter")
        return list.__iter__(self)

    def append(self, value: Any) -> None:
        self.journal.note("list append", value)
        list.append(self, value)

    def clear(self) -> None:
        self.journal.note("list clear")
        list.clear(self)


def noted_class(journal: Journal, name: str) -> type:
    """A class whose instance checks are noted, for names that the module gives to isinstance."""

    class Noted(type):
        def __instancecheck__(cls, instance: Any) -> Any:
            return journal.note(
                "isinstance", name, instance, outcome=lambda: type.__instancecheck__(cls, instance)
            )

    return Noted(name, (), {"journal_label": lambda self: f"{name} instance"})
