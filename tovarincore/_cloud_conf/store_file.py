"""Reads the store, and keeps what it read until the file changes: every probe of a worker asks for it."""

import os
import time
from pathlib import Path

from tovarincore._cloud_conf.store_entries import Entries, check_entries
from tovarincore._config_files.privacy import require_private
from tovarincore._config_files.reading import read_file
from tovarincore._config_files.toml_file import parse_toml

__all__ = ["read_entries", "read_entries_again"]

_SECOND = 1_000_000_000
# A file system's clock ticks every 10 ms at the slowest, or every two seconds where it counts whole seconds.
_TICK, _WHOLE_SECONDS_TICK = _SECOND // 20, 3 * _SECOND

_State = tuple[int, ...]

_kept: tuple[str, _State, Entries] | None = None


def read_entries(path: Path) -> Entries:
    """Return the store's entries; nobody may change them.

    The file is parsed again once its state, or that of its folder, is another one. Its former secrets are
    dropped then.

    :raises ConfigError: the file is not its owner's alone, cannot be read or holds something not allowed
    """
    global _kept
    name, kept = os.fspath(path), _kept
    if kept is not None and kept[0] == name and kept[1] == _state_of(name):
        return kept[2]
    kept = _kept = None
    folder = _folder_state(name)
    read = read_file(path)
    if read is None:
        return {}
    data, status = read
    now = time.time_ns()
    require_private(status, path)
    entries = check_entries(parse_toml(data, path), path)
    # A file that changed a moment ago could change again without another time of change.
    tick = _TICK if status.st_ctime_ns % _SECOND else _WHOLE_SECONDS_TICK
    if folder is not None and now - status.st_ctime_ns > tick:
        _kept = (name, (*_file_state(status), *folder), entries)
    return entries


def read_entries_again(path: Path) -> Entries:
    """Return the store's entries, parsed now, for the caller to change.

    :raises ConfigError: as :func:`read_entries`
    """
    global _kept
    _kept = None
    return dict(read_entries(path))


def _state_of(name: str) -> _State | None:
    try:
        status = os.stat(name)
    except OSError:
        return None
    folder = _folder_state(name)
    return None if folder is None else (*_file_state(status), *folder)


def _file_state(status: os.stat_result) -> _State:
    return (
        status.st_dev,
        status.st_ino,
        status.st_mode,
        status.st_uid,
        status.st_size,
        status.st_mtime_ns,
        status.st_ctime_ns,
    )


def _folder_state(name: str) -> _State | None:
    """Whose the folder is and who may write to it; not its times, which change with every file in it."""
    try:
        status = os.stat(os.path.dirname(name) or ".")
    except OSError:
        return None
    return (status.st_dev, status.st_ino, status.st_mode, status.st_uid)
