"""A configuration of a test's own in place of the user's."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import pytest
import tomli_w

from tovarincore.core_conf import core_conf_glbl


@contextmanager
def settings_of(folder: Path, sections: Mapping[str, Mapping[str, Any]]) -> Iterator[None]:
    """Let the package read these sections, and no stored credentials, until the end of the body."""
    configuration = folder / "core.toml"
    configuration.write_text(tomli_w.dumps(sections))
    with pytest.MonkeyPatch.context() as patch:
        for name in os.environ:
            if name.startswith(("TOVARIN_", "DOCKER_")):
                patch.delenv(name)
        patch.setenv("TOVARIN_CONF", str(configuration))
        patch.setenv("TOVARIN_CLOUD_CONF", str(folder / "cloud.toml"))
        core_conf_glbl.reload()
        yield
    core_conf_glbl.reload()
