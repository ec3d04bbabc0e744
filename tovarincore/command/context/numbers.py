"""Numbers on the command line: a wrong one is told with what is allowed."""

from __future__ import annotations

from typing import Any

import click

__all__ = ["Number", "WholeNumber"]


class _InPlainWords(click.ParamType):  # type: ignore[type-arg]  # generic in newer versions of click alone
    """Stands before click's own kind of number, and words its refusals."""

    name = "number"
    allowed = "a number"

    def convert(self, value: Any, param: click.Parameter | None, ctx: click.Context | None) -> Any:
        """Return the number."""
        try:
            return super().convert(value, param, ctx)
        except click.BadParameter:
            self.fail(f"'{value}' is not allowed; give {self.allowed} {_limits(self)}", param, ctx)


class WholeNumber(_InPlainWords, click.IntRange):
    """A whole number between two others."""

    allowed = "a whole number"


class Number(_InPlainWords, click.FloatRange):
    """A number between two others."""


def _limits(kind: Any) -> str:
    if kind.max is None:
        return f"from {kind.min:g} on"
    if kind.min_open:
        return f"above {kind.min:g}, at most {kind.max:g}"
    return f"from {kind.min:g} to {kind.max:g}"
