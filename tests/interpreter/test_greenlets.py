"""Greenlets that wait inside methods: each has its own depth of calls and its own error being handled."""

from __future__ import annotations

from types import ModuleType

import pytest

from tests.conftest import Child
from tests.interpreter.test_crashes import PROLOGUE

pytest.importorskip("greenlet", reason="greenlet is not installed: run `make setup`")

PROGRAMS = {
    "waiting": """
def list_instances():
    greenlet.getcurrent().parent.switch()
    return [], "listed"
manager.list_instances = list_instances
waiting = [greenlet.greenlet(manager.refresh_node_list) for _ in range(1200)]
for each in waiting:
    each.switch()
assert [each.switch() for each in waiting] == ["listed"] * len(waiting)
""",
    "handling an error": """
def list_instances():
    raise ValueError(greenlet.getcurrent())
class Logger:
    def debug(self, *_, **__):
        greenlet.getcurrent().parent.switch()
        assert sys.exc_info()[1].args == (greenlet.getcurrent(),)
manager.list_instances = list_instances
manager.logger = Logger()
waiting = [greenlet.greenlet(manager.refresh_node_list) for _ in range(50)]
for each in waiting:
    each.switch()
assert sys.exc_info() == (None, None, None)
for each in waiting[::3] + waiting[1::3] + waiting[2::3]:
    assert each.switch().error
assert sys.exc_info() == (None, None, None)
""",
    "keeping what an error left behind": """
class Mark: ...
def list_instances():
    mark = Mark()
    mark.own = mark
    raise ValueError
class Logger:
    def debug(self, *_, **__):
        greenlet.getcurrent().parent.switch()
manager.list_instances = list_instances
manager.logger = Logger()
waiting = [greenlet.greenlet(manager.refresh_node_list) for _ in range(20)]
for each in waiting:
    each.switch()
for each in reversed(waiting):
    each.switch()
del waiting, each
gc.collect()
assert not [found for found in gc.get_objects() if type(found) is Mark]
""",
}


@pytest.mark.parametrize("program", PROGRAMS.values(), ids=PROGRAMS.keys())
def test_greenlets_inside_methods_are(cloud_node: ModuleType, run_child: Child, program: str) -> None:
    """As in Python: what belongs to a greenlet is not the thread's."""
    prologue = PROLOGUE.replace("PACKAGE", cloud_node.__name__.rpartition(".")[0]) + "\nimport greenlet\n"
    child = run_child(prologue + program + "\nprint('as it should be')")
    assert (child.returncode, child.stdout) == (0, "as it should be\n"), child.stderr
