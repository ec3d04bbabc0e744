"""Whatever stands in settings, the store, or a file of regions or types: it is read or refused."""

from __future__ import annotations

import os
from collections.abc import Callable
from datetime import date, datetime, time
from pathlib import Path
from typing import Any

import pytest
import tomli_w
from hypothesis import strategies as st

from stage.settings import settings_of
from tests.fuzz.runner import search
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion, CloudRegions
from tovarincore.core_conf import ConfigError, core_conf_glbl, describe_settings

# A file is read up to 16 MiB; none of these is longer than a few kilobytes.
MOST_MEGABYTES = 200
CANARY = "canary-value-42"

plain = st.text(st.characters(exclude_categories=["Cs"]), max_size=12)
scalars = st.one_of(
    st.booleans(),
    st.integers(-(2**70), 2**70),
    st.floats(),
    plain,
    st.just(CANARY),
    st.dates(min_value=date(1, 1, 1)),
    st.just(datetime(2026, 1, 31, 10)),
    st.just(time(10, 30)),
)
anything = st.recursive(
    scalars,
    lambda inner: st.lists(inner, max_size=3) | st.dictionaries(plain, inner, max_size=3),
    max_leaves=8,
)
keys = (
    st.sampled_from(
        [row.key for row in describe_settings()]
        + ["user_name", "worker_token", "aws_profile", "aws_access_key_id", "aws_secret_access_key"]
        + ["cloud", "name", "namespace", "kubeconfig", "in_cluster", "cpu_count", "memory_mib", "gpu_model"]
    )
    | plain
)
sections = (
    st.sampled_from(
        [row.section for row in describe_settings()]
        + ["AWS", "k8s", "local", "region", "instance_types", "updated"]
    )
    | plain
)
tables = st.dictionaries(keys, anything | st.dictionaries(keys, anything, max_size=4), max_size=4)
documents = st.dictionaries(sections, tables | st.lists(tables, max_size=3) | anything, max_size=4)


def written(document: dict[str, Any]) -> bytes:
    """Write a document as TOML."""
    return tomli_w.dumps(document).encode("utf-8", "surrogatepass")


cut = st.builds(lambda data, at: data[: at % (len(data) + 1)], documents.map(written), st.integers(0, 5000))
deep = st.builds(
    lambda depth, sign: f"a = {sign * depth}".encode(),
    st.integers(0, 50_000),
    st.sampled_from(["[", "{a=", "9"]),
)
long = st.builds(
    lambda key, prefix, digits: f"{key} = {prefix}{'7' * digits}".encode(),
    st.sampled_from(["a", "worker.port", "updated"]),
    st.sampled_from(["", "-", "0x", "0o", "0b1"]),
    st.integers(0, 20_000),
)
files = documents.map(written) | cut | deep | long | st.binary(max_size=200)


def read_settings() -> None:
    """Read a setting, and look an address up."""
    _ = core_conf_glbl.worker__port
    core_conf_glbl.get_worker_address(CloudNode(CloudRegion("r", "AWS"), "i-1", None, name="n"))  # type: ignore[arg-type]


def read_store() -> None:
    """Read the store's regions and one of them."""
    manager = CloudConfManager()
    for region in manager.list_regions():
        manager.get_cloud_conf(region)


READERS: dict[str, tuple[str, Callable[[], object]]] = {
    "settings": ("core.toml", read_settings),
    "store": ("cloud.toml", read_store),
    "regions": ("regions.toml", CloudRegions.get_k8s_regions),
    "types": ("instance_types.toml", lambda: CloudInstances.instance_type_list),
}


@pytest.mark.parametrize("reader", READERS)
def test_every_file_is_read_or_refused(tmp_path: Path, reader: str) -> None:
    """With the documented error, which is of bounded length and shows no value of a store."""
    name, read = READERS[reader]
    path = tmp_path / name
    settings = {"cloud": {"regions_file": str(path)}} if reader == "regions" else {}

    def check(data: bytes) -> None:
        path.write_bytes(data)
        os.chmod(path, 0o600)
        core_conf_glbl.reload()
        try:
            read()
        except ConfigError as error:
            assert len(str(error)) < 5000
            assert str(tmp_path) in str(error)
            if reader == "store":
                assert CANARY not in str(error).replace(f'"{CANARY}"', "").replace(f".{CANARY}]", "")

    with settings_of(tmp_path, settings):
        search(files, check, 100, MOST_MEGABYTES)
