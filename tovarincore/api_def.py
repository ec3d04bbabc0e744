"""Requests that a worker answers over its web-socket; the client turns them into messages."""

from dataclasses import dataclass
from typing import ClassVar

__all__ = ["PROTOCOL_VERSION", "PingRequest", "SystemStatRequest"]

PROTOCOL_VERSION = 1
"""Version of the message format, sent with every request; a worker refuses versions that it does not know."""


@dataclass
class PingRequest:
    """Asks whether the worker answers at all; it carries nothing."""

    kind: ClassVar[str] = "ping"


@dataclass
class SystemStatRequest:
    """Asks for the load of the worker's machine: processor in per cent, memory in bytes."""

    kind: ClassVar[str] = "system_stat"
