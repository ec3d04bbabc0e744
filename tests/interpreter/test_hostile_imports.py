"""Imports of the module into a process that was prepared against it: none may end it by a fault."""

from __future__ import annotations

import pytest

from tests.conftest import Child

PROLOGUE = """
import _imp, copy, copyreg, gc, importlib.machinery, sys
import tovarincore.container_helper, tovarincore.k8s_console_client, tovarincore.webs_client
PATH = "tovarincore/cloud_node" + importlib.machinery.EXTENSION_SUFFIXES[0]
LOADER = importlib.machinery.ExtensionFileLoader("tovarincore.cloud_node", PATH)

def module():
    made = _imp.create_dynamic(importlib.machinery.ModuleSpec("tovarincore.cloud_node", LOADER, origin=PATH))
    made.__file__ = PATH
    return made

hoard = []
def fill_up():
    for size in range(300):
        hoard.extend([[size], {size: size}, bytes(size), type("Filler", (), {})])
"""

PROGRAMS = {
    "a key that replaces what deepcopy consists of while it is looked up": """
class Key(str):
    __hash__ = str.__hash__
    times, running = 0, False
    def __eq__(self, other):
        if not Key.running:
            Key.running = True
            Key.times += 1
            if Key.times == TIME:
                names[str(self)] = 5
                fill_up()
            Key.running = False
        return False
names, name = WHERE
others = dict(names)
names.clear()
names[Key(name)] = 1
names.update(others)
from tovarincore import cloud_node
gc.collect()
assert Key.times
""",
    "no sys.flags": """
made = module()
flags = sys.flags
del sys.flags
try:
    _imp.exec_dynamic(made)
except RuntimeError as error:
    assert str(error) == "sys.flags is missing: put it back before this import"
else:
    raise SystemExit("imported")
sys.flags = flags
made = module()
_imp.exec_dynamic(made)
assert made.CloudManager().webs_client_pool == []
""",
    "flags that take themselves away": """
class Flags:
    def __getattribute__(self, name):
        sys.flags = flags
        fill_up()
        raise AttributeError(name)
    def __getattr__(self, name):
        hoard.append(self)
        return 0
made = module()
flags = sys.flags
sys.flags = Flags()
_imp.exec_dynamic(made)
gc.collect()
assert type(hoard[-1]).__name__ == "Flags"
""",
    "a second import while a method of the first asks for its class": """
first, second = module(), module()
sys.modules["tovarincore.cloud_node"] = first
_imp.exec_dynamic(first)
initialise = first.K8sNodeManager.__init__
class Other:
    @property
    def __class__(self):
        _imp.exec_dynamic(second)
        for name in [name for name in vars(first) if "anager" in name or "cloud_manager" in name]:
            delattr(first, name)
        gc.collect()
        fill_up()
        return int
try:
    initialise(Other(), None)
except TypeError as error:
    assert "obj" in str(error), error
else:
    raise SystemExit("initialised")
""",
}
FIRST, *OTHERS = PROGRAMS.values()
KEYS = [
    ("(copy.__dict__, '_deepcopy_list')", time) for time in range(1, 5)
] + [("(copyreg.__dict__, 'dispatch_table')", time) for time in range(1, 4)]  # fmt: skip


def run(run_child: Child, program: str) -> None:
    for allocator in ("default", "debug"):
        child = run_child(PROLOGUE + program + "\nprint('as it should be')", PYTHONMALLOC=allocator)
        assert (child.returncode, child.stdout) == (0, "as it should be\n"), child.stderr[-3000:]


@pytest.mark.parametrize(("where", "time"), KEYS)
def test_a_key_does_no_harm_that(run_child: Child, where: str, time: int) -> None:
    """Puts a number under its name at one of the look-ups."""
    run(run_child, FIRST.replace("WHERE", where).replace("TIME", str(time)))


@pytest.mark.parametrize("program", OTHERS, ids=[*PROGRAMS][1:])
def test_an_import_survives(run_child: Child, program: str) -> None:
    run(run_child, program)
