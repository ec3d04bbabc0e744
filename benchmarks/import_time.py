"""The module's own import, its siblings already there: in separate processes."""

from __future__ import annotations

import os
import subprocess
import sys

from benchmarks.measuring import Result
from benchmarks.scenario import MODULES

ROUNDS = 25

PROGRAM = """
import ctypes, sys, time
{libgcc}
import copy, logging, threading, typing, datetime, abc
import tests.twin, tovarincore
for name in ("api_def", "cloud_conf", "cloud_def", "container_helper", "core_conf", "core_def",
             "k8s_console_client", "util", "webs_client"):
    __import__("tovarincore." + name)
start = time.thread_time()
__import__({module!r})
print(time.thread_time() - start)
"""


def once(side: str, libgcc_loaded: bool) -> float:
    libgcc = 'ctypes.CDLL("libgcc_s.so.1")' if libgcc_loaded else ""
    program = PROGRAM.format(module=MODULES[side], libgcc=libgcc)
    # The twin's byte code is read from its file, as for any installed module.
    environment = {name: value for name, value in os.environ.items() if name != "PYTHONDONTWRITEBYTECODE"}
    command = [sys.executable, "-c", program]
    return float(subprocess.run(command, env=environment, capture_output=True, check=True).stdout)


def measure() -> list[Result]:
    """With libgcc_s loaded before, as any C++ module loads it, and without."""
    results = []
    for libgcc_loaded in (True, False):
        best = {"twin": float("inf"), "ours": float("inf")}
        for _ in range(ROUNDS):
            for side in best:
                best[side] = min(best[side], once(side, libgcc_loaded))
        # Loading it costs the first module of a process that needs it about 115 us.
        goal = 1.0 if libgcc_loaded else best["twin"] / (best["twin"] + 130e-6)
        loaded = "loaded before" if libgcc_loaded else "not loaded before"
        results.append(Result(f"own import, libgcc_s {loaded}", goal, best["twin"], best["ours"]))
    return results
