"""Puts the settings together: defaults, the file on top of them, the environment on top of that."""

import os
from collections.abc import Mapping
from pathlib import Path
from typing import Any

from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.names import did_you_mean
from tovarincore._config_files.toml_file import read_toml
from tovarincore._core_conf.schema import SETTINGS, WORKER_ADDRESSES, Setting
from tovarincore._core_conf.values import check_address, check_value, from_variable

__all__ = ["SETTINGS_BY_NAME", "Settings", "read_settings"]

SETTINGS_BY_NAME: dict[str, Setting] = {row.name: row for row in SETTINGS if row.section != WORKER_ADDRESSES}


class Settings:
    """What one reading of the configuration gave.

    ``values`` maps ``section__key`` to the value, ``worker_addresses`` a key of that section to host and
    port.
    """

    def __init__(self, values: dict[str, Any], worker_addresses: dict[str, tuple[str, int]]) -> None:
        self.values = values
        self.worker_addresses = worker_addresses


def read_settings(path: Path) -> Settings:
    """Read the configuration file and the environment.

    :param path: the TOML file; a missing one leaves the defaults
    :raises ConfigError: the file cannot be read, or it or the environment holds something not allowed
    """
    values = {name: row.default for name, row in SETTINGS_BY_NAME.items()}
    tables = read_toml(path) or {}
    addresses = _read_addresses(tables.pop(WORKER_ADDRESSES, {}), path)
    _apply_file(values, tables, path)
    _apply_environment(values, os.environ)
    if values["proxy__enabled"] and not (values["proxy__http"] or values["proxy__https"]):
        raise ConfigError(
            f"{path}: [proxy] enabled is true but names no proxy; set [proxy] http or https to http://host:port"
        )
    return Settings(values, addresses)


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


def _apply_environment(values: dict[str, Any], environment: Mapping[str, str]) -> None:
    rows = {row.variable: row for row in SETTINGS_BY_NAME.values()}
    for variable, text in environment.items():
        # Two underscores mark a setting; TOVARIN_CONF and its like name files.
        if not variable.startswith("TOVARIN_") or "__" not in variable:
            continue
        row = rows.get(variable)
        if row is None:
            raise ConfigError(f"unknown environment variable {variable}; {did_you_mean(variable, rows)}")
        values[row.name] = check_value(row, from_variable(row, text), f"environment variable {variable}")
