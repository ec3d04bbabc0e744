"""The ledger: which nodes this command has launched, in a file beside the credential store.

A node is noted once its launch went well. One whose launch was cut short stays unnoted, so that ``orphans``
shows it.
"""

import json
from dataclasses import asdict, dataclass
from datetime import datetime, timezone
from pathlib import Path

from tovarincore._config_files.private_file import locked, read_private, write_private
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import CloudNode
from tovarincore.core_conf import ConfigError

__all__ = ["LedgerEntry", "ledger_path", "note_launch", "prepare_ledger", "read_ledger"]

_FILE_NAME = "launches.json"


@dataclass(frozen=True)
class LedgerEntry:
    """One launch.

    :param region: the region's key, for example ``"AWS:us-east-1"``
    :param instance_id: the provider's id
    :param uuid: the product's own id
    :param name: name for people
    :param instance_type: the type
    :param launched: when, in ISO format with time zone
    """

    region: str
    instance_id: str
    uuid: str
    name: str
    instance_type: str
    launched: str


def ledger_path() -> Path:
    """Return the ledger's file, whether it exists or not."""
    return CloudConfManager().path.with_name(_FILE_NAME)


def read_ledger() -> list[LedgerEntry]:
    """Return all launches, oldest first.

    :raises ConfigError: the file cannot be used
    """
    path = ledger_path()
    data = read_private(path)
    if data is None:
        return []
    try:
        return [LedgerEntry(**entry) for entry in json.loads(data)]
    except (ValueError, TypeError) as error:
        raise ConfigError(f"{path}: is no ledger of launches; move it away") from error


def prepare_ledger() -> None:
    """See that a launch can be noted, before there is one.

    :raises ConfigError: the file cannot be used
    """
    with locked(ledger_path()):
        read_ledger()


def note_launch(node: CloudNode) -> None:
    """Add a node that has just been launched.

    :raises ConfigError: the file cannot be used
    """
    entry = LedgerEntry(
        region=node.region.hash_key,
        instance_id=node.instance_id,
        uuid=node.uuid,
        name=node.name,
        instance_type=node.instance_type_def.instance_type,
        launched=datetime.now(timezone.utc).isoformat(timespec="seconds"),
    )
    path = ledger_path()
    with locked(path):
        entries = [asdict(known) for known in [*read_ledger(), entry]]
        write_private(path, json.dumps(entries, indent=1).encode())
