"""Names of nodes from the last listing, for completion, which must not wait for a provider.

They stand in a file beside the credential store; where there is no such folder nothing is kept.
"""

import json
import os
import tempfile
from collections.abc import Iterable
from contextlib import suppress
from pathlib import Path
from typing import Any

from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import CloudNode, CloudRegion

__all__ = ["remember_nodes", "seen_names"]

_FILE_NAME = "seen-nodes.json"
_MOST_NODES = 1000


def seen_names(region_key: str) -> list[str]:
    """Return the names and ids of the nodes that were listed last.

    :param region_key: the region's key, for example ``"AWS:us-east-1"``
    """
    found = _read().get(region_key)
    return [name for name in found if isinstance(name, str)] if isinstance(found, list) else []


def remember_nodes(region: CloudRegion, nodes: Iterable[CloudNode]) -> None:
    """Keep the names and ids of listed nodes; a cache that cannot be written is no reason to fail."""
    names: list[str] = []
    for node in list(nodes)[:_MOST_NODES]:
        names += [name for name in (node.name, node.instance_id) if name.isprintable() and name != "-"]
    with suppress(OSError):
        known = _read()
        if known.get(region.key) == names:
            return
        path = _path()
        descriptor, temporary = tempfile.mkstemp(dir=path.parent, prefix=_FILE_NAME)
        try:
            with open(descriptor, "w", encoding="utf-8") as file:
                json.dump({**known, region.key: names}, file)
            os.replace(temporary, path)
        except OSError:
            os.unlink(temporary)
            raise


def _read() -> dict[str, Any]:
    with suppress(OSError, ValueError):
        known = json.loads(_path().read_bytes())
        if isinstance(known, dict):
            return known
    return {}


def _path() -> Path:
    return CloudConfManager().path.with_name(_FILE_NAME)
