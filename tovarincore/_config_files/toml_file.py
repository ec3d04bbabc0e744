"""Reads a TOML file into plain data, with errors that never repeat a line of it."""

import re
import sys
from pathlib import Path
from typing import Any

from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.names import did_you_mean
from tovarincore._config_files.reading import read_file

__all__ = ["parse_toml", "read_named_toml", "read_toml", "require_section"]

_LONGEST_INTEGER = 2**63


def read_toml(path: Path) -> dict[str, Any] | None:
    """Return the tables of a TOML file, or ``None`` when there is no such file.

    :raises ConfigError: the file cannot be read or is not TOML
    """
    read = read_file(path)
    return None if read is None else parse_toml(read[0], path)


def read_named_toml(path: Path, setting: str) -> dict[str, Any]:
    """Return the tables of a file that a setting names.

    :param path: the file
    :param setting: the setting, for the error's text
    :raises ConfigError: there is no such file, it cannot be read or is not TOML
    """
    tables = read_toml(path)
    if tables is None:
        raise ConfigError(f"{path}: no such file; the setting {setting} names it")
    return tables


def require_section(tables: dict[str, Any], section: str, path: Path) -> None:
    """Refuse every section of a file but one.

    :raises ConfigError: another section, with the name that would have been right
    """
    for name in tables:
        if name != section:
            raise ConfigError(f'{path}: unknown section "{name}"; {did_you_mean(name, [section])}')


def parse_toml(data: bytes, path: Path) -> dict[str, Any]:
    """Return the tables of a TOML text.

    :param data: the file's bytes
    :param path: the file, for the error's text
    :raises ConfigError: the bytes are not UTF-8 or not TOML; the text gives the position alone
    """
    if sys.version_info >= (3, 11):
        import tomllib
    else:
        import tomli as tomllib

    # Raised below, outside the handlers: the parser's and the decoder's own errors carry parts of the file,
    # and a chained exception would keep them.
    try:
        tables = tomllib.loads(data.decode("utf-8"))
        if not _holds_longer_integer(tables):
            return tables
        problem = "holds a whole number of more than 64 bits"
    except UnicodeDecodeError as error:
        problem = f"is not UTF-8 text (byte {error.start})"
    except tomllib.TOMLDecodeError as error:
        place = re.search(r"\(at ([^()]*)\)$", str(error))
        problem = "is not valid TOML" + (f" at {place.group(1)}" if place else "")
    except RecursionError:
        problem = "is nested too deeply"
    except ValueError:
        # The interpreter's own limits: numbers of thousands of digits, dates that no calendar has.
        problem = "holds a number or date that cannot be read"
    raise ConfigError(f"{path}: {problem}")


def _holds_longer_integer(tables: dict[str, Any]) -> bool:
    """Whether an integer is longer than TOML allows: one in hexadecimal could not even be shown."""
    left: list[Any] = [tables]
    while left:
        value = left.pop()
        if isinstance(value, dict):
            left += value.values()
        elif isinstance(value, list):
            left += value
        elif isinstance(value, int) and not -_LONGEST_INTEGER <= value < _LONGEST_INTEGER:
            return True
    return False
