"""Parts of the interpreter's modules, and of the methods, that a program has replaced."""

from __future__ import annotations

from types import ModuleType

import pytest

from tests.conftest import Child
from tests.interpreter.test_crashes import PROLOGUE

COPIES = """
import types
class Record:
    def __init__(self): self.values = [1, [2]]
manager._NodeManager__node_list = [Record()]
manager.get_node_list()
noted = []
"""

PROGRAMS = {
    "the module copyreg": """
import copyreg
def new(cls, *arguments):
    noted.append(cls)
    return cls.__new__(cls, *arguments)
new.__name__ = "__newobj__"
sys.modules["copyreg"] = types.SimpleNamespace(__newobj__=new, _slotnames=copyreg._slotnames)
manager.get_node_list()
assert noted == [Record]
""",
    "the code of a copy's helper": """
copy.noted = noted
def keep(x, memo):
    noted.append(type(x))
copy._keep_alive.__code__ = keep.__code__
manager.get_node_list()
assert Record in noted and list in noted
""",
    "the defaults of a copy's helper": """
def noting(x, memo):
    noted.append(type(x))
    return copy.deepcopy(x, memo)
copy._reconstruct.__kwdefaults__ = {"deepcopy": noting}
manager.get_node_list()
assert dict in noted
""",
    "the hash of a class": """
class Unhashable(type):
    __hash__ = None
class Odd(metaclass=Unhashable): ...
manager._NodeManager__node_list = [Odd()]
assert outcome(manager.get_node_list) == "TypeError: unhashable type: 'Unhashable'"
assert not manager._NodeManager__node_list_lock.locked()
""",
    "the name of a method, after a call that did not fit": """
flush = cloud_node.CloudManager.flush_webs_client_pool
assert outcome(lambda: flush()).startswith("TypeError: CloudManager.flush_webs_client_pool() missing 2")
flush.__qualname__ = "Other.other"
assert outcome(lambda: flush()).startswith("TypeError: Other.other() missing 2")
""",
    "the mind of an argument's name": """
class ChangesItsMind(str):
    __hash__ = str.__hash__
    def __eq__(self, other):
        self.asked += 1
        return self.asked > self.most
def named(most):
    name = ChangesItsMind("nobody")
    name.asked, name.most = 0, most
    return {name: 1}
def plain(self, node_uuid, flush_all=False):
    return []
flush = cloud_node.CloudManager.flush_webs_client_pool
plain.__qualname__ = flush.__qualname__
for most in range(8):
    expected = outcome(lambda: plain(facade, **named(most)))
    assert outcome(lambda: flush(facade, **named(most))) == expected, most
""",
}


def run(cloud_node: ModuleType, run_child: Child, program: str) -> None:
    prologue = PROLOGUE.replace("PACKAGE", cloud_node.__name__.rpartition(".")[0])
    child = run_child(prologue + COPIES + program + "\nprint('as it should be')")
    assert (child.returncode, child.stdout) == (0, "as it should be\n"), child.stderr[-3000:]


@pytest.mark.parametrize("program", PROGRAMS.values(), ids=PROGRAMS.keys())
def test_a_program_may_replace(cloud_node: ModuleType, run_child: Child, program: str) -> None:
    """And it takes effect."""
    run(cloud_node, run_child, program)


def test_locks_are_made_by_the_program_alone(cloud_node: ModuleType, run_child: Child) -> None:
    """One for the module's clients and two for its facade: none is made to find out what a lock is."""
    other = "tests.twin" if cloud_node.__name__.startswith("tovarincore") else "tovarincore"
    child = run_child(
        f"from {other} import cloud_node\n"
        "import sys, threading\n"
        "made = []\n"
        "genuine = threading.Lock\n"
        "threading.Lock = lambda: made.append(1) or genuine()\n"
        "sys.modules['_thread'] = None\n"
        f"from {cloud_node.__name__.rpartition('.')[0]} import cloud_node\n"
        "cloud_node.cloud_manager_glbl.flush_webs_client_pool(None, flush_all=True)\n"
        "print(len(made))\n"
    )
    assert (child.returncode, child.stdout) == (0, "3\n"), child.stderr
