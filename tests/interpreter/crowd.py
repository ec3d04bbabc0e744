"""Many threads on one facade: registry, provider cache, client pool and client lock, with invariants checked.

python -m tests.interpreter.crowd --threads 16 --seconds 300
python -m tests.interpreter.crowd --pool-operations 1000000
"""

from __future__ import annotations

import argparse
import random
import sys
import threading
import time
from collections import Counter
from collections.abc import Callable
from types import SimpleNamespace
from typing import Any

from stage.patience import SETUP_SECONDS, SLACK_SECONDS
from tovarincore import cloud_node
from tovarincore.cloud_def import AWSCloudAuth, CloudInstances, CloudNode, CloudRegion, NodeState

TYPE = CloudInstances.get_default_local_instance_type()
REGIONS = [CloudRegion(name=f"region-{number}", cloud="AWS") for number in range(3)]
AUTH = AWSCloudAuth(aws_access_key_id="id", aws_secret_access_key="secret")
LONGEST_WAIT = 3 + SLACK_SECONDS  # a lock wait is bounded by 3, the rest is the scheduler's


class Session:
    """Stands for the SDK's session: checks that nobody else is inside while it makes a client."""

    inside = 0

    def client(self, *args: Any, **kwargs: Any) -> Any:
        Session.inside += 1
        time.sleep(random.random() * 0.0005)
        alone = Session.inside == 1
        Session.inside -= 1
        return SimpleNamespace(alone=alone)


class Crowd:
    """What the threads share, and what they found wrong."""

    def __init__(self) -> None:
        self.facade = cloud_node.CloudManager()
        self.operations: Counter[str] = Counter()
        self.wrong: list[str] = []
        self.longest = 0.0
        self.providers: dict[int, set[int]] = {}
        for number in range(20):
            client = SimpleNamespace(node=SimpleNamespace(uuid=f"u-{number % 5}"), worker_id=number)
            self.facade.add_to_webs_client_pool(client)  # type: ignore[arg-type]

    def check(self, condition: bool, what: str) -> None:
        if not condition:
            self.wrong.append(what)

    def provider(self, region: CloudRegion) -> Any:
        return self.facade._get_node_manager(region, AUTH, "user")

    # Each deed checks an invariant of what it touched.

    def write_registry(self, dice: random.Random, me: int) -> None:
        provider = self.provider(dice.choice(REGIONS))
        # Name and uuid are written together: a reader that sees one without the other saw a torn record.
        mark = f"{me}-{dice.randrange(1000)}"
        node = CloudNode(
            region=REGIONS[0], instance_id=f"i-{me}", instance_type_def=TYPE, uuid=mark, name=mark
        )
        provider.set_node(node)
        node.name = "changed by its owner afterwards"
        found = provider.find_node_by_instance_id(f"i-{me}")
        self.check(found is None or found.name == found.uuid, "a record was torn, or shared with its owner")

    def replace_registry(self, dice: random.Random, me: int) -> None:
        provider = self.provider(dice.choice(REGIONS))
        nodes = provider.get_node_list()
        ids = [node.instance_id for node in nodes]
        self.check(len(ids) == len(set(ids)), "a node stands twice in a registry")
        provider.set_node_list(nodes[:40])

    def change_state(self, dice: random.Random, me: int) -> None:
        provider = self.provider(dice.choice(REGIONS))
        state = dice.choice([NodeState.RUNNING, NodeState.STOPPED])
        provider.change_node_state(f"i-{dice.randrange(16)}", state, ready=state is NodeState.RUNNING)
        ready = provider.get_ready_node_next_in_line()
        self.check(
            ready is None or ready.state is NodeState.RUNNING, "state and readiness were not written together"
        )

    def use_pool(self, dice: random.Random, me: int) -> None:
        client = self.facade.get_from_webs_client_pool(f"u-{dice.randrange(5)}")
        if client is None:
            return
        self.check(not hasattr(client, "taken_by"), "a client was handed out twice")
        client.taken_by = me  # type: ignore[attr-defined]
        time.sleep(0)
        del client.taken_by  # type: ignore[attr-defined]
        self.facade.add_to_webs_client_pool(client)

    def make_client(self, dice: random.Random, me: int) -> None:
        self.check(
            self.provider(dice.choice(REGIONS))._get_client().alone,
            "two threads made clients at the same time",
        )

    def look_up_provider(self, dice: random.Random, me: int) -> None:
        region = dice.choice(REGIONS)
        first, second = self.provider(region), self.provider(region)
        self.check(isinstance(first, cloud_node.AWSNodeManager) and second is not None, "a provider was lost")


def work(crowd: Crowd, me: int, until: float, start: threading.Barrier) -> None:
    dice = random.Random(me)
    deeds: list[Callable[[random.Random, int], None]] = [
        crowd.write_registry, crowd.replace_registry, crowd.change_state, crowd.use_pool, crowd.make_client,
        crowd.look_up_provider,
    ]  # fmt: skip
    start.wait()
    while time.monotonic() < until:
        deed = dice.choice(deeds)
        began = time.monotonic()
        try:
            deed(dice, me)
        except TimeoutError:
            crowd.operations["timed out"] += 1
        except Exception as error:
            crowd.wrong.append(f"{deed.__name__}: {error!r}")
        crowd.longest = max(crowd.longest, time.monotonic() - began)
        crowd.operations[deed.__name__] += 1


def run(threads: int, seconds: float) -> Crowd:
    """Lets so many threads work for so long, with an SDK session and a deep copy that dawdle."""
    crowd = Crowd()
    genuine = cloud_node.deepcopy

    def dawdling(value: Any) -> Any:
        if random.random() < 0.02:
            time.sleep(0.001)
        return genuine(value)

    make_session = cloud_node.AWSNodeManager._create_session
    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    cloud_node.AWSNodeManager._create_session = staticmethod(lambda auth: Session())  # type: ignore
    vars(cloud_node)["deepcopy"] = dawdling
    try:
        start = threading.Barrier(threads)
        until = time.monotonic() + seconds
        workers = [threading.Thread(target=work, args=(crowd, me, until, start)) for me in range(threads)]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join(seconds + SETUP_SECONDS)
            crowd.check(not worker.is_alive(), "a thread hangs")
    finally:
        sys.setswitchinterval(interval)
        cloud_node.AWSNodeManager._create_session = staticmethod(make_session)  # type: ignore
        vars(cloud_node)["deepcopy"] = genuine
    crowd.check(len(crowd.facade.webs_client_pool) == 20, "a client was lost")
    crowd.check(len(crowd.facade._node_manager_hashset) == len(REGIONS), "the cache lost a provider")  # type: ignore
    crowd.check(crowd.longest < LONGEST_WAIT, f"an operation took {crowd.longest:.1f} s")
    return crowd


def run_pool(operations: int, threads: int = 8) -> Counter[str]:
    """Takes, adds and flushes clients from many threads; every client stays accounted for."""
    facade = cloud_node.CloudManager()
    done: Counter[str] = Counter()
    lock = threading.Lock()
    outside: dict[int, list[Any]] = {me: [] for me in range(threads)}
    flushed: dict[int, list[Any]] = {me: [] for me in range(threads)}

    def work(me: int) -> None:
        dice = random.Random(me)
        counts: Counter[str] = Counter()
        made = 0
        for _ in range(operations // threads):
            deed = dice.random()
            if deed < 0.48:
                client = outside[me].pop() if outside[me] else None
                if client is None:
                    made += 1
                    client = SimpleNamespace(
                        node=SimpleNamespace(uuid=dice.randrange(6)), worker_id=(me, made)
                    )
                facade.add_to_webs_client_pool(client)
                counts["add"] += 1
            elif deed < 0.96:
                client = facade.get_from_webs_client_pool(dice.randrange(6))  # type: ignore[arg-type]
                if client is not None:
                    outside[me].append(client)
                counts["take"] += 1
            else:
                flushed[me] += facade.flush_webs_client_pool(dice.randrange(6))  # type: ignore[arg-type]
                counts["flush"] += 1
        with lock:
            done.update(counts)
            done["made"] += made

    workers = [threading.Thread(target=work, args=(me,)) for me in range(threads)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    ids = [client.worker_id for client in facade.webs_client_pool]
    ids += [client.worker_id for mine in outside.values() for client in mine]
    ids += [worker_id for mine in flushed.values() for worker_id in mine]
    done["accounted for"] = len(ids)
    done["twice"] = len(ids) - len(set(ids))  # type: ignore[arg-type]
    return done


def main() -> int:
    parser = argparse.ArgumentParser(prog="python -m tests.interpreter.crowd", description=__doc__)
    parser.add_argument("--threads", type=int, default=16)
    parser.add_argument("--seconds", type=float, default=300)
    parser.add_argument("--pool-operations", type=int, default=0)
    options = parser.parse_args()
    if options.pool_operations:
        done = run_pool(options.pool_operations)
        print(dict(done))
        return 0 if done["twice"] == 0 and done["accounted for"] == done["made"] else 1
    crowd = run(options.threads, options.seconds)
    print(f"{options.threads} threads, {options.seconds:.0f} s: {dict(crowd.operations)}")
    print(f"longest operation {crowd.longest:.2f} s; wrong: {Counter(crowd.wrong) or 'nothing'}")
    return 1 if crowd.wrong else 0


if __name__ == "__main__":
    sys.exit(main())
