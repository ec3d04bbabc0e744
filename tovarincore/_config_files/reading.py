"""Reads configuration files: bounded, never waiting, with every error of the system as the documented one."""

import os
import stat
from pathlib import Path

from tovarincore._config_files.errors import ConfigError
from tovarincore._transport.masker import SecretBytes

__all__ = ["read_file"]

_LONGEST_BYTES = 16 * 1024 * 1024


def read_file(path: Path) -> tuple[SecretBytes, os.stat_result] | None:
    """Return a file's bytes and its state before they were read, or ``None`` when there is no such file.

    The state is that of the open file: its name may lead elsewhere by now.

    :raises ConfigError: it is no file, cannot be read or is longer than 16 MiB
    """
    try:
        # O_NONBLOCK: a pipe in the file's place is refused below rather than waited for.
        descriptor = os.open(path, os.O_RDONLY | os.O_CLOEXEC | os.O_NONBLOCK)
    except (FileNotFoundError, NotADirectoryError):
        return None
    except (OSError, ValueError) as error:
        raise _unreadable(path, error) from error
    try:
        status = os.fstat(descriptor)
        # An empty configuration may be written as /dev/null.
        if not stat.S_ISREG(status.st_mode) and not os.path.samestat(status, os.stat(os.devnull)):
            raise ConfigError(f"{path}: is not a file; move it away or name another one")
        with open(descriptor, "rb", closefd=False) as file:
            data = SecretBytes(file.read(_LONGEST_BYTES + 1))
    except OSError as error:
        raise _unreadable(path, error) from error
    finally:
        os.close(descriptor)
    if len(data) > _LONGEST_BYTES:
        raise ConfigError(f"{path}: is longer than {_LONGEST_BYTES} bytes; name another file")
    return data, status


def _unreadable(path: Path, error: OSError | ValueError) -> ConfigError:
    why = error.strerror if isinstance(error, OSError) else error
    return ConfigError(f"{path}: cannot be read: {why}")
