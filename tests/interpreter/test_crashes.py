"""Programs that take objects away while the module still uses them: none may end the process by a fault."""

from __future__ import annotations

import subprocess
import sys
from types import ModuleType

import pytest

# INTERPRETERS_OWN: CPython from 3.11 on says so of any failing call, `len()` too, where there is no memory
# for the traceback. Of a module's function that fails without an error it says something else.
PROLOGUE = """
INTERPRETERS_OWN = "error return without exception set"
import copy, functools, gc, logging, sys, threading
from PACKAGE import cloud_node
from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion, NodeState

# Many programs collect again and again; what was imported is none of what they drop.
gc.collect()
gc.freeze()

REGION = CloudRegion(name="here", cloud="local")
TYPE = CloudInstances.get_default_local_instance_type()

class Manager(cloud_node.NodeManager):
    def launch_node(self, *args, **kwargs): ...
    start_node = stop_node = terminate_node = launch_node
    list_instances = list_instance_templates = list_instance_types = launch_node

def node(name):
    return CloudNode(region=REGION, instance_id=name, instance_type_def=TYPE, uuid="uuid of " + name)

manager = Manager(REGION)
facade = cloud_node.CloudManager()
facade._cache_node_manager(REGION, manager)

def outcome(action):
    try:
        return action()
    except Exception as error:
        return f"{type(error).__name__}: {error}"

class Key(str):
    '''Is found by its hash, then runs what it was given, and is equal to nothing.'''
    deed = staticmethod(lambda: None)
    __hash__ = str.__hash__
    def __eq__(self, other):
        deed, Key.deed = Key.deed, staticmethod(lambda: None)
        deed()
        return False
"""

PROGRAMS = {
    "a function of a module that puts another in its own place": """
genuine = logging.getLogger
def lazy(*names):
    logging.getLogger = genuine
    gc.collect()
    hoard = [bytes(n) for n in range(500)]
    return genuine(*names)
for _ in range(20):
    logging.getLogger = functools.lru_cache(None)(lazy)
    assert cloud_node.CloudManager().logger.name == "CloudManager"
""",
    "a finaliser that calls the module while keyword names are remembered": """
class Cycle:
    def __init__(self): self.own = self
    def __del__(self):
        outcome(lambda: facade.create_key_pair(REGION, None, "k", "u"))
        hoard.append([(object(),) for _ in range(20)])
hoard = []
for allocations in range(100):
    outcome(lambda: facade.stop_node(REGION, None, "i-1"))
    gc.collect()
    Cycle()
    gc.set_threshold(gc.get_count()[0] + allocations % 20)
    outcome(lambda: facade.create_key_pair(REGION, None, "k", "u"))
    gc.set_threshold(700)
    gc.collect()
    assert all(sys.getrefcount(kept) == 3 for kept in hoard[-1]), allocations
""",
    **{
        f"a name of a class that empties the list while it is walked: {operation}": f"""
class Odd: ...
nodes = [type("Record", (), {{Key("{name}"): 1, Key("node"): 1}})() for _ in range(300)]
for number, each in enumerate(nodes):
    each.{name} = "x" * (number % 7)
    each.ready = False
    each.node = each
def shorten():
    nodes.clear()
    gc.collect()
manager._NodeManager__node_list = facade.webs_client_pool = nodes
for start in (0, 1, 40):
    full = list(nodes)
    Key.deed = staticmethod(shorten)
    for record in full:
        type(record).unrelated = start
    outcome(lambda: {operation})
    nodes[:] = full
    del full
"""
        for name, operation in [
            ("uuid", "manager.find_node_by_uuid('y')"),
            ("instance_id", "manager.find_node_by_instance_id('y')"),
            ("instance_id", "manager.change_node_state('y', NodeState.RUNNING)"),
            ("ready", "manager.get_ready_node_next_in_line()"),
            ("uuid", "facade.flush_webs_client_pool('y')"),
            ("uuid", "facade.get_from_webs_client_pool('y')"),
        ]
    },
    "a hook that takes away what keeps a copy's originals alive": """
class Hooked:
    def __deepcopy__(self, memo):
        memo[id(memo)] = 5
        del copy._keep_alive
        return self
class Plain:
    def __init__(self): self.hooked = Hooked()
genuine = copy._keep_alive
manager._NodeManager__node_list = [Plain()]
for _ in range(3):
    copy._keep_alive = genuine
    assert outcome(manager.get_node_list) == "NameError: name '_keep_alive' is not defined"
    assert not manager._NodeManager__node_list_lock.locked()
""",
    "defaults that the name of an argument replaces while the call is refused": """
flush = cloud_node.CloudManager.flush_webs_client_pool
defaults = flush.__defaults__
class Argument(str):
    __hash__ = str.__hash__
    def __eq__(self, other):
        flush.__defaults__ = tuple(bytearray(40) for _ in flush.__defaults__)
        hoard = [bytes(n) for n in range(100)]
        return False
for _ in range(50):
    message = outcome(lambda: flush(facade, **{Argument("nobody"): 1}))
    assert message.endswith("flush_webs_client_pool() got an unexpected keyword argument 'nobody'"), message
    message = outcome(lambda: flush(facade, None, **{Argument("flush_all"): 1}))
    assert message.endswith("got an unexpected keyword argument 'flush_all'"), message
flush.__defaults__ = defaults
""",
    "a finaliser that empties what the copy has made so far": """
class Plain: ...
def plain(**names):
    made = Plain()
    made.__dict__.update(names)
    return made
copy.deepcopy([Plain()])
before = None
from tests.python import _object_layer as layer
# copy.deepcopy itself does not survive that.
emptied_lists = "twin" not in cloud_node.__name__ and layer.is_native(None)
class Cycle:
    def __init__(self): self.own = self
    def __del__(self):
        for found in gc.get_objects():
            if id(found) in before or found is before:
                continue
            if (type(found) is list and emptied_lists) or (type(found) is dict and found.keys() & {"a", "k"}):
                found.clear()
shared = plain(a=[1], b={"k": (1, [2])})
records = [plain(a=[number], b={"k": (number, [2])}, c=([], {}), d=shared) for number in range(20)]
shown = records[3].__dict__
manager._NodeManager__node_list = records
for threshold in range(1, 60):
    Cycle()
    before = set()
    before.update(map(id, gc.get_objects()))
    gc.set_threshold(threshold)
    outcome(manager.get_node_list)
    gc.set_threshold(700)
    gc.collect()
""",
    "a finaliser that changes the class of what is being copied": """
class Other: ...
class Cycle:
    def __init__(self): self.own = self
    def __del__(self):
        for record in records:
            record.__class__ = Other
gc.collect()
for threshold in range(1, 40):
    Passing = type("Passing", (), {})
    records = [Passing() for _ in range(5)]
    for record in records:
        record.values = [{1, 2}]
    copy.deepcopy(records[0])
    del Passing
    manager._NodeManager__node_list = records
    Cycle()
    gc.set_threshold(threshold)
    outcome(manager.get_node_list)
    gc.set_threshold(700)
    gc.collect()
""",
    "instances that had another class, which is gone with its table of names": """
class Taken: ...
def taken_over(*names):
    made = type("Passing", (), {})()
    for name in names:
        setattr(made, name, "value of " + name)
    made.__class__ = Taken
    return made
common = [f"name{number}" for number in range(20)]
for turn in range(30):
    Taken.turn = turn
    manager._NodeManager__node_list = [taken_over(*common, "uuid")]
    for _ in range(4):
        assert manager.find_node_by_uuid("nobody") is None
    manager._NodeManager__node_list.clear()
    gc.collect()
    manager._NodeManager__node_list = [taken_over(*common, "other", "uuid") for _ in range(30)]
    assert manager.find_node_by_uuid("value of uuid").other == "value of other"
    manager._NodeManager__node_list = []
    gc.collect()
""",
    "a name of the built-ins that changes them while it is looked up": """
import builtins
of_builtins = vars(builtins)
class Closed:
    def acquire(self, timeout): return False
class Mine(Exception): ...
def tidy():
    texts = {name: value for name, value in of_builtins.items() if type(name) is str}
    of_builtins.clear()
    of_builtins.update(texts)
    cloud_node.TimeoutError = Mine
manager._NodeManager__node_list_lock = Closed()
for _ in range(3):
    assert outcome(manager.get_node_list) == "TimeoutError: "
names = dict(of_builtins)
of_builtins.clear()
of_builtins[Key("TimeoutError")] = None
of_builtins.update(names)
Key.deed = staticmethod(tidy)
assert outcome(manager.get_node_list) == "TimeoutError: "
assert outcome(manager.get_node_list) == outcome(manager.get_node_list) == "Mine: "
manager._NodeManager__node_list_lock = threading.Lock()
""",
}
if sys.version_info >= (3, 11):  # before, Python's own copy uses up the machine's stack
    PROGRAMS["containers nested deeper than the machine's stack reaches"] = """
sys.setrecursionlimit(10**7)
class Hooked:
    def __deepcopy__(self, memo): return "copied"
for content in (), (Hooked(),):
    nested = manager._NodeManager__node_list = [*content]
    for _ in range(60_000):
        nested.append([*content])
        nested = nested[-1]
    nested = manager.get_node_list()
    for _ in range(60_000):
        assert nested[:-1] == (["copied"] if content else [])
        nested = nested[-1]
"""
EPILOGUE = """
assert not manager._NodeManager__node_list_lock.locked()
print("alive")
"""


DEFAULT = pytest.param("default", marks=pytest.mark.thorough(reason="the other allocator shows more"))


@pytest.mark.parametrize("allocator", [DEFAULT, "debug"])
@pytest.mark.parametrize("program", PROGRAMS.values(), ids=PROGRAMS.keys())
def test_a_process_survives(cloud_node: ModuleType, program: str, allocator: str) -> None:
    """With each of the interpreter's allocators; the one for debugging overwrites what has been freed."""
    prologue = PROLOGUE.replace("PACKAGE", cloud_node.__name__.rpartition(".")[0])
    child = subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", prologue + program + EPILOGUE],
        env=allocator_of(allocator),
        capture_output=True,
        text=True,
        timeout=300,
        check=False,
    )
    assert (child.returncode, child.stdout) == (0, "alive\n"), child.stderr[-3000:]


def allocator_of(name: str) -> dict[str, str]:
    import os

    environment = dict(os.environ)
    environment.pop("PYTHONMALLOC", None)
    return environment | ({"PYTHONMALLOC": "debug"} if name == "debug" else {})
