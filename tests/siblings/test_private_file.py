"""Atomic writing and locking of a file that is its owner's alone."""

import os
import threading
from pathlib import Path

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
