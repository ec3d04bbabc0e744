"""The ledger of launches."""

from __future__ import annotations

import json
import stat
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from stage.settings import settings_of
from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, CloudRegion
from tovarincore.core_conf import ConfigError
from tovarincore.fleet import Ledger

REGION = "AWS:us-east-1"


@pytest.fixture(autouse=True)
def folder(tmp_path: Path) -> Iterator[Path]:
    """The folder of a configuration for this test alone."""
    with settings_of(tmp_path, {}):
        yield tmp_path


def node(number: int) -> CloudNode:
    """A node that was launched."""
    region = CloudRegion(name="us-east-1", cloud="AWS")
    return CloudNode(region, f"i-{number}", CloudInstanceTypeDef("t3.small", 2, 2048), f"uuid-{number}", "n")


def ids(ledger: Ledger) -> list[str]:
    """The ids of the launched nodes, in order."""
    return [entry.instance_id for entry in ledger.entries()]


def write(path: Path, text: str) -> None:
    """Lay down a file that only its owner may read."""
    path.write_text(text)
    path.chmod(0o600)


def test_launches_are_kept_beside_the_credentials_for_their_owner_alone(folder: Path) -> None:
    """The file lies in the store's folder with mode 0600 and gives back what was noted."""
    ledger = Ledger()
    ledger.launched(node(1))
    ledger.launched(node(2))
    assert ledger.path == folder / "launches.jsonl"
    assert stat.S_IMODE(ledger.path.stat().st_mode) == 0o600
    assert [(entry.region, entry.instance_id, entry.uuid) for entry in Ledger().entries()] == [
        (REGION, "i-1", "uuid-1"),
        (REGION, "i-2", "uuid-2"),
    ]


def test_an_intent_is_open_until_it_is_known_what_came_of_it() -> None:
    """A launch closes it, with the time of the request; so does a refusal; a killed program does not."""
    ledger = Ledger()
    for number in (1, 2, 3):
        ledger.intend(REGION, f"uuid-{number}", "n", "t3.small")
    begun = ledger.open_intents()[0].launched
    ledger.launched(node(1))
    ledger.refused(REGION, "uuid-2")
    assert [intent.uuid for intent in ledger.open_intents()] == ["uuid-3"]
    assert [(entry.instance_id, entry.launched) for entry in ledger.entries()] == [("i-1", begun)]


def test_an_intent_of_another_region_stays_open() -> None:
    """The same node may be asked for in a second region, when the first one refused it."""
    ledger = Ledger()
    ledger.intend("AWS:eu-west-1", "uuid-1", "n", "t3.small")
    ledger.intend(REGION, "uuid-1", "n", "t3.small")
    ledger.launched(node(1))
    assert [intent.region for intent in ledger.open_intents()] == ["AWS:eu-west-1"]


def test_a_node_that_carries_a_uuid_of_its_own_closes_its_intent() -> None:
    """A container's uuid is the engine's choice."""
    ledger = Ledger()
    ledger.intend(REGION, "asked-for", "n", "t3.small")
    ledger.launched(node(1), intent="asked-for")
    assert ledger.open_intents() == []
    assert ledger.entries()[0].uuid == "uuid-1"


def test_a_listing_settles_what_was_cut_short() -> None:
    """A listed node with the uuid of an open intent is a launched one; others are not touched."""
    ledger = Ledger()
    ledger.intend(REGION, "uuid-1", "n", "t3.small")
    ledger.intend(REGION, "uuid-2", "n", "t3.small")
    assert [found.instance_id for found in ledger.settle([node(2), node(7)])] == ["i-2"]
    assert ids(ledger) == ["i-2"]
    assert [intent.uuid for intent in ledger.open_intents()] == ["uuid-1"]


def test_a_launch_noted_twice_is_one() -> None:
    """Two programs may settle the same intent."""
    ledger = Ledger()
    ledger.launched(node(1))
    Ledger().launched(node(1))
    assert ids(ledger) == ["i-1"]


def test_launches_at_the_same_time_are_all_noted() -> None:
    """No writer overwrites what another has just written, whether they share a ledger or not."""
    shared = Ledger()
    with ThreadPoolExecutor(8) as executor:
        list(executor.map(lambda n: (shared if n % 2 else Ledger()).launched(node(n)), range(32)))
    assert set(ids(shared)) == {f"i-{number}" for number in range(32)}


@pytest.mark.parametrize("torn", ['{"event": "laun', "{", '{"even'])
def test_a_line_that_was_cut_short_is_left_out_and_written_over(torn: str) -> None:
    """The machine may stop in the middle of a write: what stands before it is whole."""
    ledger = Ledger()
    ledger.launched(node(1))
    with ledger.path.open("a") as file:
        file.write(torn)
    assert ids(ledger) == ["i-1"]
    ledger.launched(node(2))
    assert ids(ledger) == ["i-1", "i-2"]
    assert all(json.loads(line) for line in ledger.path.read_text().splitlines())


@pytest.mark.parametrize("text", ["{\n", "[1]\n", '{"event": "launched"}\n', "7\n", "notes", "null\n"])
def test_a_file_that_is_no_ledger_is_refused_by_name_and_kept(text: str) -> None:
    """Before a launch it is said which file is in the way, and nothing of it is lost."""
    ledger = Ledger()
    write(ledger.path, text)
    with pytest.raises(ConfigError, match=r"launches\.jsonl: is no ledger of launches"):
        ledger.prepare()
    if not text.endswith("\n"):
        with pytest.raises(ConfigError, match="is no ledger"):
            ledger.launched(node(1))
    assert ledger.path.read_text().startswith(text)


def test_events_of_a_later_version_are_passed_over() -> None:
    """A line of a kind that is not known here does not make the ledger unusable."""
    ledger = Ledger()
    write(ledger.path, '{"event": "renamed", "region": "r", "uuid": "u"}\n')
    ledger.launched(node(1))
    assert ids(ledger) == ["i-1"]


def test_the_list_of_earlier_versions_is_read_along(folder: Path) -> None:
    """What was launched before the ledger became a journal is not lost, and that file is not written."""
    old = {
        "region": REGION,
        "instance_id": "i-0",
        "uuid": "u",
        "name": "n",
        "instance_type": "t",
        "launched": "2026-01-31T10:00:00+00:00",
    }
    write(folder / "launches.json", json.dumps([old]))
    ledger = Ledger()
    ledger.launched(node(1))
    assert ids(ledger) == ["i-0", "i-1"]
    assert json.loads((folder / "launches.json").read_text()) == [old]
    write(folder / "launches.json", '[{"other": 1}]')
    with pytest.raises(ConfigError, match=r"launches\.json: is no ledger"):
        ledger.entries()


def test_a_file_open_to_others_is_refused() -> None:
    """Names and ids of nodes are nobody else's business."""
    ledger = Ledger()
    ledger.launched(node(1))
    ledger.path.chmod(0o644)
    with pytest.raises(ConfigError, match="chmod 600"):
        ledger.launched(node(2))


def test_without_a_file_nothing_was_launched() -> None:
    """A missing file is an empty ledger."""
    assert (Ledger().entries(), Ledger().open_intents()) == ([], [])
