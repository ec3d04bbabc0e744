"""Numbers on the command line: a wrong one is told with what is allowed."""

from __future__ import annotations

from typing import Any

import click

__all__ = ["Number", "WholeNumber"]


class WholeNumber(click.IntRange):
    """A whole number between two others."""

    name = "number"

    def convert(self, value: Any, param: click.Parameter | None, ctx: click.Context | None) -> int:
        """Return the number."""
        try:
            number: int = super().convert(value, param, ctx)
        except click.BadParameter:
            self.fail(f"'{value}' is not allowed; give a whole number {_limits(self)}", param, ctx)
        return number


class Number(click.FloatRange):
    """A number between two others."""

    name = "number"

    def convert(self, value: Any, param: click.Parameter | None, ctx: click.Context | None) -> float:
        """Return the number."""
        try:
            number: float = super().convert(value, param, ctx)
        except click.BadParameter:
            self.fail(f"'{value}' is not allowed; give a number {_limits(self)}", param, ctx)
        return number


def _limits(kind: click.IntRange | click.FloatRange) -> str:
    if kind.max is None:
        return f"from {kind.min:g} on"
    return (
        f"above {kind.min:g}, at most {kind.max:g}" if kind.min_open else f"from {kind.min:g} to {kind.max:g}"
    )
