"""Reads the small files that users and clusters write: kubeconfigs, tokens, certificates."""

import os
import stat
from pathlib import Path

__all__ = ["read_small_file"]

_LONGEST_BYTES = 1 << 20


def read_small_file(path: str | Path) -> bytes:
    """Return the content of a regular file of at most 1 MiB.

    A pipe or a terminal would be waited for, and a device may never end.

    :raises OSError: it cannot be read, is no regular file or is longer
    """
    try:
        descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    except ValueError as error:
        raise OSError(f"{str(path)!r} cannot be the name of a file") from error
    # Opened by a descriptor, since open() itself takes no such flags; a folder is refused below as well.
    try:
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            raise OSError(f"{path} is not a regular file")
        content = bytearray()
        while chunk := os.read(descriptor, 65536):
            content += chunk
            if len(content) > _LONGEST_BYTES:
                raise OSError(f"{path} is longer than {_LONGEST_BYTES} bytes")
        return bytes(content)
    finally:
        os.close(descriptor)
