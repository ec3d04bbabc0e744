"""Names from the last listings, for completion, which must not wait for a provider.

They stand in a file beside the credential store; where there is no such folder nothing is kept.
"""

import json
import os
import tempfile
from collections.abc import Iterable
from contextlib import suppress
from pathlib import Path
from typing import Any

from tovarincore._config_files.private_file import read_private
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.core_conf import ConfigError

__all__ = ["IMAGES", "NODES", "remember", "seen"]

NODES = "nodes"
IMAGES = "images"

_FILE_NAME = "seen.json"
_MOST_NAMES = 2000


def seen(kind: str, region_key: str = "") -> list[str]:
    """Return the names that were listed last.

    :param kind: of what, :data:`NODES` or :data:`IMAGES`
    :param region_key: the region's key, for example ``"AWS:us-east-1"``; empty means all regions
    """
    wanted = f"{kind} of {region_key}"
    lists = [names for key, names in _read().items() if key == wanted or (not region_key and wanted in key)]
    return [name for names in lists if isinstance(names, list) for name in names if isinstance(name, str)]


def remember(kind: str, region_key: str, listed: Iterable[str]) -> None:
    """Keep names for :func:`seen`; a file that cannot be written is no reason to fail."""
    names = sorted({name for name in listed if name.isprintable() and name != "-"})[:_MOST_NAMES]
    key = f"{kind} of {region_key}"
    with suppress(OSError):
        known = _read()
        if known.get(key) == names:
            return
        path = _path()
        descriptor, temporary = tempfile.mkstemp(dir=path.parent, prefix=f".{_FILE_NAME}.")
        try:
            with open(descriptor, "w", encoding="utf-8") as file:
                json.dump({**known, key: names}, file)
            os.replace(temporary, path)
        except OSError:
            os.unlink(temporary)
            raise


def _read() -> dict[str, Any]:
    with suppress(ConfigError, ValueError, RecursionError):
        known = json.loads(read_private(_path()) or b"{}")
        if isinstance(known, dict):
            return known
    return {}


def _path() -> Path:
    return CloudConfManager().path.with_name(_FILE_NAME)
