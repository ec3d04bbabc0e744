"""The implementations that every test of behaviour runs on: the built extension and its plain-Python twin."""

from __future__ import annotations

import gc
import importlib
import os
import signal
import subprocess
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from types import ModuleType

import pytest
from hypothesis import HealthCheck, settings

from stage.settings import settings_of
from tests.fakes import CallLog, recording_logger
from tests.leftovers import forget_what_is_kept, process_state
from tests.scheduling import GroupScheduling, rank_of
from tests.thorough import skip_thorough

MODULES = {"extension": "tovarincore.cloud_node", "twin": "tests.twin.cloud_node"}
ONLY = os.environ.get("TOVARIN_TESTS_ONLY", "")
IMPLEMENTATIONS = [ONLY] if ONLY else list(MODULES)
ROOT = Path(__file__).parent.parent
# How long an example takes says more about the machine's load than about the code.
settings.register_profile("tests", deadline=None, suppress_health_check=[HealthCheck.too_slow])
settings.load_profile("tests")


def pytest_configure() -> None:
    """Refuse to start without the built module."""
    # A shell starts background jobs with SIGINT ignored, and so would every program be that a test starts.
    if signal.getsignal(signal.SIGINT) is signal.SIG_IGN:
        signal.signal(signal.SIGINT, signal.default_int_handler)
    if ONLY and ONLY not in MODULES:
        raise pytest.UsageError(f"TOVARIN_TESTS_ONLY is {ONLY!r}; allowed are {', '.join(MODULES)}")
    if ONLY != "twin":
        try:
            importlib.import_module(MODULES["extension"])
        except ImportError as error:
            raise pytest.UsageError(str(error)) from None


def pytest_xdist_auto_num_workers(config: pytest.Config) -> int:
    """How many processes `-n auto` means: none for single files and for output that is not captured.

    Many tests wait, so that a machine serves twice as many processes as it has cores. Its load does not
    count: it is that of the last minute, mostly of the build.
    """
    single = config.args and all(Path(argument.partition("::")[0]).is_file() for argument in config.args)
    if single or config.option.capture == "no":
        return 0
    return 2 * len(os.sched_getaffinity(0))


def pytest_xdist_make_scheduler(config: pytest.Config, log: object) -> GroupScheduling:
    """Keep in one process what shares a server."""
    return GroupScheduling(config, log)


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Refuse ids with addresses, which no two processes share; skip and order the long ones."""
    items.sort(key=lambda item: rank_of(item.nodeid))
    for item in items:
        skip_thorough(item)
        if " at 0x" in item.nodeid:
            raise pytest.UsageError(f"{item.nodeid} holds an address: name the parameter by ids=[...]")


def pytest_collection_finish() -> None:
    """Begin the first test with a small heap."""
    take_out_of_sight()


@pytest.fixture(scope="module", autouse=True)
def small_heap() -> None:
    """Begin each file with a small heap, whatever earlier ones imported, such as the SDK and an emulator."""
    take_out_of_sight()


def take_out_of_sight() -> None:
    """Hide what there is from the collector: many tests collect, each time all of it."""
    gc.collect()
    gc.freeze()


@pytest.fixture(autouse=True)
def nothing_left_behind() -> Iterator[None]:
    """Fail a test that changes the process for those after it."""
    before = process_state()
    yield
    forget_what_is_kept()
    after = process_state()
    left = [f"{name}: {before[name]}, then {after[name]}" for name in before if before[name] != after[name]]
    assert left == [], "\n".join(["left behind by the test:", *left])


@pytest.fixture
def own_settings(tmp_path: Path) -> Iterator[None]:
    """Defaults in place of the configuration and the credentials of the machine that runs the tests."""
    with settings_of(tmp_path, {}):
        yield


@pytest.fixture(params=IMPLEMENTATIONS)
def cloud_node(request: pytest.FixtureRequest, own_settings: None) -> ModuleType:
    """Each implementation of the module in turn."""
    return importlib.import_module(MODULES[request.param])


@pytest.fixture
def log(cloud_node: ModuleType, monkeypatch: pytest.MonkeyPatch) -> CallLog:
    """The one record of calls and log events; node managers made in the test log into it."""
    calls = CallLog()
    logger = recording_logger(calls)
    monkeypatch.setattr(cloud_node, "log_manager_glbl", LogManager(logger))
    return calls


class LogManager:
    """Hands out one logger, as the package's log manager does."""

    def __init__(self, logger: object) -> None:
        self.get_logger = lambda: logger


Child = Callable[..., subprocess.CompletedProcess[str]]


@pytest.fixture
def run_child(tmp_path: Path) -> Child:
    """Runs Python code in a separate process, from the root of the tree, warnings being errors."""

    def run(code: str, *options: str, **environment: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            [sys.executable, "-W", "error", *options, "-c", code],
            cwd=ROOT,
            env={**os.environ, "PYTHONPATH": str(ROOT), **environment},
            capture_output=True,
            text=True,
            timeout=120,
        )

    return run


@pytest.fixture
def run_optimised(cloud_node: ModuleType, run_child: Child) -> Callable[[str], str]:
    """Runs code on the implementation without assertions, and returns what it prints."""

    def run(code: str) -> str:
        prologue = f"import sys\nfrom {cloud_node.__name__.rpartition('.')[0]} import cloud_node\n"
        child = run_child(prologue + code, "-O")
        assert (child.returncode, child.stderr) == (0, ""), child.stderr
        return child.stdout

    return run
