"""A module implementation with probes in the place of everything that it uses, for the length of one
program."""

from __future__ import annotations

import builtins
import sys
from contextlib import contextmanager
from types import ModuleType
from typing import Any, Iterator

from tests.differential.journal import Journal
from tests.differential.probes import Probe, noted_class

# Siblings and standard modules that the implementations reach by a name in their module.
PROBED = (
    "datetime", "logging", "PingRequest", "CloudConfManager", "AWSCloudNode", "NodeState",
    "SecurityGroupRule", "SecurityGroupRules", "InstanceTemplate", "InstanceTemplatePayType",
    "CloudRegions", "CloudInstances", "ContainerHelper", "core_conf_glbl", "log_manager_glbl", "OPResult",
    "OPResultErrorCode", "CoreDef", "K8sConsoleClient", "ObjectMetaTextUtil", "WebSocketClient",
)  # fmt: skip
CHECKED = ("AWSCloudAuth", "K8sRegion", "CpuPlanA", "GpuPlanA", "CpuPlanB", "GpuPlanB")
# Names whose probes stand for interpreter facilities: without them the short ways for genuine locks and
# copies are taken.
FACILITIES = ("threading", "deepcopy", "aws_node_manager_client_lock")
IMPORTED = {"boto3": "Session", "botocore.config": "Config", "dateutil.parser": "parse"}
WATCHED_IMPORTS = {*IMPORTED, "botocore.exceptions", "json", "base64"}

_MISSING = object()


@contextmanager
def _imports(journal: Journal, watched: bool) -> Iterator[None]:
    before = {name: sys.modules.get(name, _MISSING) for name in IMPORTED}
    genuine = builtins.__import__

    def watching(
        name: str, globals: Any = None, locals: Any = None, fromlist: Any = (), level: int = 0
    ) -> Any:
        if (
            name in WATCHED_IMPORTS
            and level == 0
            and globals is not None
            and "cloud_node" in str(globals.get("__name__"))
        ):
            journal.note("import", name, fromlist)
        return genuine(name, globals, locals, fromlist, level)

    for name, attribute in IMPORTED.items():
        module = ModuleType(name)
        setattr(module, attribute, Probe(journal, attribute))
        sys.modules[name] = module
    if watched:
        builtins.__import__ = watching
    try:
        yield
    finally:
        builtins.__import__ = genuine
        for name, module in before.items():
            if module is _MISSING:
                sys.modules.pop(name, None)
            else:
                sys.modules[name] = module  # type: ignore[assignment]


@contextmanager
def world(module: Any, journal: Journal, facilities: bool) -> Iterator[None]:
    """Puts probes under the module's names, and under the SDK's modules; takes them away afterwards."""
    names = vars(module)
    before = dict(names)
    for name in PROBED + (FACILITIES if facilities else ()):
        names[name] = Probe(journal, name)
    for name in CHECKED:
        names[name] = noted_class(journal, name)
    try:
        with _imports(journal, watched=facilities):
            yield
    finally:
        names.clear()  # names come back in their own order, also those that a program took away
        names.update(before)
