"""Imports go through whatever stands in the built-ins, and failed ones leave nothing dangling."""

import pytest

PROLOGUE = "import builtins, sys\n"

HOOKED = """
genuine = builtins.__import__
seen = []
def hook(name, globals=None, locals=None, fromlist=(), level=0):
    if globals is not None and globals.get("__name__") == "tovarincore.cloud_node":
        seen.append((name, fromlist))
        if name == "botocore.config":
            raise ImportError("refused by the hook")
    return genuine(name, globals, locals, fromlist, level)
builtins.__import__ = hook
from tovarincore import cloud_node
assert [name for name, _ in seen].count("tovarincore.cloud_def") == 1, seen
assert ("logging", None) in seen and ("abc", ("ABC", "abstractmethod")) in seen, seen
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion
manager = cloud_node.AWSNodeManager(CloudRegion(name="r", cloud="AWS"), AWSCloudAuth(), "u")
before = list(seen)
assert manager.get_node_list() == [] and seen == before, seen
assert not {"builtins", "_thread"} & {name for name, _ in seen}, seen
try:
    manager._get_client()
except ImportError as error:
    assert str(error) == "refused by the hook"
else:
    raise SystemExit("the hook was not asked")
"""

REPLACED = """
from tovarincore import cloud_def, container_helper, k8s_console_client, webs_client
from tovarincore.cloud_def import CloudRegion
genuine = builtins.len
calls = []
builtins.len = lambda value: calls.append(value) or genuine(value)
from tovarincore import cloud_node
manager = cloud_node.LocalContainerNodeManager(CloudRegion(name="r", cloud="local"))
del calls[:]
manager.set_node("a node")
assert genuine(calls) >= 1
"""

CIRCULAR = """
import types
half = types.ModuleType("tovarincore.webs_client")
half.__file__ = "half.py"
half.__spec__ = types.SimpleNamespace(_initializing=True)
sys.modules["tovarincore.webs_client"] = half
try:
    from tovarincore import cloud_node
except ImportError as error:
    assert str(error) == (
        "cannot import name 'WebSocketClient' from partially initialized module 'tovarincore.webs_client' "
        "(most likely due to a circular import) (half.py)"
    ), error
else:
    raise SystemExit("imported")
"""

KEPT = """
import gc
from tovarincore import cloud_conf, webs_client
class Failing:
    def __init__(self):
        Failing.kept = sys.modules["tovarincore.cloud_node"].CloudManager
        raise ValueError("not yet")
genuine, cloud_conf.CloudConfManager = cloud_conf.CloudConfManager, Failing
try:
    from tovarincore import cloud_node
except ValueError:
    pass
cloud_conf.CloudConfManager = genuine
gc.collect()
filler = [dict.fromkeys(range(200)) for _ in range(2000)]
assert Failing.kept.get_node_list.__globals__["__name__"] == "tovarincore.cloud_node"
from tovarincore import cloud_node
assert isinstance(cloud_node.cloud_manager_glbl, cloud_node.CloudManager)
"""


@pytest.mark.parametrize(
    "code",
    [HOOKED, REPLACED, CIRCULAR, KEPT],
    ids=[
        "an import hook set first",
        "a built-in replaced first",
        "a circular import",
        "a class of a failed import",
    ],
)
def test_an_import_behaves_as_a_python_modules_with(code, run_child):
    """Each in a separate process."""
    child = run_child(PROLOGUE + code)
    assert (child.returncode, child.stderr) == (0, "")
