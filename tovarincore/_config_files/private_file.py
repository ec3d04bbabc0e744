"""A file that only its owner may read: checked reading, atomic writing, one writer at a time."""

import contextlib
import errno
import fcntl
import os
import re
import stat
import threading
import time
from collections.abc import Iterator
from pathlib import Path

from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.privacy import require_private, require_safe_folder
from tovarincore._config_files.reading import read_file
from tovarincore._transport.masker import SecretBytes

__all__ = ["locked", "read_private", "write_private"]

_LOCK_SECONDS = 10.0


def read_private(path: Path) -> SecretBytes | None:
    """Return the file's bytes, or ``None`` when there is no such file.

    :raises ConfigError: the file may be read, written or replaced by others, or cannot be read
    """
    read = read_file(path)
    if read is None:
        return None
    data, status = read
    require_private(status, path)
    return data


def write_private(path: Path, data: bytes) -> None:
    """Replace the file as a whole: readers see the old bytes or the new, also after a crash.

    Whoever replaces a file holds its lock (:func:`locked`).

    :raises ConfigError: the file cannot be written, the old one is then as it was; or it is written, but a
        power failure could bring the old one back, which the text then says
    """
    # Imported here: few programs write.
    import tempfile

    # A link stays a link: the file that it leads to is replaced.
    target = Path(os.path.realpath(path))
    try:
        descriptor, temporary = tempfile.mkstemp(prefix=f".{target.name}.", dir=target.parent)
        try:
            with open(descriptor, "wb") as file:
                # mkstemp asks for 0600, so others could never read; the process's mask may have taken more.
                os.fchmod(descriptor, 0o600)
                file.write(data)
                file.flush()
                os.fsync(descriptor)
            os.replace(temporary, target)
        except BaseException:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(temporary)
            raise
    except OSError as error:
        raise ConfigError(f"{path}: cannot be written: {error.strerror}") from error
    try:
        _sync_folder(target.parent)
    except OSError as error:
        raise ConfigError(
            f"{path}: is written, but its folder cannot be synchronised ({error.strerror}): after a power"
            " failure the old content could be back; check the disk"
        ) from error


def _sync_folder(folder: Path) -> None:
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


@contextlib.contextmanager
def locked(path: Path, stop: threading.Event | None = None) -> Iterator[None]:
    """Hold the lock of a file for reading, changing and writing it, among threads and processes.

    A missing folder is made, for its owner alone. The lock is a file beside the one that it protects, since
    that one is replaced; it stays there. What a killed writer left behind is removed.

    :param path: the file
    :param stop: wait for the lock as long as it takes, until this is set; ``None`` waits ten seconds
    :raises ConfigError: the lock cannot be acquired in that time, its file cannot be made or is not the
        user's own, or others could replace the file
    """
    target = Path(os.path.realpath(path))
    lock_path = Path(f"{target}.lock")
    try:
        _make_folder(target.parent)
        require_safe_folder(path)
        # O_NOFOLLOW: a link in the lock's place could lead to any file.
        flags = os.O_RDWR | os.O_CREAT | os.O_CLOEXEC | os.O_NOFOLLOW | os.O_NONBLOCK
        descriptor = os.open(lock_path, flags, 0o600)
    except OSError as error:
        why = "it is a symbolic link; remove it" if error.errno == errno.ELOOP else error.strerror
        raise ConfigError(f"{lock_path}: cannot be made: {why}") from error
    try:
        _require_own(descriptor, lock_path)
        _wait_for_lock(descriptor, lock_path, stop)
        _sweep(target)
        yield
    finally:
        # Closing the description gives the lock up.
        os.close(descriptor)


def _make_folder(folder: Path) -> None:
    """Make a folder and those above it, each open to its owner alone whatever the process's mask says."""
    if folder.is_dir():
        return
    if not folder.parent.is_dir():
        _make_folder(folder.parent)
    try:
        os.mkdir(folder, 0o700)
    except FileExistsError:
        if not folder.is_dir():
            raise
    else:
        os.chmod(folder, 0o700)


def _require_own(descriptor: int, lock_path: Path) -> None:
    status = os.fstat(descriptor)
    if not stat.S_ISREG(status.st_mode) or status.st_uid not in (os.geteuid(), 0):
        raise ConfigError(f"{lock_path}: is not a file of your own; remove it")
    if status.st_uid == os.geteuid() and stat.S_IMODE(status.st_mode) != 0o600:
        os.fchmod(descriptor, 0o600)


def _sweep(target: Path) -> None:
    """Remove the temporary files of writers that were killed; with the lock held there are no others."""
    temporary = re.compile(rf"\.{re.escape(target.name)}\.[a-z0-9_]{{8}}")
    with contextlib.suppress(OSError):
        for entry in list(os.scandir(target.parent)):
            if temporary.fullmatch(entry.name) and entry.is_file(follow_symlinks=False):
                with contextlib.suppress(OSError):
                    os.unlink(entry)


def _wait_for_lock(descriptor: int, lock_path: Path, stop: threading.Event | None) -> None:
    deadline = time.monotonic() + _LOCK_SECONDS
    while True:
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return
        except OSError as error:
            if error.errno not in (errno.EWOULDBLOCK, errno.EACCES):
                raise ConfigError(f"{lock_path}: cannot be locked: {error.strerror}") from error
        if stop is not None:
            if stop.wait(0.1):
                raise ConfigError(f"{lock_path}: another program held it until the wait was stopped")
            continue
        if time.monotonic() >= deadline:
            raise ConfigError(
                f"{lock_path}: another program has held it for {_LOCK_SECONDS:.0f} seconds; try again later"
            )
        time.sleep(0.02)
