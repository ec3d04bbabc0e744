"""What the operators' command costs: user and system time of one process each, on an emulated EC2."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

from benchmarks.report import seconds
from stage.ec2_endpoint import REGION_NAME
from stage.playground import playground
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion

ROOT = Path(__file__).parent.parent
ROUNDS = 12
NODES = 3

COMMANDS: dict[str, tuple[list[str], float | None]] = {
    "an interpreter that does nothing": (["-c", ""], 0.016),
    "`import tovarincore.cloud_node`": (["-c", "import tovarincore.cloud_node"], 0.19),
    "`tovarin-nodes --help`": (["--help"], 0.31),
    "`config path`": (["config", "path"], 0.27),
    f"`types {REGION_NAME}`": (["types", REGION_NAME], 1.23),
    f"`list {REGION_NAME} --no-probe`": (["list", REGION_NAME, "--no-probe"], 0.96),
    f"`launch {REGION_NAME} --type t3.small`": (["launch", REGION_NAME, "--type", "t3.small"], None),
    f"`doctor {REGION_NAME}`": (["doctor", REGION_NAME], 2.13),
}
"""What is run, and the seconds that it took when the command imported every sub-command at its start and let
the SDK read all of its data; that was on another day, on a machine that was busy."""


def table() -> str:
    """The least of some rounds as a Markdown table; the second `make demo` on the clock."""
    lines = ["| | before | now |", "|---|---:|---:|"]
    with playground():
        region = CloudRegion(REGION_NAME, "AWS")
        CloudConfManager().set_cloud_conf(region, CloudConf(AWSCloudAuth(), "bench"))
        for _ in range(NODES):
            _cpu_seconds(COMMANDS[f"`launch {REGION_NAME} --type t3.small`"][0])
        for name, (arguments, before) in COMMANDS.items():
            least = min(_cpu_seconds(arguments) for _ in range(ROUNDS))
            lines.append(f"| {name} | {'-' if before is None else seconds(before)} | {seconds(least)} |")
    if shutil.which("make"):
        _demo_seconds()
        lines.append(f"| the second `make demo`, on the clock | - | {seconds(_demo_seconds())} |")
    return "\n".join(lines)


def _cpu_seconds(arguments: list[str]) -> float:
    """Run the command, or the interpreter itself; the exit status of `doctor` says what it found."""
    program = [sys.executable, *([] if arguments[0] == "-c" else ["-m", "tovarincore"]), *arguments]
    process = subprocess.Popen(
        program, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
    )
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode and arguments[0] != "doctor":
        raise RuntimeError(f"{' '.join(program)} ended with {process.returncode}")
    return usage.ru_utime + usage.ru_stime


def _demo_seconds() -> float:
    # Without what the make around this hands on: its ARGS are not the demo's.
    own = {
        name: value for name, value in os.environ.items() if name != "ARGS" and not name.startswith("MAKE")
    }
    begin = time.perf_counter()
    subprocess.run(
        ["make", "demo"],
        cwd=ROOT,
        env=own,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
        check=True,
    )
    return time.perf_counter() - begin
