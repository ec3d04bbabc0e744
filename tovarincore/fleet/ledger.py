"""The ledger: which nodes were launched from this machine, in a file beside the credential store.

It is a journal of one JSON object per line, and lines are only ever added. A launch writes two: what is about
to be asked for before the request, and the instance's id after it. A program that is killed in between leaves
the first, whose uuid stands on the instance too, so that the node can be told from a stranger's.
"""

import errno
import json
import os
import threading
from collections import Counter
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from dataclasses import asdict, dataclass, replace
from datetime import datetime, timezone
from pathlib import Path
from typing import Any

from tovarincore._config_files.private_file import locked, read_private
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import CloudNode
from tovarincore.core_conf import ConfigError

__all__ = ["Ledger", "LedgerEntry"]

_FILE_NAME = "launches.jsonl"
_BEGIN = b'{"event": '
_INTENT, _LAUNCHED, _REFUSED = "intent", "launched", "refused"


@dataclass(frozen=True)
class LedgerEntry:
    """One launch.

    :param region: the region's key, for example ``"AWS:us-east-1"``
    :param instance_id: the provider's id; empty while it is not known what came of the request
    :param uuid: the product's own id, which stands on the node too
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


class Ledger:
    """The launches of this machine. Making one reads nothing; every call reads or writes the file.

    Threads and processes may write at the same time. Each line is on the disk when its call returns.

    :param path: the file; ``None`` means ``launches.jsonl`` beside the credential store. A ``launches.json``
        of earlier versions beside it is read too, and never written.
    """

    def __init__(self, path: Path | None = None) -> None:
        self.path = CloudConfManager().path.with_name(_FILE_NAME) if path is None else path
        # Between threads it is cheaper to wait for this one than for the file's.
        self._lock = threading.Lock()

    def entries(self) -> list[LedgerEntry]:
        """Return the nodes that were launched, oldest first.

        :raises ConfigError: a file cannot be used
        """
        return self._read()[0]

    def open_intents(self) -> list[LedgerEntry]:
        """Return the requests of which it is not known what came of them, oldest first.

        :raises ConfigError: a file cannot be used
        """
        return self._read()[1]

    def outcomes(self) -> Counter[tuple[str, str]]:
        """Return how many launches each region has, by outcome: ``launched``, ``refused`` or ``open``.

        :raises ConfigError: a file cannot be used
        """
        launched, intents, refused = self._read()
        found = Counter((entry.region, "launched") for entry in launched)
        found.update((entry.region, "open") for entry in intents)
        found.update((region, "refused") for region in refused)
        return found

    def prepare(self) -> None:
        """See that launches can be noted, before there is one.

        :raises ConfigError: a file cannot be used
        """
        with locked(self.path):
            self._read()

    @contextmanager
    def in_turn(self, stop: threading.Event) -> Iterator[None]:
        """Let launches of what is absent follow each other, among threads and processes of this ledger.

        What one of two that begin together launches would be absent for the other.

        :param stop: once it is set, nobody waits any more
        :raises ConfigError: the file of the turns cannot be used, or the wait was stopped
        """
        with locked(self.path.with_name(f"{self.path.name}.turn"), stop):
            yield

    def intend(self, region: str, uuid: str, name: str, instance_type: str) -> None:
        """Note that a node is about to be asked for.

        :param region: the region's key
        :param uuid: the uuid that the node is going to carry
        :param name: name for people
        :param instance_type: the type
        :raises ConfigError: the file cannot be used; nothing should be launched then
        """
        entry = LedgerEntry(region, "", uuid, name, instance_type, _now())
        self._append({"event": _INTENT, **asdict(entry)})

    def launched(self, node: CloudNode, intent: str = "") -> None:
        """Note a node that was launched.

        :param node: the node
        :param intent: the uuid of its intent, where the node carries another one
        :raises ConfigError: the file cannot be used
        """
        entry = LedgerEntry(
            region=node.region.key,
            instance_id=node.instance_id,
            uuid=node.uuid,
            name=node.name,
            instance_type=node.instance_type_def.instance_type,
            launched=_now(),
        )
        self._append({"event": _LAUNCHED, "intent": intent or node.uuid, **asdict(entry)})

    def refused(self, region: str, uuid: str) -> None:
        """Note that nothing came of an intent.

        :param region: the region's key
        :param uuid: the intent's uuid
        :raises ConfigError: the file cannot be used
        """
        self._append({"event": _REFUSED, "region": region, "uuid": uuid, "at": _now()})

    def settle(self, nodes: Iterable[CloudNode]) -> list[CloudNode]:
        """Note those of the listed nodes that an open intent belongs to, and return them.

        :param nodes: nodes as their provider lists them
        :raises ConfigError: a file cannot be used
        """
        wanted = {(intent.region, intent.uuid) for intent in self.open_intents()}
        found = [node for node in nodes if (node.region.key, node.uuid) in wanted]
        for node in found:
            self.launched(node)
        return found

    def _read(self) -> tuple[list[LedgerEntry], list[LedgerEntry], list[str]]:
        """Return what was launched, what is open, and the region of each request of which nothing came."""
        launched = {(entry.region, entry.instance_id): entry for entry in self._read_old()}
        intents: dict[tuple[str, str], LedgerEntry] = {}
        refused: list[str] = []
        data = self._read_whole_lines()
        for line in data.splitlines():
            try:
                event = json.loads(line)
                kind = event.pop("event")
                key = (event["region"], event.pop("intent", event["uuid"]))
                if kind == _INTENT:
                    intents[key] = _entry(event)
                elif kind == _LAUNCHED:
                    entry = _entry(event)
                    begun = intents.pop(key, entry)
                    # Two programs may have settled one intent.
                    launched.setdefault(
                        (entry.region, entry.instance_id), replace(entry, launched=begun.launched)
                    )
                elif kind == _REFUSED:
                    if intents.pop(key, None) is not None:
                        refused.append(key[0])
            except (ValueError, TypeError, KeyError, AttributeError, RecursionError) as error:
                raise _no_ledger(self.path) from error
        return list(launched.values()), list(intents.values()), refused

    def _read_whole_lines(self) -> bytes:
        """Return the file without what was being written when its program was killed."""
        data = read_private(self.path) or b""
        whole = data.rfind(b"\n") + 1
        # Only a torn line of ours may be left out, and so be written over.
        torn = data[whole : whole + len(_BEGIN)]
        if not _BEGIN.startswith(torn):
            raise _no_ledger(self.path)
        return data[:whole]

    def _read_old(self) -> list[LedgerEntry]:
        path = self.path.with_suffix(".json")
        data = read_private(path)
        if data is None:
            return []
        try:
            return [_entry(entry) for entry in json.loads(data)]
        except (ValueError, TypeError, RecursionError) as error:
            raise _no_ledger(path) from error

    def _append(self, event: dict[str, Any]) -> None:
        line = json.dumps(event).encode() + b"\n"
        with self._lock, locked(self.path):
            whole = len(self._read_whole_lines())
            try:
                descriptor = os.open(self.path, os.O_WRONLY | os.O_CREAT | os.O_CLOEXEC, 0o600)
                try:
                    os.ftruncate(descriptor, whole)
                    if os.pwrite(descriptor, line, whole) < len(line):
                        raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))
                    os.fsync(descriptor)
                finally:
                    os.close(descriptor)
            except OSError as error:
                raise ConfigError(f"{self.path}: cannot be written: {error.strerror}") from error


def _entry(fields: dict[str, Any]) -> LedgerEntry:
    entry = LedgerEntry(**fields)
    if not all(isinstance(value, str) for value in vars(entry).values()):
        raise TypeError("the values of an entry are texts")
    if datetime.fromisoformat(entry.launched).tzinfo is None:
        raise ValueError("a time without its zone cannot be compared")
    return entry


def _no_ledger(path: Path) -> ConfigError:
    return ConfigError(f"{path}: is no ledger of launches; move it away")


def _now() -> str:
    return datetime.now(timezone.utc).isoformat(timespec="seconds")
