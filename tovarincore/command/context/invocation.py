"""One run of the command: what it works on, and how it shows results, notes and failures."""

from __future__ import annotations

from collections.abc import Callable, Iterator, Mapping, Sequence
from contextlib import contextmanager
from typing import TYPE_CHECKING, Any

import click

from tovarincore.command.errors.failures import CommandFailure, ExitCode

if TYPE_CHECKING:
    from tovarincore.cloud_def import CloudRegion
    from tovarincore.command.output.listings import Listing, View

__all__ = ["DOCUMENT_VERSION", "FORMS", "Invocation", "confirm", "pass_invocation"]

DOCUMENT_VERSION = 1
"""Version of all documents for programs; it rises when a key changes its meaning or goes."""
FORMS = ("table", "wide", "name", "json", "yaml", "csv")


class Invocation:
    """How this run shows things.

    :param arguments: the words after the program's name
    """

    def __init__(self, arguments: Sequence[str] = ()) -> None:
        # Looked for here too: an argument that cannot be parsed is reported before the options are known.
        self.arguments = tuple(arguments)
        self.form = _early_form(arguments)
        self.context = _early_context(arguments)
        self.debug = "--debug" in arguments
        self.verbose = "--verbose" in arguments or "-v" in arguments
        self.region: CloudRegion | None = None
        self.profile: str | None = None
        self._notes: list[str] = []
        self._document: dict[str, Any] | None = None
        self._pending: CommandFailure | None = None

    @property
    def structured(self) -> bool:
        """Whether a program reads documents: notes and errors are parts of documents then."""
        return self.form in ("json", "yaml")

    def emit(self, kind: str, item: Mapping[str, Any], draw: Callable[[], None]) -> None:
        """Show one result: as a document, or as ``draw`` writes it for people."""
        if self.structured:
            self._document = {"kind": kind, "item": dict(item)}
        else:
            draw()

    def emit_list(self, listing: Listing, items: Sequence[Mapping[str, Any]], view: View) -> int:
        """Show a listing in the form that was asked for; columns that did not fit are told.

        :return: how many items the filters let through
        """
        from tovarincore.command.output.listings import choose, draw
        from tovarincore.command.output.writer import terminal_width, write

        shown = choose(view, listing, [dict(item) for item in items])
        if self.structured:
            self._document = {"kind": listing.kind, "items": shown}
            return len(shown)
        lines, left_out = draw(view, listing, shown, terminal_width())
        if lines:
            write("\n".join(lines))
        if left_out:
            self.note(f"left out: {', '.join(left_out)}; -o wide shows all")
        return len(shown)

    def emit_items(self, kind: str, items: Sequence[Mapping[str, Any]]) -> None:
        """Give a program the results of which people were told one by one."""
        if self.structured:
            self._document = {"kind": kind, "items": [dict(item) for item in items]}

    def emit_now(self, document: Mapping[str, Any]) -> None:
        """Write a document at once, on one line: one of a series that goes on."""
        from tovarincore.command.output.writer import to_json, to_yaml, write

        whole = {"version": DOCUMENT_VERSION, **document, "notes": self._take_notes()}
        write("---\n" + to_yaml(whole) if self.form == "yaml" else to_json(whole, indent=None))

    def say(self, text: str) -> None:
        """Tell a person the result, on standard output."""
        self._line(text)

    def say_as_is(self, text: str) -> None:
        """Write lines for a program on standard output."""
        from tovarincore.command.output.writer import write

        write(text)

    def note(self, text: str) -> None:
        """Tell something that is not the result: on standard error, or in the document."""
        if self.structured:
            self._notes.append(text)
        else:
            self._line(text, err=True)

    def tell(self, text: str) -> None:
        """Tell on standard error what is going on, as --verbose asks; documents hold nothing of it."""
        self._line(text, err=True)

    def finish(self) -> None:
        """Write the document, with its notes, when the command has done what it could."""
        if self._document is not None:
            from tovarincore.command.output.writer import to_json, to_yaml, write

            whole = {"version": DOCUMENT_VERSION, **self._document, "notes": self._take_notes()}
            self._document = None
            write(to_yaml(whole) if self.form == "yaml" else to_json(whole))

    def report(self, failure: CommandFailure) -> None:
        """Show what ended the command, on standard error."""
        if self.structured:
            from tovarincore.command.output.writer import to_json, write

            error = {"what": failure.what, "remedy": failure.remedy, "exit_code": int(failure.code)}
            document = {"version": DOCUMENT_VERSION, "kind": "error", "error": error}
            write(to_json({**document, "notes": self._take_notes()}, indent=None), err=True)
            return
        self._line(f"error: {failure.what}", err=True)
        if failure.remedy:
            self._line(f"  try: {failure.remedy}", err=True)

    @contextmanager
    def changing(self, what: str, remedy: str) -> Iterator[None]:
        """Say what Ctrl-C or the end of the time leaves open while the body changes something.

        :param what: what may have happened
        :param remedy: how to find out
        """
        self._pending = CommandFailure(what, remedy)
        yield
        # Not in a finally clause: what ends the command looks at it.
        self._pending = None

    def cut_short(self, why: str, code: ExitCode) -> CommandFailure:
        """Return the failure of a command that did not come to its end.

        :param why: what cut it short, in one or two words
        """
        if self._pending is None:
            return CommandFailure(why, code=code)
        return CommandFailure(f"{why}: {self._pending.what}", self._pending.remedy, code)

    def _line(self, text: str, err: bool = False) -> None:
        from tovarincore.command.output.text import printable
        from tovarincore.command.output.writer import write

        write(printable(text), err=err)

    def _take_notes(self) -> list[str]:
        notes, self._notes = self._notes, []
        return notes


pass_invocation = click.make_pass_decorator(Invocation)


def confirm(invocation: Invocation, question: str, yes: bool) -> None:
    """Ask before something is ended.

    :param question: what would be done
    :param yes: the answer was given in advance
    :raises CommandFailure: the answer is no, or there is nobody to give one
    """
    if yes:
        return
    if invocation.structured:
        raise CommandFailure(
            f"with -o {invocation.form} no question is asked; nothing was changed",
            "answer it in advance with --yes",
            ExitCode.USAGE,
        )
    from tovarincore._transport.masker import mask
    from tovarincore.command.output import progress
    from tovarincore.command.output.text import printable

    progress.clear()
    try:
        agreed = click.confirm(printable(mask(question)), err=True)
    except click.Abort as ended:
        click.echo(err=True)
        if isinstance(ended.__context__, KeyboardInterrupt):
            raise CommandFailure("interrupted: nothing was changed", code=ExitCode.INTERRUPTED) from None
        raise CommandFailure(
            "nobody answered the question; nothing was changed", "answer it in advance with --yes"
        ) from None
    if not agreed:
        raise CommandFailure("nothing was changed")


def _early_form(arguments: Sequence[str]) -> str:
    for index, word in enumerate(arguments):
        if word in ("--json", "-ojson", "--output=json"):
            return "json"
        if word in ("-o", "--output") and arguments[index + 1 : index + 2] == ["json"]:
            return "json"
    return "table"


def _early_context(arguments: Sequence[str]) -> str:
    """The context, which has to be known before anything that stands in its store is looked for."""
    found = ""
    for index, word in enumerate(arguments):
        if word == "--context" and index + 1 < len(arguments):
            found = arguments[index + 1]
        elif word.startswith("--context="):
            found = word.partition("=")[2]
    return found
