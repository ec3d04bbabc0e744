"""Starting, stopping, rebooting and terminating many nodes at once."""

import random
import threading
import time
from collections.abc import Callable, Iterable
from contextlib import ExitStack
from dataclasses import dataclass, field

from tovarincore.cloud_def import CloudNode
from tovarincore.cloud_node import CloudManager, cloud_manager_glbl
from tovarincore.core_def import OPResult
from tovarincore.fleet.attempts import Patience
from tovarincore.fleet.crew import work_through
from tovarincore.fleet.failures import Failure, FailureKind, failure_of_error, failure_of_result
from tovarincore.sdk_data import service_descriptions_shared

__all__ = ["ActionReport", "NotDone", "reboot", "start", "stop", "terminate"]

_Outcome = Callable[["CloudNode | NotDone"], None]
_DONE = OPResult(success=True)


@dataclass(frozen=True)
class NotDone:
    """A node with which it was not done.

    :param node: the node
    :param why: for people
    :param result: the provider's last result
    :param error: what the provider raised last, if it raised
    """

    node: CloudNode
    why: str
    result: OPResult
    error: Exception | None = None


@dataclass(frozen=True)
class ActionReport:
    """What came of an action on many nodes.

    :param done: the nodes with which it was done, in the order given
    :param not_done: those with which it was not, and why
    :param seconds: how long it took
    """

    done: list[CloudNode] = field(default_factory=list)
    not_done: list[NotDone] = field(default_factory=list)
    seconds: float = 0.0

    @property
    def complete(self) -> bool:
        """Whether it was done with every node."""
        return not self.not_done


def start(
    nodes: Iterable[CloudNode],
    *,
    at_once: int = 16,
    patience: Patience | None = None,
    manager: CloudManager = cloud_manager_glbl,
    on_outcome: _Outcome | None = None,
    cancel: threading.Event | None = None,
) -> ActionReport:
    """Start stopped nodes, side by side.

    Each request is the facade's, which also changes the node's state in the registry. What EC2 throttles, and
    a request whose answer is lost, is repeated. One node's failure does not keep the others.

    :param nodes: the nodes; one that comes twice counts once
    :param at_once: most requests at a time
    :param patience: how long a request is repeated
    :param manager: the facade
    :param on_outcome: called in this thread with each node or failure as soon as it is there
    :param cancel: once it is set, no request begins any more; an interrupt sets it too
    :return: with which nodes it was done, with which not and why
    :raises ValueError: ``at_once`` is less than 1
    """

    def request(node: CloudNode) -> OPResult:
        manager.start_node(node.region, None, node.instance_id)
        return _DONE

    return _act(nodes, request, at_once, patience, manager, on_outcome, cancel, on_pods=False)


def stop(
    nodes: Iterable[CloudNode],
    *,
    at_once: int = 16,
    patience: Patience | None = None,
    manager: CloudManager = cloud_manager_glbl,
    on_outcome: _Outcome | None = None,
    cancel: threading.Event | None = None,
) -> ActionReport:
    """Stop nodes by force, side by side; their disks stay. The parameters are those of :func:`start`."""

    def request(node: CloudNode) -> OPResult:
        manager.stop_node(node.region, None, node.instance_id)
        return _DONE

    return _act(nodes, request, at_once, patience, manager, on_outcome, cancel, on_pods=False)


def reboot(
    nodes: Iterable[CloudNode],
    *,
    at_once: int = 16,
    patience: Patience | None = None,
    manager: CloudManager = cloud_manager_glbl,
    on_outcome: _Outcome | None = None,
    cancel: threading.Event | None = None,
) -> ActionReport:
    """Reboot nodes, side by side. The parameters are those of :func:`start`.

    A request whose answer is lost is not repeated: that might reboot a node twice.
    """

    def request(node: CloudNode) -> OPResult:
        manager.start_node(node.region, None, node.instance_id, reboot=True)
        return _DONE

    return _act(nodes, request, at_once, patience, manager, on_outcome, cancel, on_pods=False, repeat=False)


def terminate(
    nodes: Iterable[CloudNode],
    *,
    reason: str | None = None,
    at_once: int = 16,
    patience: Patience | None = None,
    manager: CloudManager = cloud_manager_glbl,
    on_outcome: _Outcome | None = None,
    cancel: threading.Event | None = None,
) -> ActionReport:
    """End nodes for good, side by side, disks included. The other parameters are those of :func:`start`.

    :param reason: Kubernetes keeps it on the pod while it ends
    """

    def request(node: CloudNode) -> OPResult:
        return manager.terminate_node(node.region, None, node.instance_id, reason)

    return _act(nodes, request, at_once, patience, manager, on_outcome, cancel)


def _act(
    nodes: Iterable[CloudNode],
    request: Callable[[CloudNode], OPResult],
    at_once: int,
    patience: Patience | None,
    manager: CloudManager,
    on_outcome: _Outcome | None,
    cancel: threading.Event | None,
    on_pods: bool = True,
    repeat: bool = True,
) -> ActionReport:
    begin = time.monotonic()
    if at_once < 1:
        raise ValueError(f"at_once is {at_once}; allowed is 1 or more")
    wanted = list({(node.region, node.instance_id): node for node in nodes}.values())
    cancel = cancel or threading.Event()
    limits = patience or Patience()
    for region in dict.fromkeys(node.region for node in wanted):
        # One after the other: two threads could make two providers for one region.
        manager.get_node_manager(region)

    def act(node: CloudNode) -> CloudNode | NotDone:
        if node.region.cloud == "k8s" and not on_pods:
            # The provider would do nothing and say nothing.
            why = "nodes in Kubernetes cannot be started, stopped or rebooted; they can be terminated"
            return NotDone(node, why, OPResult(error=True, msg=why))
        return _act_on(node, request, limits, cancel, repeat)

    with ExitStack() as stack:
        if any(node.region.cloud == "AWS" for node in wanted):
            stack.enter_context(service_descriptions_shared())
        if len(wanted) == 1:
            # On the caller's thread: an interrupt need not wait for the answer.
            outcomes = [act(wanted[0])]
            if on_outcome is not None:
                on_outcome(outcomes[0])
        else:
            outcomes = work_through(wanted, act, at_once, cancel, on_outcome)
    return ActionReport(
        [outcome for outcome in outcomes if not isinstance(outcome, NotDone)],
        [outcome for outcome in outcomes if isinstance(outcome, NotDone)],
        time.monotonic() - begin,
    )


def _act_on(
    node: CloudNode,
    request: Callable[[CloudNode], OPResult],
    patience: Patience,
    cancel: threading.Event,
    repeat: bool,
) -> CloudNode | NotDone:
    pause, end = patience.first_pause, time.monotonic() + patience.seconds
    failure = Failure(FailureKind.REFUSED, OPResult(error=True, msg="stopped before it was asked for"))
    while not cancel.is_set():
        try:
            result = request(node)
        except Exception as error:
            failure = failure_of_error(error)
        else:
            if result.success:
                return node
            failure = failure_of_result(result)
        lost = failure.kind is FailureKind.UNKNOWN and not repeat
        if failure.is_final or lost or time.monotonic() + pause > end:
            break
        cancel.wait(pause * random.uniform(0.5, 1.0))
        pause = min(2 * pause, patience.longest_pause)
    return NotDone(node, failure.why, failure.result, failure.error)
