"""``keypair create`` and ``keypair delete``: EC2 key pairs and the file of the private key."""

import contextlib
import os
import re
from pathlib import Path
from typing import TextIO

import click

from tovarincore.cloud_def import CloudRegion
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.context.access import open_region, require_amazon
from tovarincore.command.context.invocation import (
    Invocation,
    NodesCommand,
    confirm,
    pass_invocation,
    region_argument,
    yes_option,
)
from tovarincore.command.errors.explain import failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode

__all__ = ["keypair"]


@click.group()
def keypair() -> None:
    """Create and delete EC2 key pairs."""


@keypair.command(cls=NodesCommand)
@region_argument()
@click.argument("name")
@click.option(
    "--file",
    "path",
    type=click.Path(path_type=Path),
    help="Where the private key is written; must not exist.  [default: NAME.pem]",
)
@pass_invocation
def create(invocation: Invocation, region: CloudRegion, name: str, path: Path | None) -> None:
    """Create a key pair and write its private key, which EC2 gives out only once."""
    require_amazon(region, "key pairs are a thing of Amazon's regions")
    access = open_region(region)
    path = path or _default_path(name)
    descriptor = _open_new(path)
    kept = False
    try:
        with open(descriptor, "w", encoding="ascii") as file:
            private_key, result = cloud_manager_glbl.create_key_pair(
                region, access.auth, name, access.user_name
            )
            if private_key is None:
                raise failure_of(result, region)
            _write(file, private_key, path, name)
            kept = True
    finally:
        if not kept:
            with contextlib.suppress(OSError):
                path.unlink()
    invocation.emit(
        {"key_pair": name, "file": str(path)},
        lambda: invocation.say(f"created the key pair {name}; its private key is in {path} (mode 0600)"),
    )


@keypair.command(cls=NodesCommand)
@region_argument()
@click.argument("name")
@yes_option
@pass_invocation
def delete(invocation: Invocation, region: CloudRegion, name: str, yes: bool) -> None:
    """Delete a key pair in EC2, after asking; the file of the private key stays.

    EC2 does not say whether there was one of that name.
    """
    require_amazon(region, "key pairs are a thing of Amazon's regions")
    access = open_region(region)
    confirm(f"Delete the key pair {name} in {region.key}?", yes)
    cloud_manager_glbl.delete_key_pair(region, access.auth, name)
    invocation.emit(
        {"key_pair": name, "deleted": True},
        lambda: invocation.say(f"no key pair {name} is left in {region.name}"),
    )


def _write(file: TextIO, private_key: str, path: Path, name: str) -> None:
    try:
        file.write(private_key)
        file.flush()
        os.fsync(file.fileno())
    except OSError as error:
        raise CommandFailure(
            f"the key pair {name} was made, but {path} cannot be written: {error.strerror}",
            f"delete the pair, which is of no use now: tovarin-nodes keypair delete REGION {name}",
        ) from error


def _default_path(name: str) -> Path:
    if not re.fullmatch(r"[A-Za-z0-9_-][A-Za-z0-9._-]*", name):
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
            f"{path} exists, and a key is not written over another; EC2 was not asked",
            "name another file with --file, or move that one away",
            ExitCode.USAGE,
        ) from None
    except OSError as error:
        raise CommandFailure(
            f"{path} cannot be made: {error.strerror}; EC2 was not asked",
            "name another file with --file",
            ExitCode.USAGE,
        ) from error
