"""State of the whole process that a test may leave behind, which then changes what the tests after it see."""

from __future__ import annotations

import gc
import logging
import os
import signal
import sys
import threading
from typing import Any

import boto3

from tovarincore._transport import masker
from tovarincore.cloud_node import cloud_manager_glbl

_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGALRM, signal.SIGCHLD)
_LOGGERS = ("", "tovarincore", "CloudManager", "boto3", "botocore", "urllib3", "websockets", "docker")


def process_state() -> dict[str, Any]:
    """What has to be the same before and after each test, by a name for people."""
    return {
        "working folder": os.getcwd(),
        # pytest itself says there which test runs.
        "environment": {name: value for name, value in os.environ.items() if name != "PYTEST_CURRENT_TEST"},
        "signal handlers": [signal.getsignal(number) for number in _SIGNALS],
        "loggers": [_state_of(logging.getLogger(name)) for name in _LOGGERS],
        "level of the root logger": (logging.root.level, logging.root.manager.disable),
        "garbage collection": (gc.isenabled(), gc.get_threshold()),
        "recursion limit": sys.getrecursionlimit(),
        "hooks": (sys.excepthook, sys.unraisablehook, threading.excepthook),
        "tracing": (sys.gettrace(), sys.getprofile()),
        "session class of the SDK": boto3.Session,
        "clients in the facade's pool": len(cloud_manager_glbl.webs_client_pool),
    }


def forget_what_is_kept() -> None:
    """Empty the memories that the package has on purpose: secrets that it masks, and providers."""
    masker._remembered.clear()
    vars(cloud_manager_glbl)["_node_manager_hashset"].clear()


def _state_of(logger: logging.Logger) -> Any:
    # Levels follow the settings, which the package applies at its next use of them.
    # pytest's own handlers come and go with each phase of a test; libraries add those that do nothing.
    handlers = [
        handler
        for handler in logger.handlers
        if not isinstance(handler, logging.NullHandler) and not type(handler).__module__.startswith("_pytest")
    ]
    return logger.name, logger.disabled, logger.propagate, handlers
