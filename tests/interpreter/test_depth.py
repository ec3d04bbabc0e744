"""No level of the recursion limit is lost where memory is: in copies, in the lock, in other calls."""

from __future__ import annotations

from types import ModuleType

import pytest

from tests.conftest import Child
from tests.interpreter.test_crashes import PROLOGUE
from tests.python import _object_layer as layer
from tests.twin import cloud_node as twin

pytest.importorskip("_testcapi", reason="this CPython has no _testcapi, which makes allocations fail")

PROGRAM = """
import _testcapi
from tests.differential.hostile.allocations import spare_code
gc.unfreeze()  # what is frozen stands in no list
spare = spare_code()
gc.freeze()
def depth(level=0):
    try:
        return depth(level + 1)
    except RecursionError:
        return level

class Hooked:
    def __deepcopy__(self, memo):
        return [self]
class Slots:
    __slots__ = ("a",)
class Record: ...
def record():
    made = Record()
    made.uuid, made.instance_id, made.ready = "u", "i", False
    made.many = [([{"k": (1, [2])}], Hooked(), {3}, Slots())]
    return made
manager._NodeManager__node_list = [node("i-1"), record()]
class Quiet:
    def debug(self, *_, **__): ...
manager.logger = Quiet()

def failing(operation, start, lasting):
    _testcapi.set_nomemory(start, 0 if lasting else start + 1)
    try:
        operation()
    except (MemoryError, TypeError, RuntimeError):  # CPython's own: "can't allocate lock"
        pass
    except SystemError as error:
        assert str(error) == INTERPRETERS_OWN, error
    finally:
        _testcapi.remove_mem_hooks()

before = depth()
for start in range(160):
    for lasting in LASTING:
        failing(OPERATION, start, lasting)
    assert not manager._NodeManager__node_list_lock.locked()
assert depth() == before, (depth(), before)
print("as it should be")
"""
OPERATIONS = {
    "a copy": "manager.get_node_list",
    "a copy into the registry": "lambda: manager.set_node(record())",
    "a lock that is free": "lambda: manager.find_node_by_uuid('nobody')",
    "a call that lacks an argument": "lambda: manager.find_node_by_uuid()",
    "a lock of another kind": (
        "lambda: (vars(manager).update(_NodeManager__node_list_lock=threading.Lock()), "
        "manager.get_ready_node_next_in_line())"
    ),
}


@pytest.mark.parametrize("operation", OPERATIONS.values(), ids=OPERATIONS.keys())
def test_no_level_is_lost_when_an_allocation_fails_in(
    cloud_node: ModuleType, run_child: Child, operation: str
) -> None:
    """Each allocation in turn, alone and with all behind it."""
    prologue = PROLOGUE.replace("PACKAGE", cloud_node.__name__.rpartition(".")[0])
    lasting = "(False, True)"
    if "set_node" in operation and (cloud_node is twin or not layer.is_native(None)):
        # CPython ends the process: `copy.deepcopy` uses up the MemoryErrors that are kept for such times, or
        # finds freed memory from 3.12 on; without this project, too.
        lasting = "(False,)"
    child = run_child(f"LASTING = {lasting}\n" + prologue + PROGRAM.replace("OPERATION", operation))
    assert (child.returncode, child.stdout) == (0, "as it should be\n"), child.stderr[-3000:]


DUE = """
import ctypes
class Record:
    uuid = "u"
manager._NodeManager__node_list = [Record() for _ in range(30)]
def find(level):
    return find(level - 1) if level else manager.find_node_by_uuid("nobody")
def levels():
    return [outcome(lambda: find(level)) is None for level in range(250, 300)]
sys.setrecursionlimit(300)
before = levels()
assert 0 < sum(before) < len(before)
# An error for another thread, which waits: up to 3.12 each thread has something to do until then.
going_on = threading.Event()
other = threading.Thread(target=going_on.wait)
other.start()
ctypes.pythonapi.PyThreadState_SetAsyncExc(ctypes.c_ulong(other.ident), ctypes.py_object(SystemExit))
assert levels() == before
going_on.set()
other.join()
print("as it should be")
"""


def test_what_the_interpreter_has_to_do_takes_no_level(cloud_node: ModuleType, run_child: Child) -> None:
    """At the very limit it waits, where Python needs no level for it."""
    child = run_child(PROLOGUE.replace("PACKAGE", cloud_node.__name__.rpartition(".")[0]) + DUE)
    assert (child.returncode, child.stdout) == (0, "as it should be\n"), child.stderr[-3000:]
