"""The options that sub-commands share, and the class of every sub-command."""

from __future__ import annotations

import signal
import threading
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from typing import TYPE_CHECKING, Any

import click

from tovarincore.command.context.completing import complete_contexts
from tovarincore.command.context.invocation import FORMS, Invocation
from tovarincore.command.context.numbers import Number
from tovarincore.command.errors.failures import TimeIsUp

if TYPE_CHECKING:
    from tovarincore.command.output.listings import View

__all__ = ["ListCommand", "NodesCommand", "output_options", "view_of", "yes_option"]

yes_option = click.option("--yes", "-y", is_flag=True, help="Do not ask.")

_LONGEST_SECONDS = 86400


def output_options() -> list[click.Parameter]:
    """Return the options that the command and every sub-command have."""
    return [
        click.Option(
            # Its value is looked for before the options are parsed.
            ["--context"],
            metavar="NAME",
            expose_value=False,
            shell_complete=complete_contexts,
            help="Use the credentials and the ledger of this named context.",
        ),
        click.Option(
            ["--json"],
            is_flag=True,
            expose_value=False,
            callback=_set("form", "json"),
            help="Write JSON instead of text, errors included; the same as -o json.",
        ),
        click.Option(
            ["--verbose", "-v"],
            is_flag=True,
            expose_value=False,
            callback=_set("verbose", True),
            help="Tell on standard error where requests go, and how long each takes.",
        ),
        click.Option(
            ["--debug"],
            is_flag=True,
            expose_value=False,
            callback=_set("debug", True),
            help="Show the log and, after an error, the traceback.",
        ),
    ]


def _set(name: str, meaning: object) -> Callable[[click.Context, click.Parameter, bool], None]:
    def set_it(context: click.Context, parameter: click.Parameter, value: bool) -> None:
        if value:
            setattr(context.ensure_object(Invocation), name, meaning)

    return set_it


def _set_form(context: click.Context, parameter: click.Parameter, value: str | None) -> None:
    if value is not None:
        context.ensure_object(Invocation).form = value


class NodesCommand(click.Command):
    """A sub-command: every one has ``-o``, ``--json``, ``--verbose``, ``--debug`` and a limit of time.

    :param own_timeout: its own ``--timeout`` means something else
    :param examples: command lines without the program's name, for the end of the help
    """

    forms: tuple[str, ...] = ("json", "yaml")

    def __init__(
        self, *arguments: Any, own_timeout: bool = False, examples: Sequence[str] = (), **attributes: Any
    ) -> None:
        super().__init__(*arguments, **attributes)
        self.examples = tuple(examples)
        if examples:
            self.epilog = "\b\nExamples:\n" + "\n".join(f"  tovarin-nodes {line}" for line in examples)
        self.params.append(
            click.Option(
                ["-o", "--output", "form"],
                type=click.Choice(self.forms),
                expose_value=False,
                callback=_set_form,
                help="Form of the result.",
            )
        )
        if not own_timeout:
            self.params.append(
                click.Option(
                    ["--timeout", "limit"],
                    type=Number(0, _LONGEST_SECONDS, min_open=True),
                    expose_value=False,
                    callback=_keep_limit,
                    metavar="SECONDS",
                    help="Longest time for the whole command.",
                )
            )
        self.params += output_options()

    def invoke(self, ctx: click.Context) -> Any:
        """Run the sub-command within its time, and write its document even if it ends with an error."""
        invocation = ctx.ensure_object(Invocation)
        try:
            with _within(ctx.meta.get(_LIMIT)), _shown_working(ctx, invocation):
                return super().invoke(ctx)
        finally:
            invocation.finish()


_LIMIT = "tovarincore.command.limit"


def _keep_limit(context: click.Context, parameter: click.Parameter, value: float | None) -> None:
    if value is not None:
        context.meta[_LIMIT] = value


@contextmanager
def _within(seconds: float | None) -> Iterator[None]:
    """Let the body end with :class:`TimeIsUp` when its time is over, wherever it waits."""
    if seconds is None or threading.current_thread() is not threading.main_thread():
        yield
        return

    def end(number: int, frame: object) -> None:
        raise TimeIsUp(f"the {seconds:g} s of --timeout are over")

    before = signal.signal(signal.SIGALRM, end)
    signal.setitimer(signal.ITIMER_REAL, seconds)
    try:
        yield
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)


@contextmanager
def _shown_working(context: click.Context, invocation: Invocation) -> Iterator[None]:
    from tovarincore.command.output.writer import error_is_terminal

    if invocation.structured or not error_is_terminal():
        yield
        return
    from tovarincore.command.output.progress import working

    region = f" {invocation.region.hash_key}" if invocation.region is not None else ""
    with working(f"{context.info_name}{region}"):
        yield


class ListCommand(NodesCommand):
    """A sub-command that lists: its result may be filtered, sorted and had in more forms."""

    forms = FORMS

    def __init__(self, *arguments: Any, **attributes: Any) -> None:
        super().__init__(*arguments, **attributes)
        options = (
            (["--columns"], {"metavar": "KEY,...", "help": "Columns to show, by the keys of the JSON form."}),
            (["--sort"], {"metavar": "KEY", "help": "Sort by this key; -KEY from high to low."}),
            (
                ["--filter", "filters"],
                {"metavar": "KEY=VALUE", "multiple": True, "help": "Only these; VALUE may be a pattern."},
            ),
            (["--no-headers"], {"is_flag": True, "help": "Leave the line of headings out."}),
        )
        added = [
            click.Option(names, expose_value=False, callback=_keep_view, **attributes)
            for names, attributes in options
        ]
        self.params[-4:-4] = added


_VIEW = "tovarincore.command.view"


def _keep_view(context: click.Context, parameter: click.Parameter, value: Any) -> None:
    context.meta.setdefault(_VIEW, {})[parameter.name] = value


def view_of(invocation: Invocation) -> View:
    """Return how the listing of the running sub-command is shown."""
    from tovarincore.command.output.listings import View

    kept = click.get_current_context().meta.get(_VIEW, {})
    columns = kept.get("columns") or ""
    return View(
        invocation.form,
        tuple(key.strip() for key in columns.split(",") if key.strip()),
        kept.get("sort") or "",
        tuple(kept.get("filters") or ()),
        not kept.get("no_headers"),
    )
