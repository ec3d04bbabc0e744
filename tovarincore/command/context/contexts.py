"""Named contexts: each has a separate credential store and ledger, for somebody with several accounts."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import TYPE_CHECKING

from tovarincore.command.errors.failures import CommandFailure, ExitCode

if TYPE_CHECKING:
    from tovarincore.command.context.invocation import Invocation

__all__ = ["context_entered", "context_names", "contexts_folder"]

_STORE = "TOVARIN_CLOUD_CONF"
_FOLDER = "contexts"
# They make contexts, or show and change which one is used.
_WITHOUT_LOOK = {"configure", "config", "completion", "help"}


def contexts_folder() -> Path:
    """Return the folder of all contexts, from within one too; it need not exist."""
    from tovarincore.cloud_conf import CloudConfManager

    folder = CloudConfManager().path.parent
    return folder.parent if folder.parent.name == _FOLDER else folder / _FOLDER


def context_names() -> list[str]:
    """Return the names of the contexts that there are."""
    try:
        return sorted(entry.name for entry in contexts_folder().iterdir() if entry.is_dir())
    except OSError:
        return []


@contextmanager
def context_entered(invocation: Invocation) -> Iterator[None]:
    """Let the body work with the store and the ledger of the context that is asked for, if one is.

    :raises CommandFailure: there is no such context, and the sub-command makes none
    """
    name = invocation.context or _configured()
    if not name:
        yield
        return
    folder = contexts_folder() / _checked(name)
    if not folder.is_dir() and not _WITHOUT_LOOK & set(invocation.arguments):
        raise _no_context(name)
    before = os.environ.get(_STORE)
    os.environ[_STORE] = str(folder / "cloud.toml")
    invocation.context = name
    try:
        yield
    finally:
        os.environ.pop(_STORE)
        if before is not None:
            os.environ[_STORE] = before


def _configured() -> str:
    from tovarincore.core_conf import ConfigError, core_conf_glbl

    try:
        return str(core_conf_glbl.command__context)
    except ConfigError:
        # The sub-command reports it, or is one that needs no settings.
        return ""


def _checked(name: str) -> str:
    from tovarincore._transport.gate import RefusedName, check_region_name

    try:
        return check_region_name(name)
    except RefusedName as error:
        raise CommandFailure(
            f"{ascii(name)} cannot be the name of a context; allowed are {error.allowed}",
            "give another one with --context",
            ExitCode.USAGE,
        ) from error


def _no_context(name: str) -> CommandFailure:
    from tovarincore._config_files.names import nearest
    from tovarincore.command.errors.advice import command_for
    from tovarincore.command.output.text import one_line

    near = nearest(name, context_names())
    return CommandFailure(
        f'there is no context "{one_line(name)}"' + (f'; did you mean "{near}"?' if near else ""),
        "list them with: tovarin-nodes config contexts; storing credentials makes one: "
        + command_for(None, "configure", "--context", name),
        ExitCode.USAGE,
    )
