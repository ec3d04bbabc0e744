"""The ledger of launches."""

from __future__ import annotations

import stat
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, CloudRegion
from tovarincore.command.ledger import ledger_path, note_launch, prepare_ledger, read_ledger
from tovarincore.core_conf import ConfigError


def node(number: int) -> CloudNode:
    """A node that was launched."""
    region = CloudRegion(name="us-east-1", cloud="AWS")
    return CloudNode(region, f"i-{number}", CloudInstanceTypeDef("t3.small", 2, 2048), f"uuid-{number}", "n")


def test_launches_are_kept_beside_the_credentials_for_their_owner_alone(no_account: Path) -> None:
    """The file lies in the store's folder with mode 0600 and gives back what was noted."""
    note_launch(node(1))
    note_launch(node(2))
    assert ledger_path() == no_account / "launches.json"
    assert stat.S_IMODE(ledger_path().stat().st_mode) == 0o600
    assert [(entry.region, entry.instance_id, entry.uuid) for entry in read_ledger()] == [
        ("AWS:us-east-1", "i-1", "uuid-1"),
        ("AWS:us-east-1", "i-2", "uuid-2"),
    ]


def test_launches_at_the_same_time_are_all_noted(no_account: Path) -> None:
    """No writer overwrites what another has just written."""
    with ThreadPoolExecutor(8) as executor:
        list(executor.map(lambda number: note_launch(node(number)), range(16)))
    assert {entry.instance_id for entry in read_ledger()} == {f"i-{number}" for number in range(16)}


@pytest.mark.parametrize("text", ["{", "[1]", '[{"other": 1}]', "7"])
def test_a_file_that_is_no_ledger_is_refused_by_name(no_account: Path, text: str) -> None:
    """Before a launch it is said which file is in the way."""
    path = ledger_path()
    path.write_text(text)
    path.chmod(0o600)
    with pytest.raises(ConfigError, match=r"launches\.json: is no ledger of launches"):
        prepare_ledger()


def test_without_a_ledger_nothing_was_launched(no_account: Path) -> None:
    """A missing file is an empty ledger."""
    assert read_ledger() == []
