"""Whatever stands in the files that the command keeps beside the store: it is read or refused."""

from __future__ import annotations

import json
import os
from collections.abc import Callable
from datetime import datetime
from pathlib import Path
from typing import Any

import pytest
from hypothesis import strategies as st

from stage.settings import settings_of
from tests.fuzz.runner import search
from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion
from tovarincore.command.context import seen
from tovarincore.command.nodes.activity import idle_since, note_activity
from tovarincore.core_conf import ConfigError
from tovarincore.fleet.ledger import Ledger

# None of these files is longer than a megabyte.
MOST_MEGABYTES = 200
NODE = CloudNode(CloudRegion("r", "AWS"), "i-1", CloudInstances.get_default_local_instance_type(), uuid="u-1")

times = st.sampled_from(["2026-01-31T10:00:00+00:00", "2026-01-31T10:00:00", "2026-01-31", "soon"])
scalars = st.none() | st.booleans() | st.integers() | st.floats() | st.text(max_size=12) | times
anything = st.recursive(
    scalars,
    lambda inner: st.lists(inner, max_size=3) | st.dictionaries(st.text(max_size=8), inner, max_size=3),
    max_leaves=8,
)


def fields(**right: st.SearchStrategy[Any]) -> st.SearchStrategy[Any]:
    """An object with these fields, now and then another one."""
    whole = st.fixed_dictionaries(right)
    return whole | whole | st.fixed_dictionaries({}, optional={**right, "more": anything}) | anything


entry = {
    "region": st.just("AWS:r") | anything,
    "instance_id": st.sampled_from(["", "i-1", "i-2"]) | anything,
    "uuid": st.just("u-1") | anything,
    "name": st.text(max_size=8) | anything,
    "instance_type": st.just("t3.small") | anything,
    "launched": times | anything,
}
events = fields(event=st.sampled_from(["intent", "launched"]), **entry) | fields(
    event=st.just("refused"), region=st.just("AWS:r"), uuid=st.just("u-1"), at=times
)
looks = st.dictionaries(
    st.just("AWS:r i-1") | st.text(max_size=8), fields(seen=times, idle_since=times), max_size=3
)
listed = st.dictionaries(
    st.sampled_from(["nodes of AWS:r", "images of AWS:r"]),
    st.lists(scalars, max_size=3) | anything,
    max_size=2,
)
odd = st.binary(max_size=200) | st.builds(
    lambda depth, sign: (sign * depth).encode() + b"\n",
    st.integers(0, 50_000),
    st.sampled_from(["[", '{"a":']),
)


def lines(values: list[Any]) -> bytes:
    """A journal, one object in a line."""
    return b"".join(json.dumps(value).encode() + b"\n" for value in values)


def read_ledger() -> None:
    """Read all that it tells; each entry is of texts, with a time that can be compared."""
    ledger = Ledger()
    for found in ledger.entries() + ledger.open_intents():
        assert all(isinstance(value, str) for value in vars(found).values())
        assert datetime.fromisoformat(found.launched) < datetime.max.replace(tzinfo=NOW.tzinfo)
    ledger.settle([NODE])


def read_activity() -> None:
    """Read what is known of a node, and add to it."""
    assert idle_since(NODE) is None or idle_since(NODE) < NOW  # type: ignore[operator]
    note_activity([NODE])


def read_names() -> None:
    """What is damaged is nothing: completion must not fail, nor what notes the names of a listing."""
    assert all(isinstance(name, str) for name in seen.seen(seen.NODES))
    seen.remember(seen.NODES, "AWS:r", ["a"])
    assert seen.seen(seen.NODES, "AWS:r") == ["a"]


NOW = datetime.now().astimezone()
READERS: dict[str, tuple[Callable[[], object], st.SearchStrategy[bytes]]] = {
    "launches.jsonl": (read_ledger, st.lists(events, max_size=4).map(lines) | odd),
    "launches.json": (
        read_ledger,
        st.lists(fields(**entry), max_size=3).map(lambda v: json.dumps(v).encode()) | odd,
    ),
    "activity.json": (read_activity, looks.map(lambda v: json.dumps(v).encode()) | odd),
    "seen.json": (read_names, listed.map(lambda v: json.dumps(v).encode()) | odd),
}


@pytest.mark.parametrize("name", READERS)
def test_every_kept_file_is_read_or_refused(tmp_path: Path, name: str) -> None:
    """With the documented error, which names the file and is of bounded length."""
    read, contents = READERS[name]

    def check(data: bytes) -> None:
        path = tmp_path / name
        path.write_bytes(data)
        os.chmod(path, 0o600)
        try:
            read()
        except ConfigError as error:
            assert str(tmp_path) in str(error) and len(str(error)) < 500

    with settings_of(tmp_path, {}):
        search(contents, check, 200, MOST_MEGABYTES)
