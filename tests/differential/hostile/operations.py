"""The operations that hostile programs call: registry, pool and facade, with names that are there or not."""

from __future__ import annotations

from typing import Any, Callable

from tests.differential.hostile.world import REGION, World
from tovarincore.cloud_def import NodeState

Operation = Callable[[], Any]


class Argument(str):
    """The name of an argument that does a deed when it is compared."""

    deed: Callable[[], None] | None = None

    __hash__ = str.__hash__

    def __eq__(self, other: object) -> bool:
        deed, Argument.deed = Argument.deed, None
        if deed is not None:
            deed()
        return str.__eq__(self, other)


def draw(world: World) -> tuple[str, Operation]:
    """An operation with its arguments, and a text for it."""
    manager, facade, dice = world.manager, world.facade, world.dice
    number = dice.randrange(10)
    record = world.record(number)
    records = world.records(4)
    drawn: dict[str, Operation] = {
        "get_node_list": lambda: manager.get_node_list(),
        "set_node_list": lambda: manager.set_node_list(records),
        "set_node": lambda: manager.set_node(record),
        "find_node_by_uuid": lambda: manager.find_node_by_uuid(f"u-{number}"),
        "find_node_by_instance_id": lambda: manager.find_node_by_instance_id(instance_id=f"i-{number}"),
        "get_ready_node_next_in_line": lambda: manager.get_ready_node_next_in_line(),
        "change_node_state": lambda: manager.change_node_state(f"i-{number}", NodeState.RUNNING, ready=True),
        "refresh_node_list": lambda: manager.refresh_node_list(),
        "refresh_node": lambda: manager.refresh_node(record),
        "pool: add": lambda: facade.add_to_webs_client_pool(record),
        "pool: take": lambda: facade.get_from_webs_client_pool(f"u-{number}"),
        "pool: flush": lambda: facade.flush_webs_client_pool(f"u-{number}"),
        "pool: flush all": lambda: facade.flush_webs_client_pool(None, flush_all=True),
        "facade: list": lambda: facade.get_node_list(REGION),
        "facade: find": lambda: facade.find_node_by_uuid(REGION, f"u-{number}"),
        "facade: set": lambda: facade.set_node(record),
        "facade: stop": lambda: facade.stop_node(REGION, None, "i-1"),
        "facade: key pair": lambda: facade.create_key_pair(REGION, None, "k", "u"),
        "facade: new": lambda: type(facade)(),
        "manager: new": lambda: type(manager)(REGION),
        "wrong keyword": lambda: facade.flush_webs_client_pool(**{Argument("nobody"): 1}),
        "keyword of a subclass": lambda: facade.flush_webs_client_pool(None, **{Argument("flush_all"): True}),
        "missing argument": lambda: manager.find_node_by_uuid(),
        "signature": lambda: type(facade).launch_node.__code__.co_varnames,
        "annotations": lambda: sorted(world.module.NodeManager.set_node.__annotations__),
    }
    name = dice.choice(tuple(drawn))
    return f"{name} {number}", drawn[name]
