"""Launches that were cut short."""

from __future__ import annotations

import json
from datetime import datetime, timedelta, timezone

import pytest

from tests.fleet.accounts import account
from tovarincore.cloud_def import K8sRegion
from tovarincore.core_def import OPResult
from tovarincore.fleet import Ledger, settle

KEY = "AWS:eu-central-1"


def intend(uuid: str, ago: timedelta = timedelta()) -> None:
    """Leave an intent in the ledger, as a program that was killed does."""
    Ledger().intend(KEY, uuid, "n", "t3.small")
    lines = Ledger().path.read_text().splitlines()
    event = json.loads(lines[-1])
    event["launched"] = (datetime.now(timezone.utc) - ago).isoformat(timespec="seconds")
    Ledger().path.write_text("\n".join([*lines[:-1], json.dumps(event)]) + "\n")


def test_a_listed_node_is_noted_and_an_old_intent_closed() -> None:
    """One that may still show stays open."""
    with account() as world:
        (node,) = world.launched(1)
        Ledger().path.unlink()
        intend(node.uuid)
        intend("recent", timedelta(minutes=50))
        intend("old", timedelta(minutes=70))
        assert [found.instance_id for found in settle([world.region])] == [node.instance_id]
        assert [entry.instance_id for entry in Ledger().entries()] == [node.instance_id]
        assert [intent.uuid for intent in Ledger().open_intents()] == ["recent"]


def test_only_regions_with_open_intents_are_listed() -> None:
    """Nothing to settle costs no request."""
    with account() as world:
        world.launched(1)
        assert settle([world.region, K8sRegion("lab")]) == []
        assert world.cloud.calls == []


def test_a_region_that_cannot_be_listed_is_an_error() -> None:
    """Its intents stay open."""
    region = K8sRegion("lab")
    with account() as world:
        Ledger().intend(region.key, "u", "n", "t")
        world.cloud.answers["k8s.get_cloud_nodes"] = (None, OPResult(error=True, msg="forbidden"))
        with pytest.raises(RuntimeError, match="cannot be listed: forbidden"):
            settle([region])
        assert len(Ledger().open_intents()) == 1
