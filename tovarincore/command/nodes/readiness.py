"""Waits for a node's worker, and tells meanwhile why it does not answer yet."""

import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

from tovarincore._transport.masker import mask
from tovarincore.cloud_def import CloudNode, NodeState
from tovarincore.command.context.access import Access
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.explain import explain
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.backoff import Backoff
from tovarincore.command.nodes.inventory import GONE, find_node, list_nodes
from tovarincore.command.nodes.probes import Probe, probe_nodes
from tovarincore.command.output.writer import error_is_terminal, write

__all__ = ["DEFAULT_WAIT_SECONDS", "wait_until_ready"]

DEFAULT_WAIT_SECONDS = 600.0
_EVERY_SECONDS = 3.0
# A listing may not show an instance in its first seconds: EC2 and API servers answer from copies.
_UNSEEN_SECONDS = 30.0


def wait_until_ready(
    invocation: Invocation, access: Access, wanted: str, seconds: float, new: bool = False
) -> tuple[CloudNode, Probe]:
    """Ask the provider and the worker again and again until the worker answers.

    :param wanted: the node's instance id, uuid or name
    :param seconds: longest time
    :param new: it was launched just now, and may not be listed yet
    :return: the node, and the answer of its worker
    :raises CommandFailure: the node will not become ready by itself, or not in time, or Ctrl-C was pressed
    """
    start = time.monotonic()
    seen: CloudNode | None = None
    reason = "it has not been looked at"
    backoff = Backoff(_EVERY_SECONDS)
    with _progress(invocation) as show:
        try:
            while True:
                pause = _EVERY_SECONDS
                try:
                    seen = find_node(list_nodes(access), seen.instance_id if seen else wanted, access.region)
                    probe = probe_nodes([seen])[seen.instance_id]
                    if probe.ready:
                        return seen, probe
                    _require_hope(seen, access)
                    reason = _reason(seen, probe)
                    backoff.answered()
                except Exception as error:
                    failure = explain(error, access.region)
                    missing = new and seen is None and failure.code is ExitCode.NOT_FOUND
                    if missing and time.monotonic() - start < _UNSEEN_SECONDS:
                        reason = "it is not listed yet"
                    elif _may_pass(failure, seen):
                        reason = failure.what
                    else:
                        raise
                    pause = backoff.pause_after(failure)
                left = start + seconds - time.monotonic()
                if left <= 0:
                    raise _too_late(seen, wanted, seconds, reason)
                show(reason, time.monotonic() - start)
                time.sleep(min(pause, left))
        except KeyboardInterrupt:
            name = seen.name if seen else wanted
            raise CommandFailure(
                f"interrupted: stopped waiting for {name}; the node itself goes on",
                code=ExitCode.INTERRUPTED,
            ) from None


def _may_pass(failure: CommandFailure, seen: CloudNode | None) -> bool:
    """Whether a lost answer is no reason to give up: a busy service, or one that has answered before."""
    return failure.code is ExitCode.BUSY or (seen is not None and failure.code is ExitCode.UNREACHABLE)


def _require_hope(node: CloudNode, access: Access) -> None:
    if node.state in GONE:
        raise CommandFailure(
            f"{node.name} is {node.state.value.lower()} and will never be ready",
            f"launch another one: {command_for(access.region, 'launch')}",
        )
    if node.state in (NodeState.STOPPING, NodeState.STOPPED):
        raise CommandFailure(
            f"{node.name} is {node.state.value.lower()} and will not be ready by itself",
            f"start it: {command_for(access.region, 'start', node.instance_id)}",
        )


def _reason(node: CloudNode, probe: Probe) -> str:
    if node.state is not NodeState.RUNNING:
        return probe.message
    return f"{probe.why_not}: {probe.message}" if probe.message else probe.why_not


def _too_late(seen: CloudNode | None, wanted: str, seconds: float, reason: str) -> CommandFailure:
    name = seen.name if seen else wanted
    return CommandFailure(
        f"{name} was not ready within {seconds:g} seconds: {reason}",
        "fix that, or wait longer with --timeout",
        ExitCode.TIMED_OUT,
    )


@contextmanager
def _progress(invocation: Invocation) -> Iterator[Callable[[str, float], None]]:
    """Give the body a function that shows a reason and the seconds gone by: a line that moves on a terminal,
    else a new line whenever the reason changes."""
    if invocation.structured:
        yield lambda reason, seconds: None
        return
    if not error_is_terminal():
        shown: list[str] = []

        def tell(reason: str, seconds: float) -> None:
            if shown[-1:] != [reason]:
                shown.append(reason)
                write(f"{seconds:5.0f} s  {reason}", err=True)

        yield tell
        return
    from rich.console import Console

    from tovarincore.command.output import progress

    progress.clear()
    line = _ProgressLine()
    with Console(stderr=True).status(line):
        yield line.show


class _ProgressLine:
    """Why the wait goes on, beside a clock that goes on between two looks at the node."""

    def __init__(self) -> None:
        self._reason = "looking at the node"
        self._start = time.monotonic()

    def show(self, reason: str, seconds: float) -> None:
        self._reason, self._start = reason, time.monotonic() - seconds

    def __rich__(self) -> Any:
        from rich.text import Text

        return Text(mask(f"{time.monotonic() - self._start:.0f} s  {self._reason}"))
