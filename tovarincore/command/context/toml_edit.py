"""Changes a TOML file of the user's in place: comments, order and all other entries stay."""

import os
import stat
from collections.abc import Callable
from pathlib import Path
from typing import TYPE_CHECKING, TypeVar

from tovarincore._config_files.private_file import locked, write_private
from tovarincore._config_files.reading import read_file
from tovarincore._config_files.toml_file import parse_toml

if TYPE_CHECKING:
    from tomlkit import TOMLDocument

__all__ = ["edit_toml"]

T = TypeVar("T")


def edit_toml(path: Path, change: Callable[["TOMLDocument"], T], check: Callable[[], object]) -> T:
    """Change a file, and put it back as it was if it cannot be used afterwards.

    A new file is readable by its owner alone; an old one keeps its mode.

    :param path: the file, which need not exist
    :param change: changes the document
    :param check: reads the changed file, and raises ``ConfigError`` if it cannot be used
    :return: what ``change`` returned
    :raises ConfigError: the file cannot be read or written, or not be used after the change
    """
    import tomlkit

    with locked(path):
        read = read_file(path)
        before = read[0] if read is not None else None
        parse_toml(before or b"", path)
        document = tomlkit.parse((before or b"").decode("utf-8"))
        result = change(document)
        write_private(path, tomlkit.dumps(document).encode("utf-8"))
        try:
            check()
        except BaseException:
            if before is None:
                path.unlink()
            else:
                write_private(path, before)
            raise
        finally:
            if read is not None and path.exists():
                os.chmod(path, stat.S_IMODE(read[1].st_mode))
    return result
