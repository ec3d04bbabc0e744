"""First uses without memory: the interpreter's, that of the module's own C++, or both."""

from __future__ import annotations

import subprocess
import sys
from types import ModuleType

import pytest

from tests.conftest import ROOT
from tests.differential.hostile import allocations
from tests.interpreter.test_crashes import PROLOGUE

pytest.importorskip("_testcapi", reason="this CPython has no _testcapi, which makes allocations fail")

PROGRAM = """
import itertools, os, tempfile
from tests.differential.children import GIVEN_UP
from tests.differential.hostile import allocations
from tovarincore.cloud_def import CpuPlanA
spare = allocations.spare_code()
class Quiet:
    def debug(self, *_, **__): ...
class Client:
    def __init__(self, number):
        self.node, self.worker_id = node(f"i-{number}"), number
manager.logger = facade.logger = Quiet()
manager._NodeManager__node_list = [node(f"i-{number}") for number in range(3)]
facade.webs_client_pool = [Client(number) for number in range(3)]
other, fresh = node("i-1"), [node("i-7")]
plan, choice = object.__new__(CpuPlanA), ([Client(1)], None)
facade.list_current_instance_templates = lambda *_, **__: choice
locks = [manager._NodeManager__node_list_lock, facade.webs_client_pool_lock]
locks.append(facade._node_manager_hashset_lock)
calls = {
    "copy": manager.get_node_list,
    "replace": lambda: manager.set_node_list(fresh),
    "set": lambda: manager.set_node(other),
    "find": lambda: manager.find_node_by_uuid("uuid of i-2"),
    "change": lambda: manager.change_node_state("i-1", NodeState.RUNNING, ready=True),
    "through the facade": lambda: facade.find_node_by_instance_id(REGION, "i-1"),
    "take": lambda: facade.get_from_webs_client_pool("uuid of i-1"),
    "flush": lambda: facade.flush_webs_client_pool("uuid of i-1"),
    "not implemented": lambda: facade.stop_node(REGION, None, "i-1"),
    "new": lambda: Manager(REGION),
    "choose": lambda: facade.get_default_instance_template(REGION, None, plan),
}

def use(call, which, start, lasting):
    # Not for ever: CPython from 3.11 on may turn in a loop at the end of a `try` until there is memory.
    behind = start + (80 if lasting else 1)
    if which != "interpreter":
        allocations.fail_cpp(start // 20, behind // 20 + 1)
    if which != "C++":
        allocations.fail_interpreter(start, behind)
    try:
        call()
    except SystemError as error:
        allocations.give_memory_back()
        # So the interpreter 3.10 says of its own frames.
        return str(error) == INTERPRETERS_OWN or "_PyEval_EvalFrame" in str(error)
    except Exception:
        pass
    finally:
        allocations.give_memory_back()
        allocations.fail_none()
    return not any(lock.locked() for lock in locks)

whose = ("interpreter", "C++", "both") if allocations.reaches_cpp() else ("interpreter",)
for (name, call), which, start, lasting in itertools.product(calls.items(), whose, STARTS, (False, True)):
    with tempfile.TemporaryFile() as said:
        child = os.fork()
        if child == 0:
            os.dup2(said.fileno(), 2)
            os._exit(0 if use(call, which, start, lasting) else 1)
        status = os.waitpid(child, 0)[1]
        said.seek(0)
        words = said.read().decode(errors="replace")
    given_up = os.WIFSIGNALED(status) and any(each in words for each in GIVEN_UP)
    assert status == 0 or given_up, (name, which, start, lasting, status, words[-2000:])
print("as it should be")
"""
SOME = pytest.param("(2, 3, 5, 45, 85, 125)")
ALL = pytest.param(
    "range(0, 140, 3)", marks=pytest.mark.thorough(reason="a part of the allocations is tried")
)


@pytest.mark.parametrize("starts", [SOME, ALL])
def test_a_first_use_without_memory_ends(cloud_node: ModuleType, starts: str) -> None:
    """In its result or in an error: the process lives on, and every lock is free."""
    prologue = PROLOGUE.replace("PACKAGE", cloud_node.__name__.rpartition(".")[0])
    child = subprocess.run(
        [sys.executable, "-c", prologue + f"STARTS = {starts}\n" + PROGRAM],
        cwd=ROOT, env=allocations.environment(), capture_output=True, text=True, timeout=300, check=False,
    )  # fmt: skip
    assert (child.returncode, child.stdout) == (0, "as it should be\n"), child.stderr[-3000:]
