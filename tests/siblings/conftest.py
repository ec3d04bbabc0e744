"""Keeps the configuration of the machine that runs the tests out of them; lends them an API server."""

import os
from collections.abc import Iterator
from pathlib import Path

import pytest

from stage.kube_fixtures import kube, kube_api, shared_kube_api
from tovarincore.core_conf import core_conf_glbl

# Named here, pytest finds them in this folder.
__all__ = ["kube", "kube_api", "shared_kube_api"]


@pytest.fixture(autouse=True)
def conf_file(
    tmp_path: Path, tmp_path_factory: pytest.TempPathFactory, monkeypatch: pytest.MonkeyPatch
) -> Iterator[Path]:
    """The configuration file of the test, which does not exist yet; no variable of the product is set.

    Files that the test makes are its user's alone, as those with secrets have to be.
    """
    mask = os.umask(0o077)
    for variable in [name for name in os.environ if name.startswith("TOVARIN_")]:
        monkeypatch.delenv(variable)
    # In the user's folder: a file that TOVARIN_CONF names has to exist. The test's own folder stays empty.
    home = tmp_path_factory.mktemp("config")
    path = home / "tovarin" / "core.toml"
    path.parent.mkdir()
    monkeypatch.setenv("XDG_CONFIG_HOME", str(home))
    monkeypatch.setenv("TOVARIN_CLOUD_CONF", str(tmp_path / "cloud.toml"))
    core_conf_glbl.reload()
    yield path
    os.umask(mask)
    core_conf_glbl.reload()
