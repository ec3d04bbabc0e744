"""``config``: the settings, where each value comes from, and changes to them."""

import os
from typing import Any

import click

from tovarincore._config_files.names import nearest
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.command.context.contexts import context_names, contexts_folder
from tovarincore.command.context.groups import NodesGroup
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.options import ListCommand, NodesCommand, view_of
from tovarincore.command.context.secrets import ask_secret
from tovarincore.command.context.settings import (
    ADDRESSES,
    find_setting,
    remove_setting,
    setting_documents,
    store_setting,
)
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.listings import Listing
from tovarincore.command.output.tables import Column
from tovarincore.core_conf import core_conf_glbl
from tovarincore.fleet.ledger import Ledger

__all__ = ["config"]

_COLUMNS = (
    Column("key", "setting"),
    Column("value", "value"),
    Column("source", "source", 1),
    Column("meaning", "meaning", wide=True),
)
_CONTEXTS = (
    Column("name", "context"),
    Column("in_use", "in use", 0, lambda used: "yes" if used else None),
    Column("store", "credentials", 1),
)


@click.group(cls=NodesGroup)
def config() -> None:
    """Show and change the settings."""


@config.command(cls=ListCommand, examples=("config show", "config show --filter source=file"))
@click.argument("section", required=False)
@pass_invocation
def show(invocation: Invocation, section: str | None) -> None:
    """List the settings, their values, and where each comes from; secrets are not shown."""
    documents = setting_documents()
    if section is not None:
        known = {document["key"].partition(".")[0] for document in documents} | {ADDRESSES}
        if section not in known:
            near = nearest(section, known)
            raise CommandFailure(
                f'there is no section "{section}"' + (f'; did you mean "{near}"?' if near else ""),
                f"choose one of: {', '.join(sorted(known))}",
                ExitCode.USAGE,
            )
        documents = [document for document in documents if document["key"].partition(".")[0] == section]
    invocation.emit_list(Listing("settings", _COLUMNS, "No setting."), documents, view_of(invocation))


@config.command("set", cls=NodesCommand, examples=("config set command.region us-east-1",))
@click.argument("key")
@click.argument("value", required=False)
@pass_invocation
def set_command(invocation: Invocation, key: str, value: str | None) -> None:
    """Store a setting in the file; your comments in it stay.

    Without VALUE a secret is asked for, or read from standard input: it stands in no list of processes then.
    """
    name, row = find_setting(key)
    if value is None:
        if row is None or not row.secret:
            raise CommandFailure(
                "a value is missing", f"tovarin-nodes config set {name} VALUE", ExitCode.USAGE
            )
        value = ask_secret(invocation, f"Value of {name}")
    shown: Any = store_setting(name, row, value)
    if row is not None and row.variable in os.environ:
        invocation.note(f"note: the environment variable {row.variable} overrides it")
    if row is not None and row.secret:
        shown = "***"
    path = core_conf_glbl.path
    invocation.emit(
        "setting",
        {"key": name, "value": shown, "file": str(path)},
        lambda: invocation.say(f"{name} = {shown} in {path}"),
    )


@config.command(cls=NodesCommand, examples=("config unset command.region",))
@click.argument("key")
@pass_invocation
def unset(invocation: Invocation, key: str) -> None:
    """Take a setting out of the file; its default holds again."""
    name, _ = find_setting(key)
    removed = remove_setting(name)
    path = core_conf_glbl.path
    text = f"{name} is no longer in {path}" if removed else f"{name} was not in {path}"
    invocation.emit(
        "setting", {"key": name, "removed": removed, "file": str(path)}, lambda: invocation.say(text)
    )


@config.command(cls=ListCommand, examples=("config contexts",))
@pass_invocation
def contexts(invocation: Invocation) -> None:
    """List the named contexts, each with separate credentials and a separate ledger.

    Storing credentials with --context NAME makes one. --context NAME uses it for one command, the setting
    [command] context for all; without either the store beside the settings is used.
    """
    folder = contexts_folder()
    documents = [
        {"name": name, "in_use": name == invocation.context, "store": str(folder / name / "cloud.toml")}
        for name in context_names()
    ]
    invocation.emit_list(Listing("contexts", _CONTEXTS, "No context."), documents, view_of(invocation))


@config.command(cls=NodesCommand, examples=("config path",))
@pass_invocation
def path(invocation: Invocation) -> None:
    """Print the path of the settings file; with -o json also those of the store and the ledger."""
    settings = str(core_conf_glbl.path)
    others = {"credentials": str(CloudConfManager().path), "ledger": str(Ledger().path)}
    invocation.emit("paths", {"settings": settings, **others}, lambda: invocation.say(settings))
