"""The command's list of sub-commands, and the one place where errors become lines and exit codes."""

import logging
import os
import sys
import traceback
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from typing import Any, NoReturn

import click

from tovarincore.command.context.invocation import Invocation, output_options
from tovarincore.command.errors.explain import explain
from tovarincore.command.errors.failures import EXIT_CODES, CommandFailure, ExitCode
from tovarincore.command.subcommands import (
    catalogue,
    configure,
    doctor,
    key_pairs,
    launches,
    lifecycle,
    listing,
    orphans,
    waiting,
)

__all__ = ["cli", "run"]

_EPILOG = "\b\nExit codes:\n" + "\n".join(f"{int(code):>5}  {text}" for code, text in EXIT_CODES.items())


class NodesGroup(click.Group):
    """The command: keeps its sub-commands in order and ends with one of :class:`ExitCode`."""

    def __init__(self, *arguments: Any, **attributes: Any) -> None:
        super().__init__(*arguments, **attributes)
        self.params += output_options()

    def list_commands(self, ctx: click.Context) -> list[str]:
        """Return the sub-commands in the order of a node's life."""
        return list(self.commands)

    def invoke(self, ctx: click.Context) -> Any:
        """Run the sub-command; Ctrl-C is a failure like others."""
        try:
            return super().invoke(ctx)
        except KeyboardInterrupt:
            raise CommandFailure("interrupted", code=ExitCode.INTERRUPTED) from None

    def main(self, args: Sequence[str] | None = None, *arguments: Any, **extra: Any) -> NoReturn:
        """Run the command and exit."""
        given = sys.argv[1:] if args is None else list(args)
        invocation = Invocation(given)
        extra |= {"prog_name": "tovarin-nodes", "obj": invocation, "standalone_mode": False}
        try:
            with _log_shown(invocation.debug):
                # For --help and the like click returns the code, for commands what they return: None.
                sys.exit(super().main(given, **extra) or ExitCode.DONE)
        except BrokenPipeError:
            # The reader has seen enough. What is left unwritten must not fail at the interpreter's exit.
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
            sys.exit(ExitCode.FAILED)
        except Exception as error:
            sys.exit(_report(error, invocation))


@click.group(cls=NodesGroup, epilog=_EPILOG, context_settings={"help_option_names": ["-h", "--help"]})
@click.version_option(package_name="tovarincore", message="tovarin-nodes %(version)s")
def cli() -> None:
    """Works with the nodes of EC2 regions, of this machine's container engine and of Kubernetes clusters.

    REGION is a region's name (us-east-1, local) or its kind and name (AWS:us-east-1, k8s:lab). NODE is a
    node's name, instance id or uuid. Every sub-command takes --json (results on standard output, an error as
    one JSON object on standard error) and --debug.
    """


for _command in (
    configure.configure,
    catalogue.regions,
    catalogue.templates,
    catalogue.types,
    listing.list_command,
    listing.show,
    launches.launch,
    launches.try_command,
    waiting.wait,
    waiting.watch,
    lifecycle.start,
    lifecycle.stop,
    lifecycle.reboot,
    lifecycle.terminate,
    key_pairs.keypair,
    orphans.orphans,
    doctor.doctor,
):
    cli.add_command(_command)


def run(arguments: Sequence[str] | None = None) -> int:
    """Run the command and return its exit code.

    :param arguments: what stands behind the program's name; ``None`` means ``sys.argv``
    """
    try:
        cli.main(arguments)
    except SystemExit as ended:
        return int(ended.code or 0)


def _report(error: Exception, invocation: Invocation) -> ExitCode:
    if isinstance(error, click.ClickException):
        failure = _wrong_usage(error)
    elif isinstance(error, click.Abort):
        # click makes it of Ctrl-C outside of commands and of an end of input at a prompt.
        failure = CommandFailure("interrupted", code=ExitCode.INTERRUPTED)
    else:
        failure = explain(error)
    if invocation.debug:
        traceback.print_exception(error)
        if failure.details:
            click.echo(failure.details, err=True)
    invocation.report(failure)
    return failure.code


def _wrong_usage(error: click.ClickException) -> CommandFailure:
    context = error.ctx if isinstance(error, click.UsageError) else None
    path = context.command_path if context is not None else "tovarin-nodes"
    return CommandFailure(" ".join(error.format_message().split()), f"{path} --help", ExitCode.USAGE)


@contextmanager
def _log_shown(wanted: bool) -> Iterator[None]:
    """Write the package's log to standard error during the body, if that is wanted."""
    if not wanted:
        yield
        return
    logger = logging.getLogger("tovarincore")
    before = logger.level
    handler = logging.StreamHandler()
    handler.setFormatter(logging.Formatter("%(levelname)s %(name)s: %(message)s"))
    logger.setLevel(logging.DEBUG)
    logger.addHandler(handler)
    try:
        yield
    finally:
        logger.removeHandler(handler)
        logger.setLevel(before)
