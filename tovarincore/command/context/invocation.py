"""One run of the command: how it shows things, and the options and arguments that its sub-commands share."""

import json
from collections.abc import Callable, Sequence
from typing import Any

import click

from tovarincore._config_files.names import did_you_mean
from tovarincore.cloud_def import CloudRegion, CloudRegions
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.text import one_line, printable

__all__ = [
    "Invocation",
    "NodesCommand",
    "confirm",
    "output_options",
    "pass_invocation",
    "region_argument",
    "short_name",
    "yes_option",
]


class Invocation:
    """How this run shows things.

    :param arguments: what stands behind the program's name
    """

    def __init__(self, arguments: Sequence[str] = ()) -> None:
        # Looked for here too: an argument that cannot be parsed is reported before the options are known.
        self.json = "--json" in arguments
        self.debug = "--debug" in arguments
        self.region: CloudRegion | None = None

    def emit(self, document: object, draw: Callable[[], None]) -> None:
        """Show a result: the document as JSON, or what ``draw`` writes for people."""
        if self.json:
            click.echo(json.dumps(document, indent=2))
        else:
            draw()

    def say(self, text: str) -> None:
        """Tell a person the result, on standard output."""
        click.echo(printable(text))

    def note(self, text: str) -> None:
        """Tell a person something that is not the result, on standard error."""
        if not self.json:
            click.echo(printable(self._named(text)), err=True)

    def report(self, failure: CommandFailure) -> None:
        """Show what ended the command, on standard error."""
        what, remedy = self._named(failure.what), self._named(failure.remedy)
        if self.json:
            error = {"what": what, "remedy": remedy, "exit_code": int(failure.code)}
            click.echo(json.dumps({"error": error}), err=True)
            return
        click.echo(f"error: {printable(what)}", err=True)
        if remedy:
            click.echo(f"  try: {printable(remedy)}", err=True)

    def _named(self, text: str) -> str:
        return text if self.region is None else text.replace("REGION", short_name(self.region))


pass_invocation = click.make_pass_decorator(Invocation)


def short_name(region: CloudRegion) -> str:
    """Return what a person types for a region: its name, or kind and name where the name means another."""
    return region.name if CloudRegions.find(region.name) == region else region.key


def output_options() -> list[click.Parameter]:
    """Return ``--json`` and ``--debug``, which the command and every sub-command have."""
    texts = {
        "json": "Write JSON instead of text, errors included.",
        "debug": "Show the log and, after an error, the traceback.",
    }
    return [
        click.Option([f"--{name}"], is_flag=True, expose_value=False, callback=_set(name), help=text)
        for name, text in texts.items()
    ]


def _set(name: str) -> Callable[[click.Context, click.Parameter, bool], None]:
    def set_it(context: click.Context, parameter: click.Parameter, value: bool) -> None:
        if value:
            setattr(context.ensure_object(Invocation), name, True)

    return set_it


class NodesCommand(click.Command):
    """A sub-command: every one has ``--json`` and ``--debug``."""

    def __init__(self, *arguments: Any, **attributes: Any) -> None:
        super().__init__(*arguments, **attributes)
        self.params += output_options()


def _find_region(context: click.Context, parameter: click.Parameter, value: str | None) -> CloudRegion | None:
    if value is None:
        return None
    region = CloudRegions.find(value)
    if region is None:
        hint = did_you_mean(value, [known.name for known in CloudRegions.get_all()])
        raise CommandFailure(
            f'there is no region "{one_line(value)}"' + (f"; {hint}" if hint.startswith("did") else ""),
            "list the regions with: tovarin-nodes regions",
            ExitCode.USAGE,
        )
    context.ensure_object(Invocation).region = region
    return region


def region_argument(required: bool = True) -> Callable[[Callable[..., Any]], Callable[..., Any]]:
    """Return the decorator for a command's region, given by name (``us-east-1``) or key (``k8s:lab``)."""
    return click.argument("region", callback=_find_region, required=required)


yes_option = click.option("--yes", is_flag=True, help="Do not ask.")


def confirm(question: str, yes: bool) -> None:
    """Ask before something is ended.

    :param question: what would be done
    :param yes: the answer was given in advance
    :raises CommandFailure: the answer is no, or there is nobody to give one
    """
    if yes:
        return
    try:
        agreed = click.confirm(printable(question), err=True)
    except click.Abort as ended:
        click.echo(err=True)
        if isinstance(ended.__context__, KeyboardInterrupt):
            raise CommandFailure("interrupted: nothing was changed", code=ExitCode.INTERRUPTED) from None
        raise CommandFailure(
            "nobody answered the question; nothing was changed", "answer it in advance with --yes"
        ) from None
    if not agreed:
        raise CommandFailure("nothing was changed")
