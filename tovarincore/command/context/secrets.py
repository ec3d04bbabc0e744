"""Secrets that a person types unseen, or a program gives on standard input."""

import sys

import click

from tovarincore._transport.masker import know_secret
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.errors.failures import CommandFailure, ExitCode

__all__ = ["ask_secret"]


def ask_secret(invocation: Invocation, what: str) -> str:
    """Return a secret that is typed unseen, or the next line of standard input when nobody types.

    :param what: what is asked for
    :raises CommandFailure: none was given
    """
    if sys.stdin.isatty():
        if invocation.structured:
            raise CommandFailure(
                f"with -o {invocation.form} no question is asked; nothing was stored",
                f"give the {what.lower()} on standard input",
                ExitCode.USAGE,
            )
        from tovarincore.command.output import progress

        progress.clear()
        secret = str(click.prompt(what, hide_input=True, err=True))
    else:
        secret = sys.stdin.readline().rstrip("\r\n")
    if not secret:
        raise CommandFailure(f"no {what.lower()} was given; nothing was stored", code=ExitCode.USAGE)
    return know_secret(secret)
