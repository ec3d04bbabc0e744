"""Key pairs and the file of the private key."""

from __future__ import annotations

import os
import stat
from pathlib import Path

import pytest

from stage.ec2 import USER_NAME, Ec2World
from stage.fault import HANG_UP, unauthorized
from tests.command.conftest import Run


def names(ec2: Ec2World) -> list[str]:
    """The key pairs that EC2 has."""
    return [pair["KeyName"] for pair in ec2.raw.describe_key_pairs()["KeyPairs"]]


def test_the_private_key_is_written_for_its_owner_alone(run: Run, ec2: Ec2World, tmp_path: Path) -> None:
    """The file holds the key with mode 0600; the pair bears the user's name."""
    path = tmp_path / "key.pem"
    result = run("keypair", "create", "us-east-1", "k1", "--file", str(path))
    assert result.exit_code == 0, result.output
    assert result.stdout == f"created the key pair k1; its private key is in {path} (mode 0600)\n"
    assert stat.S_IMODE(path.stat().st_mode) == 0o600
    assert "PRIVATE KEY" in path.read_text()
    (pair,) = ec2.raw.describe_key_pairs(KeyNames=["k1"])["KeyPairs"]
    assert pair["Tags"] == [{"Key": "tovarin_username", "Value": USER_NAME}]


def test_an_existing_file_is_refused_before_ec2_is_asked(run: Run, ec2: Ec2World, tmp_path: Path) -> None:
    """The file stays as it is, and no key pair is made."""
    path = tmp_path / "key.pem"
    path.write_text("precious")
    with ec2.faults() as endpoint:
        result = run("keypair", "create", "us-east-1", "k1", "--file", str(path))
        assert endpoint.actions() == []
    assert result.exit_code == 2
    assert "exists, and a key is not written over another; no key pair was created" in result.stderr
    assert path.read_text() == "precious"


def test_a_refusal_leaves_no_file(run: Run, ec2: Ec2World, tmp_path: Path) -> None:
    """A pair that exists, missing rights and a lost connection all leave nothing behind."""
    path = tmp_path / "key.pem"
    create = ("keypair", "create", "us-east-1")
    taken = run(*create, "tovarin-key", "--file", str(path))
    assert (taken.exit_code, "already exists" in taken.stderr) == (1, True)
    with ec2.faults() as endpoint:
        endpoint.script("CreateKeyPair", unauthorized(), HANG_UP)
        assert run(*create, "k1", "--file", str(path)).exit_code == 6
        assert run(*create, "k1", "--file", str(path)).exit_code == 5
        assert names(ec2) == ["tovarin-key"]
    assert not path.exists()


def test_a_key_pair_is_deleted_after_asking(run: Run, ec2: Ec2World) -> None:
    """No leaves it, yes deletes it."""
    delete = ("keypair", "delete", "us-east-1", "tovarin-key")
    assert run(*delete, answer="n\n").exit_code == 1
    assert names(ec2) == ["tovarin-key"]
    result = run(*delete, "--yes")
    assert (result.exit_code, result.stdout) == (0, "no key pair tovarin-key is left in us-east-1\n")
    assert names(ec2) == []


def test_other_regions_have_no_key_pairs(run: Run, no_account: Path) -> None:
    """The local region is refused before a file is made."""
    result = run("keypair", "create", "local", "k1")
    assert result.exit_code == 2
    assert "key pairs belong to Amazon's regions" in result.stderr
    assert not Path("k1.pem").exists()


def test_a_name_that_is_no_file_name_needs_a_file(run: Run, ec2: Ec2World) -> None:
    """A key pair's name may hold what no file should be called."""
    result = run("keypair", "create", "us-east-1", "my key")
    assert result.exit_code == 2
    assert "say with --file where" in result.stderr


def test_a_name_that_is_a_path_is_refused(run: Run, ec2: Ec2World) -> None:
    """A key pair's name that leads elsewhere is none, whatever the file is called."""
    result = run("keypair", "create", "us-east-1", "../k1", "--file", "k.pem")
    assert result.exit_code == 2
    assert "cannot be the name of a key pair" in result.stderr


def test_a_key_that_cannot_be_written_leaves_a_useless_pair_to_delete(
    run: Run, ec2: Ec2World, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A full disk is said as such, with how to delete the pair whose key is lost; the file is removed."""

    def full(descriptor: int) -> None:
        raise OSError(28, "No space left on device")

    monkeypatch.setattr(os, "fsync", full)
    path = tmp_path / "key.pem"
    result = run("keypair", "create", "us-east-1", "k1", "--file", str(path))
    assert result.exit_code == 1
    assert result.stderr.splitlines() == [
        f"error: the key pair k1 was created, but {path} cannot be written: No space left on device",
        "  try: delete the pair, which is of no use now: tovarin-nodes keypair delete us-east-1 k1",
    ]
    assert not path.exists()
