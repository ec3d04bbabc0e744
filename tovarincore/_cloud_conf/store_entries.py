"""Checks the content of the credential store, without ever showing a value."""

import re
from pathlib import Path
from typing import Any

from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.names import did_you_mean
from tovarincore._transport.masker import Secret

__all__ = ["Entries", "check_entries", "check_entry", "check_name", "hide_secrets"]

Entries = dict[tuple[str, str], dict[str, str]]
"""Kind and name of a region to its keys and values."""

_SHOWN_KEYS = ("user_name", "aws_profile")
_COMMON_KEYS = ("user_name", "worker_token")
_KEYS = {
    "AWS": (*_COMMON_KEYS, "aws_profile", "aws_access_key_id", "aws_secret_access_key", "aws_session_token"),
    "local": _COMMON_KEYS,
    "k8s": _COMMON_KEYS,
}


def check_entries(tables: dict[str, Any], path: Path) -> Entries:
    """Return the entries of a store's tables.

    :param tables: what the TOML file holds
    :param path: the file, for the error's text
    :raises ConfigError: something is not allowed
    """
    entries: Entries = {}
    hide_secrets(tables)
    for cloud, regions in tables.items():
        _require_cloud(cloud, str(path))
        if not isinstance(regions, dict):
            raise ConfigError(f"{path}: {cloud} is not a table; allowed is [{cloud}.<region name>]")
        for name, entry in regions.items():
            check_name(name, str(path))
            source = f"{path}: [{cloud}.{name}]"
            if not isinstance(entry, dict):
                raise ConfigError(f"{source} is not a table; allowed is [{cloud}.<region name>]")
            entries[cloud, name] = check_entry(cloud, entry, source)
    return entries


def check_entry(cloud: str, entry: dict[str, Any], source: str) -> dict[str, str]:
    """Return the entry of one region as it was given.

    :param cloud: kind of the region
    :param entry: keys and values
    :param source: what the error's text begins with
    :raises ConfigError: an unknown kind or key, a value that is no text or cannot be used, or values that do
        not go together
    """
    _require_cloud(cloud, source)
    for key, value in entry.items():
        if key not in _KEYS[cloud]:
            raise ConfigError(f'{source}: unknown key "{key}"; {did_you_mean(key, _KEYS[cloud])}')
        if not isinstance(value, str):
            raise ConfigError(f"{source}: {key} is a {type(value).__name__}; allowed is a text")
        # What goes into a header or a tag: a line break there would begin something else.
        if not value.isprintable():
            raise ConfigError(f"{source}: {key} holds control characters; allowed are printable ones")
    if not re.fullmatch(r"[!-~]*", entry.get("worker_token", "")):
        raise ConfigError(
            f"{source}: worker_token is not allowed; allowed are printable ASCII characters without blanks"
        )
    if cloud == "AWS":
        _check_amazon(entry, source)
    return entry


def check_name(name: str, source: str) -> None:
    """Refuse what cannot be the name of a region.

    :param source: what the error's text begins with
    :raises ConfigError: the name, and what is allowed
    """
    # Imported here, as below: only who has stored something needs it.
    from tovarincore._transport.gate import RefusedName, check_region_name

    try:
        check_region_name(name)
    except RefusedName as refusal:
        raise ConfigError(f"{source}: {refusal}") from None


def hide_secrets(table: dict[str, Any]) -> None:
    """Give secret texts the type that does not show them, before anything can go wrong with them."""
    for key, value in table.items():
        if isinstance(value, dict):
            hide_secrets(value)
        elif isinstance(value, str) and key not in _SHOWN_KEYS:
            table[key] = Secret(value)


def _require_cloud(cloud: str, source: str) -> None:
    if cloud not in _KEYS:
        raise ConfigError(f'{source}: unknown kind of region "{cloud}"; {did_you_mean(cloud, _KEYS)}')


def _check_amazon(entry: dict[str, Any], source: str) -> None:
    if not entry.get("user_name"):
        raise ConfigError(f"{source}: user_name is missing; launches and listings of Amazon nodes need one")
    from tovarincore._transport.gate import RefusedName, check_user_name

    try:
        check_user_name(entry["user_name"])
    except RefusedName as refusal:
        raise ConfigError(f"{source}: user_name is not allowed; allowed are {refusal.allowed}") from None
    has_id, has_secret = bool(entry.get("aws_access_key_id")), bool(entry.get("aws_secret_access_key"))
    if has_id != has_secret:
        raise ConfigError(
            f"{source}: aws_access_key_id and aws_secret_access_key go together; give both or neither"
        )
    if entry.get("aws_session_token") and not has_id:
        raise ConfigError(
            f"{source}: aws_session_token goes with aws_access_key_id and aws_secret_access_key"
        )
