"""Atomic writing and locking of a file that is its owner's alone."""

import errno
import os
import signal
import stat
import subprocess
import sys
import threading
from pathlib import Path
from typing import NoReturn

import pytest

from tovarincore._config_files import private_file
from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.private_file import locked, read_private, write_private


def test_a_failed_write_leaves_the_old_file_and_nothing_else(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A full disk must not cost the credentials that were there."""
    path = tmp_path / "store"
    write_private(path, b"old")

    def fail(descriptor: int) -> None:
        raise OSError(28, "No space left on device")

    monkeypatch.setattr(os, "fsync", fail)
    with pytest.raises(ConfigError, match="store: cannot be written: No space left on device"):
        write_private(path, b"new")
    assert read_private(path) == b"old"
    assert [item.name for item in tmp_path.iterdir()] == ["store"]


def test_a_link_stays_a_link(tmp_path: Path) -> None:
    """People keep their configuration elsewhere and link to it."""
    (tmp_path / "elsewhere").mkdir()
    target, link = tmp_path / "elsewhere" / "store", tmp_path / "store"
    write_private(target, b"old")
    link.symlink_to(target)
    write_private(link, b"new")
    assert link.is_symlink()
    assert read_private(target) == b"new"


def test_a_reader_never_sees_half_a_file(tmp_path: Path) -> None:
    """Old or new, while a writer is at work."""
    path, texts = tmp_path / "store", [b"a" * 100_000, b"b" * 100_000]
    write_private(path, texts[0])
    done = threading.Event()

    def keep_writing() -> None:
        for number in range(50):
            write_private(path, texts[number % 2])
        done.set()

    writer = threading.Thread(target=keep_writing)
    writer.start()
    while not done.is_set():
        assert read_private(path) in texts
    writer.join()


def test_a_lock_that_is_held_too_long_is_named(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """Rather than waited for without end; once it is free it can be had again."""
    monkeypatch.setattr(private_file, "_LOCK_SECONDS", 0.1)
    path = tmp_path / "store"
    with (
        locked(path),
        pytest.raises(ConfigError, match=r"store\.lock: another program has held it"),
        locked(path),
    ):
        pytest.fail("the lock was given twice")
    with locked(path):
        pass


def test_the_lock_is_free_after_a_failure(tmp_path: Path) -> None:
    """Whatever happens while it is held."""
    path = tmp_path / "store"
    with pytest.raises(KeyError), locked(path):
        raise KeyError
    with locked(path):
        pass


def test_a_folder_that_cannot_be_made_is_named(tmp_path: Path) -> None:
    """With the system's reason."""
    (tmp_path / "file").write_text("")
    with (
        pytest.raises(ConfigError, match=r"store\.lock: cannot be made: "),
        locked(tmp_path / "file" / "store"),
    ):
        pytest.fail("a lock was made below a file")


def test_a_folder_that_cannot_be_synchronised_is_told_as_what_it_is(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The file is the new one already, which the text says; nothing else is left."""
    path = tmp_path / "store"
    write_private(path, b"old")
    fsync = os.fsync

    def fail_for_folders(descriptor: int) -> None:
        if stat.S_ISDIR(os.fstat(descriptor).st_mode):
            raise OSError(errno.EIO, os.strerror(errno.EIO))
        fsync(descriptor)

    monkeypatch.setattr(os, "fsync", fail_for_folders)
    with pytest.raises(ConfigError, match=r"store: is written, but its folder cannot .*Input/output error"):
        write_private(path, b"new")
    assert read_private(path) == b"new"
    assert [item.name for item in tmp_path.iterdir()] == ["store"]


@pytest.mark.parametrize("mask", [0o000, 0o022, 0o277, 0o777], ids=oct)
def test_folders_and_files_are_their_owners_under_any_mask(tmp_path: Path, mask: int) -> None:
    """Also the folders above, such as ~/.config, which others would otherwise look into or write to."""
    path = tmp_path / "home" / ".config" / "tovarin" / "cloud.toml"
    before = os.umask(mask)
    try:
        with locked(path):
            write_private(path, b"new")
        with locked(path):
            assert read_private(path) == b"new"
    finally:
        os.umask(before)
    folders = [path.parent, path.parent.parent, path.parent.parent.parent]
    assert [stat.S_IMODE(folder.stat().st_mode) for folder in folders] == [0o700] * 3
    assert [stat.S_IMODE(file.stat().st_mode) for file in path.parent.iterdir()] == [0o600] * 2


def test_a_folder_that_is_there_keeps_its_mode(tmp_path: Path) -> None:
    """It is not ours to change."""
    (tmp_path / "config").mkdir()
    (tmp_path / "config").chmod(0o755)
    with locked(tmp_path / "config" / "tovarin" / "store"):
        pass
    assert stat.S_IMODE((tmp_path / "config").stat().st_mode) == 0o755


def test_a_link_in_the_locks_place_is_refused(tmp_path: Path) -> None:
    """It could lead to any file, which would be opened for writing."""
    (tmp_path / "elsewhere").write_text("")
    (tmp_path / "store.lock").symlink_to(tmp_path / "elsewhere")
    with (
        pytest.raises(ConfigError, match=r"store\.lock: cannot be made: it is a symbolic link; remove it"),
        locked(tmp_path / "store"),
    ):
        pytest.fail("the link was followed")


def test_a_pipe_in_the_locks_place_is_refused(tmp_path: Path) -> None:
    """And not waited for."""
    os.mkfifo(tmp_path / "store.lock")
    with pytest.raises(ConfigError, match="is not a file of your own"), locked(tmp_path / "store"):
        pytest.fail("the pipe was taken for a lock")


def test_what_killed_writers_left_is_swept_and_nothing_else(tmp_path: Path) -> None:
    """With the lock held there is no other writer; others' files of a similar name stay."""
    kept = {".store.toolong123", ".store.UPPER123", ".other.abcd1234", "store.abcd1234", ".store.folder12"}
    for name in [*kept - {".store.folder12"}, ".store.abcd1234", ".store.x_y_z_00"]:
        (tmp_path / name).write_text("")
    (tmp_path / ".store.folder12").mkdir()
    with locked(tmp_path / "store"):
        write_private(tmp_path / "store", b"new")
    assert {item.name for item in tmp_path.iterdir()} == {*kept, "store", "store.lock"}


def test_a_writer_that_is_killed_leaves_the_old_file_and_the_next_one_tidies_up(tmp_path: Path) -> None:
    """Between the temporary file and its renaming, with no chance to do anything more."""
    path = tmp_path / "store"
    write_private(path, b"old")
    program = (
        "import os, signal, sys; from pathlib import Path\n"
        "from tovarincore._config_files.private_file import write_private\n"
        "os.replace = lambda *_: os.kill(os.getpid(), signal.SIGKILL)\n"
        "write_private(Path(sys.argv[1]), b'new')"
    )
    child = subprocess.run([sys.executable, "-c", program, str(path)], timeout=60, check=False)
    assert child.returncode == -signal.SIGKILL
    assert len(list(tmp_path.iterdir())) == 2
    with locked(path):
        assert read_private(path) == b"old"
    assert {item.name for item in tmp_path.iterdir()} == {"store", "store.lock"}


needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can give a file to another user")


@needs_root
def test_a_file_of_another_user_is_refused(tmp_path: Path) -> None:
    """Who owns a file may change it and its mode at any time."""
    path = tmp_path / "store"
    write_private(path, b"old")
    os.chown(path, 12345, -1)
    with pytest.raises(ConfigError, match=r"store: belongs to user 12345.*chown 0 .*store$"):
        read_private(path)


@needs_root
def test_a_folder_of_another_user_is_refused(tmp_path: Path) -> None:
    """Who owns a folder may put another file in the place of ours."""
    path = tmp_path / "theirs" / "store"
    path.parent.mkdir(mode=0o700)
    write_private(path, b"old")
    os.chown(path.parent, 12345, -1)
    with pytest.raises(ConfigError, match=r"its folder .*theirs belongs to user 12345"):
        read_private(path)
    with pytest.raises(ConfigError, match="belongs to user 12345"), locked(path):
        pytest.fail("a lock was made in another user's folder")


@needs_root
def test_a_lock_of_another_user_is_refused(tmp_path: Path) -> None:
    """It could be held for ever."""
    (tmp_path / "store.lock").write_text("")
    os.chown(tmp_path / "store.lock", 12345, -1)
    with pytest.raises(ConfigError, match="is not a file of your own"), locked(tmp_path / "store"):
        pytest.fail("another user's lock was taken")


@pytest.mark.parametrize("mode", [0o777, 0o702, 0o722], ids=oct)
def test_a_folder_that_all_may_write_to_is_refused(tmp_path: Path, mode: int) -> None:
    """For reading and for changing, whether the file or a link to it lies there."""
    open_to_all, own = tmp_path / "open", tmp_path / "own"
    own.mkdir(mode=0o700)
    open_to_all.mkdir(mode=0o700)
    write_private(open_to_all / "store", b"old")
    (own / "link").symlink_to(open_to_all / "store")
    write_private(own / "store", b"old")
    (open_to_all / "link").symlink_to(own / "store")
    open_to_all.chmod(mode)
    for path in (open_to_all / "store", own / "link", open_to_all / "link"):
        with pytest.raises(ConfigError, match=r"every user may write to its folder .*: chmod o-w .*open$"):
            read_private(path)
        with pytest.raises(ConfigError, match="every user may write"), locked(path):
            pytest.fail("a lock was given")


def test_a_sticky_folder_that_all_may_write_to_is_accepted(tmp_path: Path) -> None:
    """As /tmp is: nobody can replace a file there that is not theirs."""
    (tmp_path / "sticky").mkdir()
    (tmp_path / "sticky").chmod(0o1777)
    path = tmp_path / "sticky" / "store"
    with locked(path):
        write_private(path, b"new")
    assert read_private(path) == b"new"


@pytest.mark.parametrize("call", ["fstat", "read"])
@pytest.mark.parametrize("number", [errno.EIO, errno.ESTALE])
def test_a_disk_that_fails_while_reading_is_named(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, call: str, number: int
) -> None:
    """The file was opened already."""
    path = tmp_path / "store"
    write_private(path, b"old")

    def fail(*arguments: object, **named: object) -> NoReturn:
        raise OSError(number, os.strerror(number))

    if call == "fstat":
        monkeypatch.setattr(os, "fstat", fail)
    else:
        monkeypatch.setattr("builtins.open", fail)
    with pytest.raises(ConfigError) as caught:
        read_private(path)
    monkeypatch.undo()
    assert str(caught.value) == f"{path}: cannot be read: {os.strerror(number)}"


def test_the_bytes_are_not_shown(tmp_path: Path) -> None:
    """A traceback with local variables would print them."""
    write_private(tmp_path / "store", b"canary")
    assert repr(read_private(tmp_path / "store")) == "<6 bytes, not shown>"
