"""The settings one by one: their values, where these come from, and changes to the file."""

import os
from typing import Any

from tovarincore._config_files.names import nearest
from tovarincore._config_files.toml_file import read_toml
from tovarincore.command.context.toml_edit import edit_toml
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.text import one_line
from tovarincore.core_conf import Setting, core_conf_glbl, describe_settings

__all__ = ["ADDRESSES", "find_setting", "remove_setting", "setting_documents", "store_setting"]

ADDRESSES = "worker_addresses"
"""The one section whose keys the user chooses."""

_TRUTH = {"true": True, "yes": True, "on": True, "false": False, "no": False, "off": False}


def setting_documents() -> list[dict[str, Any]]:
    """Return every setting as a document: key, value, source and meaning.

    :raises ConfigError: the settings cannot be used
    """
    tables = read_toml(core_conf_glbl.path) or {}
    documents = []
    for row in describe_settings():
        if row.section == ADDRESSES:
            addresses = tables.get(ADDRESSES, {})
            documents += [_document(f"{ADDRESSES}.{key}", addresses[key], "file", row) for key in addresses]
            continue
        source = "default"
        if row.key in tables.get(row.section, {}):
            source = "file"
        if row.variable in os.environ:
            source = f"environment ({row.variable})"
        value = getattr(core_conf_glbl, row.name)
        documents.append(_document(f"{row.section}.{row.key}", value, source, row))
    return documents


def find_setting(key: str) -> tuple[str, Setting | None]:
    """Return a setting's key in its one form, and its row; a key that the user made up has none.

    :param key: ``section.key``, or ``section__key`` as in programs
    :raises CommandFailure: there is no such setting; the text suggests the nearest one
    """
    section, dot, rest = key.replace("__", ".", 1).partition(".")
    if section == ADDRESSES and rest:
        return f"{ADDRESSES}.{rest}", None
    rows = {f"{row.section}.{row.key}": row for row in describe_settings() if row.section != ADDRESSES}
    name = f"{section}{dot}{rest}"
    if name not in rows:
        near = nearest(name, rows)
        raise CommandFailure(
            f'there is no setting "{one_line(key)}"' + (f'; did you mean "{near}"?' if near else ""),
            "list them with: tovarin-nodes config show",
            ExitCode.USAGE,
        )
    return name, rows[name]


def store_setting(name: str, row: Setting | None, text: str) -> object:
    """Put a value into the settings file.

    :param name: the key, ``section.key``
    :param row: the setting; ``None`` for a key that the user made up
    :param text: the value as a person types it
    :return: the value
    :raises CommandFailure: the text is no value of the setting's kind
    :raises ConfigError: the value is not allowed, or the file cannot be used; it is then as it was
    """
    section, _, key = name.partition(".")
    value = text if row is None else _value_of(row, text, name)

    def put(document: Any) -> None:
        import tomlkit

        document.setdefault(section, tomlkit.table())[key] = value

    edit_toml(core_conf_glbl.path, put, _read_again)
    return value


def remove_setting(name: str) -> bool:
    """Take a value out of the settings file.

    :return: whether it was there
    :raises ConfigError: the file cannot be used; it is then as it was
    """
    section, _, key = name.partition(".")

    def take_out(document: Any) -> bool:
        if key not in document.get(section, {}):
            return False
        del document[section][key]
        if not document[section]:
            del document[section]
        return True

    return edit_toml(core_conf_glbl.path, take_out, _read_again)


def _document(key: str, value: object, source: str, row: Setting) -> dict[str, Any]:
    shown = "***" if row.secret and value else value
    return {"key": key, "value": shown, "source": source, "meaning": row.doc}


def _value_of(row: Setting, text: str, name: str) -> object:
    try:
        if row.kind is bool:
            return _TRUTH[text.casefold()]
        if row.kind is float:
            return float(text)
        return int(text) if row.kind is int else text
    except (KeyError, ValueError) as error:
        wanted = {bool: "true or false", int: "a whole number", float: "a number"}[row.kind]
        raise CommandFailure(
            f"{name} is {wanted}", f"tovarin-nodes config set {name} {row.default}", ExitCode.USAGE
        ) from error


def _read_again() -> None:
    core_conf_glbl.reload()
    # Any setting will do: the first one asked for reads them all.
    _ = core_conf_glbl.worker__port
