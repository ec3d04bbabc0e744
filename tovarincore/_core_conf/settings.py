"""Puts the settings together: defaults, the file on top of them, the environment on top of that."""

import os
import shlex
from collections.abc import Mapping
from pathlib import Path
from typing import Any

from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.names import did_you_mean
from tovarincore._config_files.privacy import require_private
from tovarincore._config_files.reading import read_file
from tovarincore._config_files.toml_file import parse_toml
from tovarincore._core_conf.schema import SETTINGS, SETTINGS_BY_NAME, WORKER_ADDRESSES
from tovarincore._core_conf.values import check_address, check_value, from_variable
from tovarincore._core_conf.worker_addresses import WorkerAddresses
from tovarincore._transport.masker import Secret

__all__ = ["Settings", "read_settings"]


class Settings:
    """What one reading of the configuration gave.

    ``values`` maps ``section__key`` to the value; ``worker_addresses`` are those of that section.
    """

    def __init__(self, values: dict[str, Any], worker_addresses: WorkerAddresses) -> None:
        self.values = values
        self.worker_addresses = worker_addresses


def read_settings(path: Path, named_by: str = "") -> Settings:
    """Read the configuration file and the environment.

    :param path: the TOML file; a missing one leaves the defaults, unless somebody asked for it
    :param named_by: the environment variable that names the file; empty for the usual place
    :raises ConfigError: the file is missing though a variable names it, cannot be read, or holds secrets and
        is not its owner's alone; or it or the environment holds something not allowed
    """
    values = {name: row.default for name, row in SETTINGS_BY_NAME.items()}
    read = read_file(path)
    if read is not None:
        data, status = read
        tables = _hide_secrets(parse_toml(data, path))
        addresses = WorkerAddresses(_read_addresses(tables.pop(WORKER_ADDRESSES, {}), path))
        _apply_file(values, tables, path)
        if any(row.secret and _is_secret(values[row.name]) for row in SETTINGS_BY_NAME.values()):
            require_private(status, path)
    elif named_by:
        # Who names a file means what is in it: with the defaults, requests would go elsewhere.
        raise ConfigError(
            f"{path}: no such file, though the environment variable {named_by} names it; create it, for"
            f" example with: touch {shlex.quote(str(path))}, or unset {named_by}"
        )
    else:
        addresses = WorkerAddresses({})
    _apply_environment(values)
    if values["proxy__enabled"] and not (values["proxy__http"] or values["proxy__https"]):
        raise ConfigError(
            f"{path}: [proxy] enabled is true but names no proxy; set [proxy] http or https to http://host:port"
        )
    return Settings(values, addresses)


def _hide_secrets(tables: dict[str, Any]) -> dict[str, Any]:
    """Give secret texts the type that does not show them, before anything can go wrong with them."""
    for row in SETTINGS_BY_NAME.values():
        table = tables.get(row.section)
        if row.secret and isinstance(table, dict) and isinstance(table.get(row.key), str):
            table[row.key] = Secret(table[row.key])
    return tables


def _is_secret(value: str) -> bool:
    # The address of a proxy is one only with a login in it.
    return "@" in value if "://" in value else bool(value)


def _read_addresses(table: object, path: Path) -> dict[str, tuple[str, int]]:
    if not isinstance(table, dict):
        raise ConfigError(
            f"{path}: {WORKER_ADDRESSES} is not allowed here; allowed is a section [{WORKER_ADDRESSES}]"
        )
    return {
        key: check_address(value, f'{path}: [{WORKER_ADDRESSES}] "{key}"') for key, value in table.items()
    }


def _apply_file(values: dict[str, Any], tables: Mapping[str, object], path: Path) -> None:
    sections = {row.section for row in SETTINGS}
    for section, table in tables.items():
        if section not in sections:
            raise ConfigError(f"{path}: unknown section [{section}]; {did_you_mean(section, sections)}")
        if not isinstance(table, dict):
            raise ConfigError(f"{path}: {section} is not allowed here; allowed is a section [{section}]")
        for key, value in table.items():
            row = SETTINGS_BY_NAME.get(f"{section}__{key}")
            if row is None:
                keys = [known.key for known in SETTINGS if known.section == section]
                raise ConfigError(
                    f'{path}: unknown key "{key}" in section [{section}]; {did_you_mean(key, keys)}'
                )
            values[row.name] = check_value(row, value, f"{path}: [{section}] {key}")


def _apply_environment(values: dict[str, Any]) -> None:
    rows = {row.variable: row for row in SETTINGS_BY_NAME.values()}
    for variable in list(os.environ):
        # Two underscores mark a setting; TOVARIN_CONF and its like name files.
        if not variable.startswith("TOVARIN_") or "__" not in variable:
            continue
        row = rows.get(variable)
        if row is None:
            raise ConfigError(f"unknown environment variable {variable}; {did_you_mean(variable, rows)}")
        text = os.environ.get(variable, "")
        value = Secret(text) if row.secret else from_variable(row, text)
        values[row.name] = check_value(row, value, f"environment variable {variable}")
