"""Calls that do not fit, and what functions show of themselves, at their first use and without memory."""

from __future__ import annotations

from types import ModuleType

import pytest

from tests.conftest import Child
from tests.interpreter.test_crashes import PROLOGUE


def run(run_child: Child, cloud_node: ModuleType, program: str) -> None:
    prologue = PROLOGUE.replace("PACKAGE", cloud_node.__name__.rpartition(".")[0])
    child = run_child(prologue + program + "\nprint('as it should be')")
    assert (child.returncode, child.stdout) == (0, "as it should be\n"), child.stderr[-3000:]


def test_a_call_that_does_not_fit_says_so_or_that_there_is_no_memory(
    cloud_node: ModuleType, run_child: Child
) -> None:
    """The first such call of a process as well, in which the most is made: never a null without an error."""
    pytest.importorskip("_testcapi", reason="this CPython has no _testcapi, which makes allocations fail")
    program = """
import os, _testcapi
calls = [
    lambda: manager.find_node_by_uuid(),
    lambda: facade.flush_webs_client_pool(None, nobody=1),
    lambda: cloud_node.NodeManager.set_node.__code__,
]
WRONG, ENOUGH = 1, 2
most = 0
for call in calls:
    enough = 0
    for start in range(160):
        for stop in (start + 1, 0):
            child = os.fork()
            if child == 0:
                ended = 0
                _testcapi.set_nomemory(start, stop)
                try:
                    call()
                    ended = ENOUGH
                except SystemError as error:
                    ended = WRONG if str(error) != INTERPRETERS_OWN else 0
                except MemoryError:
                    pass
                except TypeError:
                    ended = ENOUGH
                finally:
                    _testcapi.remove_mem_hooks()
                os._exit(ended)
            ended = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
            assert ended in (0, ENOUGH), (call, start, stop)
        enough = enough + 1 if ended == ENOUGH else 0
        if enough == 20:
            break  # the call is over before the memory is: later ones change nothing
    most = max(most, start)
assert most > 20, "no allocation failed"
"""
    run(run_child, cloud_node, program)


def test_a_call_that_does_not_fit_asks_no_name_of_the_module(
    cloud_node: ModuleType, run_child: Child
) -> None:
    """A program may have put its own `len` there."""
    program = """
cloud_node.len = cloud_node.str = cloud_node.isinstance = None
assert outcome(lambda: manager.find_node_by_uuid()).endswith("required positional argument: 'uuid'")
assert cloud_node.CloudManager.stop_node.__defaults__ is None
assert cloud_node.CloudManager.flush_webs_client_pool.__defaults__ == (False,)
"""
    run(run_child, cloud_node, program)


def test_a_call_that_does_not_fit_compiles_nothing(cloud_node: ModuleType, run_child: Child) -> None:
    """The compiler of CPython 3.10 frees memory twice where there is none left."""
    program = """
compiled = []
sys.addaudithook(lambda event, arguments: compiled.append(arguments) if event == "compile" else None)
outcome(lambda: manager.find_node_by_uuid())
outcome(lambda: facade.flush_webs_client_pool(None, nobody=1))
cloud_node.NodeManager.set_node.__annotations__, cloud_node.NodeManager.launch_node.__code__
assert compiled == [], compiled
"""
    run(run_child, cloud_node, program)
