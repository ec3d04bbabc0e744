"""Many threads that launch, list and end nodes for a while, on an EC2 endpoint on loopback: errors by kind.

python -m benchmarks.crowd --threads 100 --seconds 120
python -m benchmarks.crowd --threads 100 --seconds 120 --shared
"""

from __future__ import annotations

import argparse
import statistics
import threading
import time
from collections import Counter
from contextlib import ExitStack
from itertools import cycle

from benchmarks.launch import account, config_of
from benchmarks.report import seconds
from tovarincore.cloud_def import AWSCloudAuth, CloudInstances, CloudRegion
from tovarincore.sdk_data import service_descriptions_shared

OPERATIONS = ("launch", "list", "terminate")


class Crowd:
    """Threads that go through the life of nodes until the time is up, and what came of it."""

    def __init__(self, region: CloudRegion, auth: AWSCloudAuth, image_id: str) -> None:
        from tovarincore.cloud_node import AWSNodeManager

        self._region, self._auth, self._image_id = region, auth, image_id
        self._manager = AWSNodeManager(region, auth=auth, username="bench")
        self._lock = threading.Lock()
        self.outcomes: dict[str, Counter[str]] = {name: Counter() for name in OPERATIONS}
        self.taken: dict[str, list[float]] = {name: [] for name in OPERATIONS}

    def run(self, threads: int, length: float) -> None:
        """Run the threads; each ends the operation that it has begun."""
        self._live(time.monotonic() + 1)  # makes the security group, and reads what is read once
        for name in OPERATIONS:
            self.outcomes[name].clear()
            self.taken[name].clear()
        end = time.monotonic() + length
        crowd = [threading.Thread(target=self._live, args=(end,)) for _ in range(threads)]
        for thread in crowd:
            thread.start()
        for thread in crowd:
            thread.join()

    def _live(self, end: float) -> None:
        node = ""
        for operation in cycle(OPERATIONS):
            if time.monotonic() >= end:
                return
            if operation == "launch":
                node = self._try(operation)
            elif operation == "list" or node:
                self._try(operation, node)

    def _try(self, operation: str, instance_id: str = "") -> str:
        """Do one operation and count its outcome; return the id of a launched node."""
        launched, outcome = "", "done"
        start = time.perf_counter()
        try:
            if operation == "launch":
                node, result = self._manager.launch_node(
                    CloudInstances.instance_type_list[0],
                    config_of(self._region, self._image_id),
                    self._auth,
                    "bench",
                )
                launched = node.instance_id if node else ""
                outcome = "done" if result.success else f"result: {result.provider_code or result.msg}"
            elif operation == "list":
                self._manager.list_instances()
            else:
                self._manager.terminate_node(instance_id, None)
        except Exception as error:
            outcome = f"{type(error).__name__}: {error}".rstrip(": ")[:60]
        with self._lock:
            self.outcomes[operation][outcome] += 1
            self.taken[operation].append(time.perf_counter() - start)
        return launched


def main() -> None:
    """Print a line for each operation and kind of outcome."""
    parser = argparse.ArgumentParser(prog="python -m benchmarks.crowd", description=__doc__)
    parser.add_argument("--threads", type=int, default=100)
    parser.add_argument("--seconds", type=float, default=120)
    parser.add_argument("--shared", action="store_true", help="with shared service descriptions")
    options = parser.parse_args()
    with ExitStack() as stack:
        crowd = Crowd(*stack.enter_context(account()))
        if options.shared:
            stack.enter_context(service_descriptions_shared())
        crowd.run(options.threads, options.seconds)
    print("| operation | calls | outcomes | median, longest |", "|---|---|---|---|", sep="\n")
    for name in OPERATIONS:
        counts, taken = crowd.outcomes[name], crowd.taken[name]
        if taken:
            told = ", ".join(f"{count} {outcome}" for outcome, count in counts.most_common())
            times = f"{seconds(statistics.median(taken))}, {seconds(max(taken))}"
            print(f"| {name} | {len(taken)} | {told} | {times} |")


if __name__ == "__main__":
    main()
