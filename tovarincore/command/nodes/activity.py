"""Since when workers have had nothing to do, as far as this command has looked at them.

Each look notes, in a file beside the ledger, when a node was seen last and since when its processors have
been idle at every look. A node that nobody looked at for a while may have worked meanwhile: its idle time
starts with the next look.
"""

import json
from collections.abc import Iterable
from datetime import datetime, timedelta, timezone
from typing import Any

from tovarincore._config_files.private_file import locked, read_private, write_private
from tovarincore.cloud_def import CloudNode
from tovarincore.core_conf import ConfigError, log_manager_glbl
from tovarincore.fleet.ledger import Ledger

__all__ = ["IDLE_PERCENT", "LONGEST_GAP", "idle_since", "note_activity", "note_if_possible"]

IDLE_PERCENT = 5.0
"""Load of the processors below which a worker has nothing to do."""
LONGEST_GAP = timedelta(minutes=10)
"""Between two looks that count as one stretch."""
_FILE_NAME = "activity.json"
_KEPT = timedelta(days=2)


def note_activity(nodes: Iterable[CloudNode]) -> None:
    """Note what a look at the workers has shown.

    :param nodes: nodes as a probe left them
    :raises ConfigError: the file cannot be used
    """
    now = datetime.now(timezone.utc)
    path = Ledger().path.with_name(_FILE_NAME)
    with locked(path):
        looks = {
            key: look for key, look in _read().items() if now - datetime.fromisoformat(look["seen"]) < _KEPT
        }
        for node in nodes:
            key = _key(node)
            if not node.ready or node.cpu_percent is None or node.cpu_percent >= IDLE_PERCENT:
                looks.pop(key, None)
                continue
            before = looks.get(key)
            goes_on = before and now - datetime.fromisoformat(before["seen"]) <= LONGEST_GAP
            since = before["idle_since"] if before and goes_on else now.isoformat()
            looks[key] = {"seen": now.isoformat(), "idle_since": since}
        write_private(path, json.dumps(looks).encode())


def note_if_possible(nodes: Iterable[CloudNode]) -> None:
    """Do the same for a look that has another purpose, which a file that cannot be used must not end."""
    try:
        note_activity(nodes)
    except ConfigError as error:
        log_manager_glbl.get_logger().debug("The look is not noted: %s", error)


def idle_since(node: CloudNode) -> datetime | None:
    """Return since when a node has been idle at every look, or ``None``.

    :raises ConfigError: the file cannot be used
    """
    look = _read().get(_key(node))
    return None if look is None else datetime.fromisoformat(look["idle_since"])


def _read() -> dict[str, Any]:
    path = Ledger().path.with_name(_FILE_NAME)
    try:
        looks: dict[str, Any] = json.loads(read_private(path) or b"{}")
        for look in looks.values():
            for name in ("seen", "idle_since"):
                if datetime.fromisoformat(look[name]).tzinfo is None:
                    raise ValueError("a time without its zone cannot be compared")
    except (ValueError, TypeError, KeyError, AttributeError, RecursionError) as error:
        raise ConfigError(f"{path}: is no record of looks at nodes; move it away") from error
    return looks


def _key(node: CloudNode) -> str:
    return f"{node.region.key} {node.instance_id}"
