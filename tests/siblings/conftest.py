"""Keeps the configuration of the machine that runs the tests out of them."""

import os
from collections.abc import Iterator
from pathlib import Path

import pytest

from tovarincore.core_conf import core_conf_glbl


@pytest.fixture(autouse=True)
def conf_file(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Path]:
    """The configuration file of the test, which does not exist yet; no variable of the product is set."""
    for variable in [name for name in os.environ if name.startswith("TOVARIN_")]:
        monkeypatch.delenv(variable)
    path = tmp_path / "core.toml"
    monkeypatch.setenv("TOVARIN_CONF", str(path))
    monkeypatch.setenv("TOVARIN_CLOUD_CONF", str(tmp_path / "cloud.toml"))
    core_conf_glbl.reload()
    yield path
    core_conf_glbl.reload()
