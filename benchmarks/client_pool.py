"""Taking a client of a node out of the pool, and flushing those of a node."""

from types import ModuleType
from typing import Any

from benchmarks.scenario import Scenario, facade, manager, nodes, uuid
from tovarincore.webs_client import WebSocketClient


def prepare(module: ModuleType) -> dict[str, Any]:
    records = nodes(1_000)
    return {
        "facade": facade(module, manager(module, records[:1])),
        "clients": [WebSocketClient(record) for record in records],
        "wanted": uuid(500),
    }


# Neither changes the list it finds: the remainder is a new one.
AGAIN = "facade.webs_client_pool = clients; "

SCENARIOS = [
    Scenario("pool, take from 1,000", 8, AGAIN + "facade.get_from_webs_client_pool(wanted)", prepare),
    Scenario("pool, flush of 1,000", 6, AGAIN + "facade.flush_webs_client_pool(wanted)", prepare),
]
