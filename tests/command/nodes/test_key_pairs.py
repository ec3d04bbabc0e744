"""Key pairs whose answer was lost, on the emulated EC2 behind an endpoint that breaks answers."""

from __future__ import annotations

from pathlib import Path

from stage.ec2 import USER_NAME, Ec2World
from stage.fault import LOST, SERVED
from tests.command.conftest import Run
from tests.command.subcommands.test_key_pairs import names


def create(run: Run, ec2: Ec2World, path: Path, *options: str, answer: str = "") -> tuple[int, str]:
    """Create the pair k1 through an endpoint that loses the answer."""
    with ec2.faults() as endpoint:
        endpoint.script("CreateKeyPair", LOST, SERVED)
        result = run("keypair", "create", "us-east-1", "k1", "--file", str(path), *options, answer=answer)
        assert endpoint.actions().count("CreateKeyPair") == 2
    return result.exit_code, result.stderr


def test_a_pair_whose_key_was_lost_is_offered_for_deletion(run: Run, ec2: Ec2World, tmp_path: Path) -> None:
    """EC2 says that it exists; the command knows that it has just made it, and deletes it if wanted."""
    path = tmp_path / "k.pem"
    code, stderr = create(run, ec2, path, answer="y\n")
    assert code == 5
    assert "was created, but the answer with its private key was lost" in stderr
    assert stderr.splitlines()[-1] == "  try: repeat the command"
    assert (names(ec2), path.exists()) == (["tovarin-key"], False)


def test_with_yes_nothing_is_asked(run: Run, ec2: Ec2World, tmp_path: Path) -> None:
    """A script gets rid of the useless pair without a question."""
    assert create(run, ec2, tmp_path / "k.pem", "--yes", "--json")[0] == 5
    assert names(ec2) == ["tovarin-key"]


def test_without_an_answer_the_pair_stays_and_the_remedy_deletes_it(
    run: Run, ec2: Ec2World, tmp_path: Path
) -> None:
    """Nobody agreed: the command that deletes it is named."""
    code, stderr = create(run, ec2, tmp_path / "k.pem")
    assert code == 5
    assert stderr.endswith("which is of no use: tovarin-nodes keypair delete us-east-1 k1\n")
    assert names(ec2) == ["tovarin-key", "k1"]


def test_a_pair_that_was_there_before_is_never_offered(run: Run, ec2: Ec2World, tmp_path: Path) -> None:
    """EC2 is not asked to create a pair whose name is taken, and it is left alone."""
    with ec2.faults() as endpoint:
        result = run("keypair", "create", "us-east-1", "tovarin-key", "--file", str(tmp_path / "k.pem"))
        assert "CreateKeyPair" not in endpoint.actions()
    assert (result.exit_code, "a key pair tovarin-key already exists" in result.stderr) == (1, True)
    assert names(ec2) == ["tovarin-key"]


def test_another_user_s_pair_is_not_deleted(run: Run, ec2: Ec2World) -> None:
    """The tag says whose it is; one without a tag, or with the user's own, may be deleted."""
    for user_name in ("somebody-else", USER_NAME):
        tags = [{"Key": "tovarin_username", "Value": user_name}]
        ec2.raw.create_key_pair(
            KeyName=f"of-{user_name}", TagSpecifications=[{"ResourceType": "key-pair", "Tags": tags}]
        )
    refused = run("keypair", "delete", "us-east-1", "of-somebody-else", "--yes")
    assert (refused.exit_code, "belongs to the user somebody-else" in refused.stderr) == (6, True)
    assert run("keypair", "delete", "us-east-1", f"of-{USER_NAME}", "--yes").exit_code == 0
    assert names(ec2) == ["tovarin-key", "of-somebody-else"]
