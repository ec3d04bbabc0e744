"""``keypair create`` and ``keypair delete``: EC2 key pairs and the file of the private key."""

import contextlib
import os
import re
from pathlib import Path
from typing import TextIO

import click

from tovarincore._transport.gate import check_key_name
from tovarincore.cloud_def import CloudRegion
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.context.access import Access, open_region, require_amazon
from tovarincore.command.context.groups import NodesGroup
from tovarincore.command.context.invocation import Invocation, confirm, pass_invocation
from tovarincore.command.context.options import NodesCommand, yes_option
from tovarincore.command.context.regions import region_and
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.explain import explain, failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.key_pairs import find_key_pair

__all__ = ["keypair"]

_ONLY_AMAZON = "key pairs belong to Amazon's regions"


@click.group(cls=NodesGroup)
def keypair() -> None:
    """Create and delete EC2 key pairs."""


@keypair.command(cls=NodesCommand, examples=("keypair create us-east-1 ada-key --file ~/.ssh/ada-key.pem",))
@region_and("name")
@click.option(
    "--file",
    "path",
    type=click.Path(path_type=Path),
    help="Where the private key is written; must not exist.  [default: NAME.pem]",
)
@yes_option
@pass_invocation
def create(invocation: Invocation, region: CloudRegion, name: str, path: Path | None, yes: bool) -> None:
    """Create a key pair and write its private key, which EC2 gives out only once.

    When the answer with the private key is lost on its way, the pair is of no use: the command then offers
    to delete it (with --yes it does so at once).
    """
    require_amazon(region, _ONLY_AMAZON)
    check_key_name(name)
    access = open_region(region)
    path = path or _default_path(name)
    descriptor = _open_new(path)
    kept = False
    try:
        with open(descriptor, "w", encoding="ascii") as file:
            private_key = _ask_for_key(invocation, access, name, yes)
            _write(file, private_key, path, name, region)
            kept = True
    finally:
        if not kept:
            with contextlib.suppress(OSError):
                path.unlink()
    invocation.emit(
        "key_pair",
        {"region": region.key, "name": name, "file": str(path)},
        lambda: invocation.say(f"created the key pair {name}; its private key is in {path} (mode 0600)"),
    )


def _ask_for_key(invocation: Invocation, access: Access, name: str, yes: bool) -> str:
    """Let EC2 create the pair; one that is there without its key having arrived is offered for deletion."""
    region = access.region
    before = find_key_pair(access, name)
    if before is not None and before.exists:
        raise CommandFailure(
            f"a key pair {name} already exists",
            f"choose another name, or delete it: {command_for(region, 'keypair delete', name)}",
        )
    try:
        with invocation.changing(
            f"the key pair {name} may have been created; its private key is lost then",
            f"delete it: {command_for(region, 'keypair delete', name)}",
        ):
            private_key, result = cloud_manager_glbl.create_key_pair(
                region, access.auth, name, access.user_name
            )
            if private_key is None:
                raise failure_of(result, region)
            return private_key
    except Exception as error:
        failure = explain(error, region)
        if before is None or failure.code is ExitCode.REFUSED:
            raise failure from error
        after = find_key_pair(access, name)
        if after is None or not after.exists or after.user_name != access.user_name:
            raise failure from error
        _offer_deletion(invocation, access, name, failure, yes)
        raise CommandFailure(
            f"the answer with the private key of {name} was lost; the pair was deleted ({failure.what})",
            "repeat the command",
            ExitCode.UNREACHABLE,
        ) from error


def _offer_deletion(
    invocation: Invocation, access: Access, name: str, failure: CommandFailure, yes: bool
) -> None:
    """Delete a pair that this command has just made, if the answer is yes.

    :raises CommandFailure: it stays
    """
    lost = f"the key pair {name} was created, but the answer with its private key was lost ({failure.what})"
    try:
        confirm(invocation, f"{lost}. Delete it, so that it can be created again?", yes)
    except CommandFailure as declined:
        raise CommandFailure(
            lost,
            f"delete the pair, which is of no use: {command_for(access.region, 'keypair delete', name)}",
            declined.code if declined.code is ExitCode.INTERRUPTED else ExitCode.UNREACHABLE,
        ) from failure
    cloud_manager_glbl.delete_key_pair(access.region, access.auth, name)


@keypair.command(cls=NodesCommand, examples=("keypair delete us-east-1 ada-key",))
@region_and("name")
@yes_option
@pass_invocation
def delete(invocation: Invocation, region: CloudRegion, name: str, yes: bool) -> None:
    """Delete a key pair in EC2, after asking; the file of the private key stays."""
    require_amazon(region, _ONLY_AMAZON)
    check_key_name(name)
    access = open_region(region)
    found = find_key_pair(access, name)
    if found is not None and found.user_name not in ("", access.user_name):
        raise CommandFailure(
            f"the key pair {name} belongs to the user {found.user_name}; nothing was changed",
            "let its owner delete it",
            ExitCode.REFUSED,
        )
    confirm(invocation, f"Delete the key pair {name} in {region.key}?", yes)
    with invocation.changing(f"the key pair {name} may be deleted anyway", ""):
        cloud_manager_glbl.delete_key_pair(region, access.auth, name)
    invocation.emit(
        "key_pair",
        {"region": region.key, "name": name, "deleted": True},
        lambda: invocation.say(f"no key pair {name} is left in {region.name}"),
    )


def _write(file: TextIO, private_key: str, path: Path, name: str, region: CloudRegion) -> None:
    try:
        file.write(private_key)
        file.flush()
        os.fsync(file.fileno())
    except OSError as error:
        raise CommandFailure(
            f"the key pair {name} was created, but {path} cannot be written: {error.strerror}",
            f"delete the pair, which is of no use now: {command_for(region, 'keypair delete', name)}",
        ) from error


def _default_path(name: str) -> Path:
    if not re.fullmatch(r"[A-Za-z0-9_][A-Za-z0-9._-]*", name):
        raise CommandFailure(
            "the name of the key pair does not make a good file name",
            "say with --file where the private key is written",
            ExitCode.USAGE,
        )
    return Path(f"{name}.pem")


def _open_new(path: Path) -> int:
    try:
        return os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o600)
    except FileExistsError:
        raise CommandFailure(
            f"{path} exists, and a key is not written over another; no key pair was created",
            "name another file with --file, or move that one away",
            ExitCode.USAGE,
        ) from None
    except OSError as error:
        raise CommandFailure(
            f"{path} cannot be created: {error.strerror}; no key pair was created",
            "name another file with --file",
            ExitCode.USAGE,
        ) from error
