"""The command's list of sub-commands, and the one place where errors become lines and exit codes."""

from __future__ import annotations

import os
import sys
from collections.abc import Iterator, Sequence
from contextlib import ExitStack, contextmanager
from typing import Any, NoReturn

import click

from tovarincore.command.context.groups import NodesGroup
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.errors.failures import EXIT_CODES, CommandFailure, ExitCode, TimeIsUp

__all__ = ["SUBCOMMANDS", "cli", "run"]

_HOME = "tovarincore.command.subcommands."

SUBCOMMANDS: dict[str, tuple[str, str]] = {
    "configure": (_HOME + "configure:configure", "Store a region's credentials, or show what is stored."),
    "regions": (_HOME + "catalogue:regions", "List the regions, and what those lack that cannot be used."),
    "templates": (_HOME + "catalogue:templates", "List the images that nodes can be launched from."),
    "types": (_HOME + "types:types", "List the instance types that nodes can have."),
    "list": (_HOME + "listing:list_command", "List your nodes in one, several or all regions."),
    "show": (_HOME + "listing:show", "Show one node, its load, and why its worker is not ready."),
    "launch": (_HOME + "launches:launch", "Launch a node under your user name."),
    "try": (_HOME + "launches:try_command", "Ask EC2 whether a launch would succeed, by a dry run."),
    "wait": (_HOME + "waiting:wait", "Wait until a node's worker answers."),
    "watch": (_HOME + "waiting:watch", "List the nodes again and again until Ctrl-C."),
    "top": (_HOME + "top:top", "Show all nodes on the full screen, and work with them."),
    "exporter": (_HOME + "exporter:exporter", "Serve metrics of nodes for Prometheus."),
    "start": (_HOME + "lifecycle:start", "Start stopped nodes."),
    "stop": (_HOME + "lifecycle:stop", "Stop nodes by force; their disks stay."),
    "reboot": (_HOME + "lifecycle:reboot", "Reboot nodes."),
    "terminate": (_HOME + "lifecycle:terminate", "End nodes for good, disks included, after asking."),
    "keypair": (_HOME + "key_pairs:keypair", "Create and delete EC2 key pairs."),
    "orphans": (_HOME + "orphans:orphans", "List nodes that this command has not launched."),
    "history": (_HOME + "history:history", "List what was launched from this machine."),
    "doctor": (_HOME + "doctor:doctor", "Look at everything that a launch needs."),
    "config": (_HOME + "config:config", "Show and change the settings."),
    "completion": (_HOME + "completion:completion", "Print what makes a shell complete words."),
    "help": (_HOME + "help:help_command", "Show a page of the documentation."),
}
"""Each sub-command: where it is, as ``module:attribute``, and its line in the list.

They stand in the order of a node's life. A module is imported when its sub-command is run: the list must not
wait for any of them.
"""

_EPILOG = "\b\nExit codes:\n" + "\n".join(f"{int(code):>5}  {text}" for code, text in EXIT_CODES.items())


class _Command(NodesGroup):
    """The whole command: ends with one of :class:`ExitCode`."""

    def invoke(self, ctx: click.Context) -> Any:
        """Run the sub-command; Ctrl-C and the end of the time are failures like others."""
        invocation = ctx.ensure_object(Invocation)
        try:
            return super().invoke(ctx)
        except KeyboardInterrupt:
            raise invocation.cut_short("interrupted", ExitCode.INTERRUPTED) from None
        except TimeIsUp as up:
            raise invocation.cut_short(str(up), ExitCode.TIMED_OUT) from None

    def main(self, args: Sequence[str] | None = None, *arguments: Any, **extra: Any) -> NoReturn:
        """Run the command and exit."""
        given = sys.argv[1:] if args is None else list(args)
        invocation = Invocation(given)
        extra |= {"prog_name": "tovarin-nodes", "obj": invocation, "standalone_mode": False}
        try:
            with _log_shown(invocation), _in_context(invocation):
                # For --help and the like click returns the code, for commands what they return: None.
                sys.exit(super().main(given, *arguments, **extra) or ExitCode.DONE)
        except BrokenPipeError:
            # The reader has seen enough. What is left unwritten must not fail at the interpreter's exit.
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
            sys.exit(ExitCode.FAILED)
        except Exception as error:
            sys.exit(_report(error, invocation))


@click.group(
    cls=_Command, lazy=SUBCOMMANDS, epilog=_EPILOG, context_settings={"help_option_names": ["-h", "--help"]}
)
@click.version_option(package_name="tovarincore", message="tovarin-nodes %(version)s")
def cli() -> None:
    """Works with the nodes of EC2 regions, of this machine's container engine and of Kubernetes clusters.

    REGION is a region's name (us-east-1, local) or its kind and name (AWS:us-east-1, k8s:lab). It may be left
    out where the setting [command] region names one. NODE is a node's name, instance id or uuid. Results go
    to standard output, notes and errors to standard error.
    """


def run(arguments: Sequence[str] | None = None) -> int:
    """Run the command and return its exit code.

    :param arguments: the words after the program's name; ``None`` means ``sys.argv``
    """
    try:
        cli.main(arguments)
    except SystemExit as ended:
        return int(ended.code or 0)


def _report(error: Exception, invocation: Invocation) -> ExitCode:
    if isinstance(error, CommandFailure):
        failure = error
    elif isinstance(error, click.ClickException):
        failure = _wrong_usage(error)
    elif isinstance(error, click.Abort):
        # click makes it of Ctrl-C outside of commands and of an end of input at a prompt.
        failure = invocation.cut_short("interrupted", ExitCode.INTERRUPTED)
    else:
        from tovarincore.command.errors.explain import explain

        failure = explain(error, invocation.region)
    if invocation.debug:
        import traceback

        from tovarincore.command.output.writer import write

        write("".join(traceback.format_exception(error)).rstrip(), err=True)
        if failure.details:
            write(failure.details, err=True)
    invocation.report(failure)
    return failure.code


def _wrong_usage(error: click.ClickException) -> CommandFailure:
    context = error.ctx if isinstance(error, click.UsageError) else None
    path = context.command_path if context is not None else "tovarin-nodes"
    return CommandFailure(" ".join(error.format_message().split()), f"{path} --help", ExitCode.USAGE)


@contextmanager
def _in_context(invocation: Invocation) -> Iterator[None]:
    """Work in a named context, if one is asked for; help needs none, and does not wait for settings."""
    if not invocation.arguments or {"-h", "--help", "--version"} & set(invocation.arguments):
        yield
        return
    from tovarincore.command.context.contexts import context_entered

    with context_entered(invocation):
        yield


@contextmanager
def _log_shown(invocation: Invocation) -> Iterator[None]:
    """Write the package's log and the requests to engines and clusters to standard error, if wanted."""
    if not (invocation.debug or invocation.verbose):
        yield
        return
    from tovarincore._transport.telling import requests_told_to
    from tovarincore.command.output.log import log_shown

    with ExitStack() as stack:
        if invocation.verbose:
            stack.enter_context(requests_told_to(invocation.tell))
        stack.enter_context(log_shown(invocation.debug))
        yield
