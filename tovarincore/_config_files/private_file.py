"""A file that only its owner may read: checked reading, atomic writing, one writer at a time."""

import contextlib
import errno
import fcntl
import os
import shlex
import stat
import time
from collections.abc import Iterator
from pathlib import Path

from tovarincore._config_files.errors import ConfigError

__all__ = ["locked", "read_private", "write_private"]

_LOCK_SECONDS = 10.0


def read_private(path: Path) -> bytes | None:
    """Return the file's bytes, or ``None`` when there is no such file.

    :raises ConfigError: the file may be read or written by others, or cannot be read
    """
    try:
        # O_NONBLOCK: a pipe in the file's place is refused below rather than waited for.
        descriptor = os.open(path, os.O_RDONLY | os.O_CLOEXEC | os.O_NONBLOCK)
    except (FileNotFoundError, NotADirectoryError):
        return None
    except OSError as error:
        raise ConfigError(f"{path}: cannot be read: {error.strerror}") from error
    try:
        # The open file is looked at, not the name, which may lead elsewhere by now.
        _require_private(os.fstat(descriptor).st_mode, path)
        with open(descriptor, "rb", closefd=False) as file:
            return file.read()
    finally:
        os.close(descriptor)


def _require_private(mode: int, path: Path) -> None:
    if not stat.S_ISREG(mode):
        raise ConfigError(f"{path}: is not a file; move it away or name another one")
    if stat.S_IMODE(mode) & ~0o600:
        raise ConfigError(
            f"{path}: has mode {stat.S_IMODE(mode):04o}, but it holds credentials and may be open to its"
            f" owner alone; mend it with: chmod 600 {shlex.quote(str(path))}"
        )


def write_private(path: Path, data: bytes) -> None:
    """Replace the file as a whole: readers see the old bytes or the new, also after a crash.

    :raises ConfigError: the file cannot be written; the old one is then as it was
    """
    # Imported here: few programs write.
    import tempfile

    # A link stays a link: the file that it leads to is replaced.
    target = Path(os.path.realpath(path))
    try:
        # mkstemp opens with mode 0600: there is no moment at which others could read.
        descriptor, temporary = tempfile.mkstemp(prefix=f".{target.name}.", dir=target.parent)
        try:
            with open(descriptor, "wb") as file:
                file.write(data)
                file.flush()
                os.fsync(descriptor)
            os.replace(temporary, target)
        except BaseException:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(temporary)
            raise
        directory = os.open(target.parent, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
        try:
            os.fsync(directory)
        finally:
            os.close(directory)
    except OSError as error:
        raise ConfigError(f"{path}: cannot be written: {error.strerror}") from error


@contextlib.contextmanager
def locked(path: Path) -> Iterator[None]:
    """Hold the lock of a file for reading, changing and writing it, among threads and processes.

    The directory is made when it is missing. The lock is a file beside the one that it protects, since that
    one is replaced; it stays there.

    :raises ConfigError: the lock cannot be had within ten seconds, or its file cannot be made
    """
    lock_path = Path(os.path.realpath(path) + ".lock")
    try:
        lock_path.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
        descriptor = os.open(lock_path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
    except OSError as error:
        raise ConfigError(f"{lock_path}: cannot be made: {error.strerror}") from error
    try:
        _wait_for_lock(descriptor, lock_path)
        yield
    finally:
        # Closing the description gives the lock up.
        os.close(descriptor)


def _wait_for_lock(descriptor: int, lock_path: Path) -> None:
    deadline = time.monotonic() + _LOCK_SECONDS
    while True:
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return
        except OSError as error:
            if error.errno not in (errno.EWOULDBLOCK, errno.EACCES):
                raise ConfigError(f"{lock_path}: cannot be locked: {error.strerror}") from error
        if time.monotonic() >= deadline:
            raise ConfigError(
                f"{lock_path}: another program has held it for {_LOCK_SECONDS:.0f} seconds; try again later"
            )
        time.sleep(0.02)
