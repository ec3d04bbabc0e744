"""Who may read and replace a file that holds credentials: its owner alone."""

import os
import stat
from pathlib import Path

from tovarincore._config_files.errors import ConfigError

__all__ = ["require_private", "require_safe_folder"]


def require_private(status: os.stat_result, path: Path) -> None:
    """Refuse a file that others may read or write, that belongs to somebody else, or that others may replace.

    :param status: state of the open file
    :param path: its name
    :raises ConfigError: with the command that puts it right
    """
    if not stat.S_ISREG(status.st_mode):
        raise ConfigError(f"{path}: is not a file; move it away or name another one")
    if not _is_trusted(status.st_uid):
        raise ConfigError(
            f"{path}: belongs to user {status.st_uid}, but it holds credentials and must belong to the user"
            f" that reads it ({os.geteuid()}); correct it with: chown {os.geteuid()} {_quoted(path)}"
        )
    if stat.S_IMODE(status.st_mode) & ~0o600:
        raise ConfigError(
            f"{path}: has mode {stat.S_IMODE(status.st_mode):04o}, but it holds credentials and may be open"
            f" to its owner alone; correct it with: chmod 600 {_quoted(path)}"
        )
    require_safe_folder(path)


def require_safe_folder(path: Path) -> None:
    """Refuse a file, or a link to it, in a folder where others could put another one in its place.

    :raises ConfigError: with the command that puts it right
    """
    for folder in dict.fromkeys(
        (os.path.dirname(os.path.abspath(path)), os.path.dirname(os.path.realpath(path)))
    ):
        try:
            status = os.stat(folder)
        except OSError as error:
            raise ConfigError(f"{path}: its folder cannot be read: {error.strerror}") from error
        if not _is_trusted(status.st_uid):
            raise ConfigError(
                f"{path}: its folder {folder} belongs to user {status.st_uid}, who could replace the file;"
                " move it to a folder of your own"
            )
        # In a sticky folder such as /tmp nobody can replace a file that is not theirs.
        if status.st_mode & stat.S_IWOTH and not status.st_mode & stat.S_ISVTX:
            raise ConfigError(
                f"{path}: every user may write to its folder {folder} and so replace the file; correct it"
                f" with: chmod o-w {_quoted(folder)}"
            )


def _quoted(path: Path | str) -> str:
    # Imported here: few programs make mistakes.
    import shlex

    return shlex.quote(str(path))


def _is_trusted(user: int) -> bool:
    """Whether a user's files are as good as our own: root could change ours anyway."""
    return user in (os.geteuid(), 0)
