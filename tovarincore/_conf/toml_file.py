"""Reads a TOML file into plain data, with errors that never repeat a line of it."""

import re
import sys
from pathlib import Path
from typing import Any

from tovarincore._conf.errors import ConfigError

__all__ = ["parse_toml", "read_toml"]


def read_toml(path: Path) -> dict[str, Any] | None:
    """Return the tables of a TOML file, or ``None`` when there is no such file.

    :raises ConfigError: the file cannot be read or is not TOML
    """
    try:
        data = path.read_bytes()
    except FileNotFoundError:
        return None
    except OSError as error:
        raise ConfigError(f"{path}: cannot be read: {error.strerror}") from error
    return parse_toml(data, path)


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
        return tomllib.loads(data.decode("utf-8"))
    except UnicodeDecodeError as error:
        problem = f"is not UTF-8 text (byte {error.start})"
    except tomllib.TOMLDecodeError as error:
        place = re.search(r"\(at ([^()]*)\)$", str(error))
        problem = "is not valid TOML" + (f" at {place.group(1)}" if place else "")
    raise ConfigError(f"{path}: {problem}")
