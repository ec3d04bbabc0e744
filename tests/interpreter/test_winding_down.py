"""The thread that winds the interpreter down still runs finalisers, and they work as ever."""

from __future__ import annotations

from types import ModuleType

from tests.conftest import Child
from tests.interpreter.test_crashes import PROLOGUE

PROGRAM = """
import os, types
class Quiet:
    def debug(self, *_, **__): ...
manager.logger = Quiet()
cloud_node.OPResult = types.SimpleNamespace  # nothing of this program: the module outlives it

class Late:
    # Outlives the last statement: dropped when the interpreter has begun to wind down.
    write = os.write
    exc_info = sys.exc_info
    is_finalizing = sys.is_finalizing
    getrefcount = sys.getrefcount
    manager, facade, region, mark = manager, facade, REGION, ["text"]

    def __del__(self):
        assert self.is_finalizing()
        for _ in range(2000):
            assert self.manager.find_node_by_uuid("u") is None
            assert self.facade.get_from_webs_client_pool("u") is None
            try:
                self.manager.find_node_by_uuid()
            except TypeError:
                pass
            assert self.manager.refresh_node_list().error
            assert self.exc_info() == (None, None, None), self.exc_info()
        before = self.getrefcount(self.mark)
        for _ in range(50):
            self.manager._NodeManager__node_list = [self.mark]
            self.manager.get_node_list()
            self.manager.set_node_list([])
        assert self.getrefcount(self.mark) == before, self.getrefcount(self.mark)
        self.write(1, b"as it should be\\n")

late = Late()
gc.unfreeze()  # what is frozen is never dropped at the end
"""


def test_finalisers_at_exit_lose_nothing(cloud_node: ModuleType, run_child: Child) -> None:
    """No level of the recursion limit, no temporary object, and no error stays the handled one."""
    child = run_child(PROLOGUE.replace("PACKAGE", cloud_node.__name__.rpartition(".")[0]) + PROGRAM)
    assert (child.returncode, child.stdout, child.stderr) == (0, "as it should be\n", "")
