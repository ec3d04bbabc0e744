"""Importing the module: without the SDK, quietly, into one interpreter, and again after a failure."""

from __future__ import annotations

import json
import sys
from types import ModuleType

import pytest

from tests.conftest import IMPLEMENTATIONS, MODULES, Child

# Loads the siblings first, so that what is then taken away is missed by our module alone.
SIBLINGS = """
import builtins, importlib, json, sys
for sibling in ("api_def", "cloud_conf", "cloud_def", "container_helper", "core_conf", "core_def",
                "k8s_console_client", "util", "webs_client"):
    importlib.import_module("tovarincore." + sibling)
import datetime, logging, threading, abc, copy, typing

def attempt(name):
    try:
        return "imported " + importlib.import_module(name).__name__
    except BaseException as error:
        assert name not in sys.modules
        return type(error).__name__ + ": " + str(error)
"""
WITHOUT_SDK = """
import sys
for name in ("boto3", "botocore", "dateutil", "s3transfer", "jmespath", "urllib3"):
    sys.modules[name] = None
"""


needs_extension = pytest.mark.skipif(
    "extension" not in IMPLEMENTATIONS, reason="TOVARIN_TESTS_ONLY leaves the extension out"
)


@pytest.fixture(params=IMPLEMENTATIONS)
def name(request: pytest.FixtureRequest) -> str:
    """The name that each implementation is imported under."""
    return MODULES[request.param]


@pytest.mark.parametrize(
    "options", [(), ("-O",), ("-OO",), ("-X", "dev")], ids=["plain", "-O", "-OO", "-X dev"]
)
def test_the_import_needs_no_amazon_sdk_and_says_nothing(
    run_child: Child, name: str, options: tuple[str, ...]
) -> None:
    """The facade is there, its operations that need no SDK work, and warnings would be errors."""
    code = f"""
{WITHOUT_SDK}
import {name} as module
assert type(module.cloud_manager_glbl) is module.CloudManager
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion
region = CloudRegion("eu-central-1", "AWS")
facade = module.cloud_manager_glbl
assert facade.list_instances is not None
manager = facade._get_node_manager(region, AWSCloudAuth(), "ada")
assert facade.get_node_list(region) == []
try:
    manager._create_session(manager.auth)
except ImportError as error:
    assert error.name == "boto3", error
else:
    raise SystemExit("an SDK was found")
"""
    child = run_child(code, *options)
    assert (child.returncode, child.stdout, child.stderr) == (0, "", "")


def test_the_import_does_not_load_the_sdk_where_it_is_installed(run_child: Child, name: str) -> None:
    """Nor the date parser; methods load them at each call."""
    child = run_child(
        f"import sys, {name}\nprint(sorted({{'boto3', 'botocore', 'dateutil'}} & set(sys.modules)))"
    )
    assert (child.stdout, child.stderr) == ("[]\n", "")


def test_the_import_reads_no_configuration(run_child: Child, name: str) -> None:
    """Files that cannot be used are found out by the first call that needs them."""
    child = run_child(
        f"import {name}", TOVARIN_CONF="/dev/null/core.toml", TOVARIN_CLOUD_CONF="/dev/null/cloud.toml"
    )
    assert (child.returncode, child.stderr) == (0, "")


CHANGED = "Interpreter change detected - this module can only be loaded into one interpreter per process."
MAKE_INTERPRETERS = {
    (3, 10): ("_xxsubinterpreters", "run_string", ["", "isolated=False"]),
    (3, 11): ("_xxsubinterpreters", "run_string", ["", "isolated=False"]),
    (3, 12): ("_xxsubinterpreters", "run_string", ["", "isolated=False"]),
    (3, 13): ("_interpreters", "exec", ["", "'legacy'"]),
}


@needs_extension
@pytest.mark.parametrize("kind", [0, 1], ids=["isolated", "sharing the lock"])
def test_a_second_interpreter_of_the_process_is_refused(run_child: Child, kind: int) -> None:
    """With one text, whatever the interpreter's configuration; the first keeps its module."""
    module, run, kinds = MAKE_INTERPRETERS[sys.version_info[:2]]
    inside = """
try:
    import tovarincore.cloud_node
except ImportError as error:
    print(type(error).__name__, error, flush=True)
"""
    code = f"""
import {module} as interpreters
import tovarincore.cloud_node as ours
second = interpreters.create({kinds[kind]})
interpreters.{run}(second, {inside!r})
interpreters.{run}(second, {inside!r})
interpreters.destroy(second)
import tovarincore.cloud_node as again
assert again is ours and again.cloud_manager_glbl is ours.cloud_manager_glbl
"""
    child = run_child(code)
    assert (child.returncode, child.stdout) == (0, f"ImportError {CHANGED}\n" * 2), child.stderr


def test_an_import_can_be_tried_again_after_a_sibling_was_missing(run_child: Child, name: str) -> None:
    """The failed module is forgotten; the second attempt is whole."""
    code = f"""
{SIBLINGS}
sibling = sys.modules["tovarincore.webs_client"]
sys.modules["tovarincore.webs_client"] = None
print(attempt({name!r}))
sys.modules["tovarincore.webs_client"] = sibling
print(attempt({name!r}))
module = sys.modules[{name!r}]
assert type(module.cloud_manager_glbl) is module.CloudManager
"""
    child = run_child(code)
    halted = "ModuleNotFoundError: import of tovarincore.webs_client halted; None in sys.modules"
    assert (child.stdout, child.stderr) == (f"{halted}\nimported {name}\n", "")


@pytest.mark.parametrize("failure", ["RuntimeError('store')", "KeyboardInterrupt()", "SystemExit(3)"])
def test_an_import_can_be_tried_again_after_its_last_step_failed(
    run_child: Child, name: str, failure: str
) -> None:
    """The facade's constructor runs inside the import; its exception is the import's."""
    code = f"""
{SIBLINGS}
import tovarincore.cloud_conf as store
genuine = store.CloudConfManager
error = {failure}
def failing():
    raise error
store.CloudConfManager = failing
print(attempt({name!r}))
store.CloudConfManager = genuine
print(attempt({name!r}))
assert type(sys.modules[{name!r}].cloud_manager_glbl.cloud_conf_manager) is genuine
"""
    child = run_child(code)
    error = eval(failure)
    assert (child.stdout, child.stderr) == (f"{type(error).__name__}: {error}\nimported {name}\n", "")


def test_every_missing_name_of_a_sibling_is_pythons_own_import_error(run_child: Child, name: str) -> None:
    """Text, name and path; a name that is missing is found out in the order of the import statements."""
    code = f"""
{SIBLINGS}
import ast, pathlib
source = pathlib.Path("tests/twin/cloud_node.py").read_text()
statements = [s for s in ast.parse(source).body if isinstance(s, ast.ImportFrom)]
wanted = [(s.module, a.name) for s in statements for a in s.names]
taken, outcomes = [], []
for module_name, attribute in reversed(wanted):
    module = sys.modules[module_name]
    taken.append((module, attribute, getattr(module, attribute)))
    delattr(module, attribute)
    try:
        importlib.import_module({name!r})
    except ImportError as error:
        got = str(error), error.name, error.path
    try:
        exec(f"from {{module_name}} import {{attribute}}")
    except ImportError as error:
        expected = str(error), error.name, error.path
    outcomes.append(got == expected and attribute in got[0])
for module, attribute, value in taken:
    setattr(module, attribute, value)
print(json.dumps([outcomes == [True] * len(wanted), len(wanted) > 40, attempt({name!r})]))
"""
    child = run_child(code)
    assert child.stderr == ""
    assert json.loads(child.stdout) == [True, True, f"imported {name}"]


@needs_extension
@pytest.mark.parametrize(
    "built_in", ["staticmethod", "range", "super", "AssertionError", "NotImplementedError"]
)
def test_a_missing_built_in_fails_the_import_of_the_extension(run_child: Child, built_in: str) -> None:
    """With the interpreter's text for an undefined name; afterwards the import can be tried again."""
    code = f"""
{SIBLINGS}
genuine = builtins.{built_in}
del builtins.{built_in}
try:
    import tovarincore.cloud_node
except NameError as error:
    outcome = str(error)
finally:
    builtins.{built_in} = genuine
print(outcome)
print(attempt("tovarincore.cloud_node"))
"""
    child = run_child(code)
    expected = f"name '{built_in}' is not defined\nimported tovarincore.cloud_node\n"
    assert (child.stdout, child.stderr) == (expected, "")


@needs_extension
def test_the_extension_keeps_the_built_ins_that_it_found_at_import(run_child: Child) -> None:
    """Five of them; later replacements do not reach it."""
    code = """
import builtins
from tests.fakes import AWS_REGION, make_node
from tests.providers.aws.conftest import AUTH
from tovarincore import cloud_node
from tovarincore.cloud_def import CloudRegion
genuine = builtins.range, builtins.super, builtins.AssertionError, builtins.NotImplementedError
facade = cloud_node.CloudManager()
facade._get_node_manager(AWS_REGION, AUTH, "ada")  # Reads the settings, which needs the built-ins itself.
node = make_node()
builtins.range = builtins.super = builtins.AssertionError = builtins.NotImplementedError = None
try:
    manager = cloud_node.AWSNodeManager(AWS_REGION, AUTH, "ada")
    manager.set_node(node)
    manager.set_node(node)
    caught = []
    for attempt in (lambda: facade.flush_webs_client_pool(None),
                    lambda: facade.get_node_manager(CloudRegion("x", "azure"))):
        try:
            attempt()
        except Exception as error:
            caught.append(type(error))
finally:
    builtins.range, builtins.super, builtins.AssertionError, builtins.NotImplementedError = genuine
assert caught == [AssertionError, NotImplementedError], caught
print(len(manager.get_node_list()))
"""
    child = run_child(code)
    assert (child.stdout, child.stderr) == ("1\n", "")


def test_the_modules_names_are_bound_in_the_order_of_the_source(
    cloud_node: ModuleType, run_child: Child
) -> None:
    """Imports first, then the classes with the lock between them, the facade last."""
    child = run_child(f"import json, {cloud_node.__name__} as m\nprint(json.dumps(list(vars(m))))")
    names = [name for name in json.loads(child.stdout) if not name.startswith("__")]
    assert names[:6] == ["datetime", "logging", "threading", "ABC", "abstractmethod", "deepcopy"]
    assert names[-8:] == [
        "NodeManager",
        "CloudKeyPairManager",
        "aws_node_manager_client_lock",
        "AWSNodeManager",
        "LocalContainerNodeManager",
        "K8sNodeManager",
        "CloudManager",
        "cloud_manager_glbl",
    ]
