"""Runs operations while one memory allocation after the other fails; each must end in its result or in
MemoryError.

Run in a separate process by test_allocation_failures.py: a crash ends the process.
"""

import _testcapi  # type: ignore[import-not-found]
import sys
from collections.abc import Callable
from typing import Any

from tests.differential.hostile.allocations import spare_code
from tovarincore import cloud_node
from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion, NodeState
from tovarincore.core_def import OPResult

REGION = CloudRegion(name="here", cloud="local")
TYPE = CloudInstances.get_default_local_instance_type()


class Manager(cloud_node.NodeManager):
    """A provider without a provider."""

    def launch_node(self, *args: Any, **kwargs: Any) -> Any: ...
    def start_node(self, *args: Any, **kwargs: Any) -> Any: ...
    def stop_node(self, *args: Any, **kwargs: Any) -> Any: ...
    def terminate_node(self, *args: Any, **kwargs: Any) -> Any: ...
    def list_instance_templates(self, *args: Any, **kwargs: Any) -> Any: ...
    def list_instance_types(self) -> Any: ...
    def list_instances(self) -> Any:
        return [node("i-1"), node("i-9")], OPResult(success=True)


class Quiet:
    """A logger that needs no memory."""

    def debug(self, *args: Any, **kwargs: Any) -> None: ...


class Client:
    def __init__(self, given: CloudNode) -> None:
        self.node = given
        self.worker_id = "w"


def node(instance_id: str) -> CloudNode:
    return CloudNode(
        region=REGION, instance_id=instance_id, instance_type_def=TYPE, uuid="u-" + instance_id,
        state=NodeState.STOPPED, ready=True, worker_id_list=["w"],
    )  # fmt: skip


manager = Manager(REGION)
manager.logger = Quiet()  # type: ignore[assignment]
nodes = [node(f"i-{number}") for number in range(4)]
manager.set_node_list(nodes)
facade = cloud_node.CloudManager()
facade._cache_node_manager(REGION, manager)
unknown = CloudRegion(name="there", cloud="nowhere")


def with_pool(operation: Callable[[], Any]) -> Callable[[], Any]:
    pool = [Client(each) for each in nodes]

    def run() -> Any:
        facade.webs_client_pool = list(pool)  # type: ignore[arg-type]
        return operation()

    return run


OPERATIONS: dict[str, Callable[[], Any]] = {
    "get_node_list": manager.get_node_list,
    "set_node_list": lambda: manager.set_node_list(nodes),
    "set_node": lambda: manager.set_node(nodes[2]),
    "find_node_by_uuid": lambda: manager.find_node_by_uuid("u-i-2"),
    "find_node_by_instance_id": lambda: manager.find_node_by_instance_id(instance_id="i-3"),
    "get_ready_node_next_in_line": manager.get_ready_node_next_in_line,
    "change_node_state": lambda: manager.change_node_state("i-1", NodeState.RUNNING, ready=True),
    "refresh_node_list": manager.refresh_node_list,
    "a failing lookup": lambda: manager.find_node_by_uuid(),  # type: ignore[call-arg]
    "facade: find": lambda: facade.find_node_by_uuid(REGION, "u-i-1"),
    "facade: unknown kind": lambda: facade.get_node_manager(unknown),
    "facade: no key pairs": lambda: facade.delete_key_pair(REGION, None, "k"),
    "pool: take": with_pool(lambda: facade.get_from_webs_client_pool("u-i-2")),
    "pool: flush": with_pool(lambda: facade.flush_webs_client_pool("u-i-2")),
    "new manager": lambda: Manager(REGION),
    "signature": lambda: cloud_node.CloudManager.launch_node.__code__,
    "annotations": lambda: cloud_node.NodeManager.launch_node.__annotations__,
}
# RuntimeError: CPython's own "can't allocate lock".
EXPECTED = (MemoryError, TypeError, NotImplementedError, AssertionError, RuntimeError)


def failures_of(operation: Callable[[], Any], lasting: bool, most: int = 600) -> int:
    """Lets the n-th allocation (and, when lasting, all after it) fail, for each n until the operation
    needs no more."""
    failed = 0
    untouched = 0
    for start in range(most):
        memory_error = False
        _testcapi.set_nomemory(start, 0 if lasting else start + 1)
        try:
            operation()
        except MemoryError:
            memory_error = True
        except EXPECTED:
            pass
        finally:
            _testcapi.remove_mem_hooks()
        failed += memory_error
        untouched = 0 if memory_error else untouched + 1
        if untouched > 40:
            break
        for lock in (
            manager._NodeManager__node_list_lock,
            facade.webs_client_pool_lock,
            facade._node_manager_hashset_lock,
        ):  # type: ignore[attr-defined]
            assert not lock.locked(), (start, lasting)
    return failed


def main() -> int:
    spare = spare_code(1_000)  # for `copy`, which is called where the module does not copy by itself
    total = 0
    for name, operation in OPERATIONS.items():
        try:
            operation()  # once undisturbed: what is made at first use is no part of it
        except EXPECTED:
            pass
        counts = [failures_of(operation, lasting) for lasting in (False, True)]
        print(f"{name}: {counts[0]} and {counts[1]} MemoryErrors", flush=True)
        total += sum(counts)
    del spare
    print(f"{len(OPERATIONS)} operations, {total} MemoryErrors, no crash")
    return 0


if __name__ == "__main__":
    sys.exit(main())
