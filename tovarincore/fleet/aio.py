"""The functions of this package for programs with an event loop.

Each takes what its namesake takes and runs it in a thread. Callbacks are called in the event loop. Cancelling
lets nothing more begin and waits for the requests under way, so that what they launch is noted; then the
cancellation goes on.
"""

import asyncio
import functools
import threading
from collections.abc import AsyncIterator, Callable, Iterable
from contextlib import asynccontextmanager
from typing import Any, TypeVar

from tovarincore import fleet
from tovarincore.cloud_def import CloudInstanceConfig, CloudInstanceTypeDef, CloudNode, CloudRegion
from tovarincore.fleet.crew import Crew

__all__ = ["launch", "reboot", "refresh", "settle", "start", "stop", "temporary_nodes", "terminate", "wait"]

T = TypeVar("T")
_CALLBACKS = ("on_look", "on_outcome", "on_refreshed")


async def refresh(regions: Iterable[CloudRegion], *arguments: Any, **named: Any) -> list[fleet.Refreshed]:
    """Refresh regions as :func:`tovarincore.fleet.refresh` does."""
    return await _run(fleet.refresh, regions, *arguments, **named)


async def launch(
    region: CloudRegion,
    count: int,
    instance_type: CloudInstanceTypeDef,
    config: CloudInstanceConfig,
    **named: Any,
) -> fleet.LaunchReport:
    """Launch nodes as :func:`tovarincore.fleet.launch` does."""
    return await _run(fleet.launch, region, count, instance_type, config, **named)


async def start(nodes: Iterable[CloudNode], **named: Any) -> fleet.ActionReport:
    """Start nodes as :func:`tovarincore.fleet.start` does."""
    return await _run(fleet.start, nodes, **named)


async def stop(nodes: Iterable[CloudNode], **named: Any) -> fleet.ActionReport:
    """Stop nodes as :func:`tovarincore.fleet.stop` does."""
    return await _run(fleet.stop, nodes, **named)


async def reboot(nodes: Iterable[CloudNode], **named: Any) -> fleet.ActionReport:
    """Reboot nodes as :func:`tovarincore.fleet.reboot` does."""
    return await _run(fleet.reboot, nodes, **named)


async def terminate(nodes: Iterable[CloudNode], **named: Any) -> fleet.ActionReport:
    """Terminate nodes as :func:`tovarincore.fleet.terminate` does."""
    return await _run(fleet.terminate, nodes, **named)


async def wait(
    nodes: Iterable[CloudNode], until: fleet.Until = "ready", timeout: float = 600.0, **named: Any
) -> fleet.WaitReport:
    """Wait for nodes as :func:`tovarincore.fleet.wait` does."""
    return await _run(fleet.wait, nodes, until, timeout, **named)


async def settle(regions: Iterable[CloudRegion], **named: Any) -> list[CloudNode]:
    """Settle launches that were cut short as :func:`tovarincore.fleet.settle` does."""
    return await _in_thread(threading.Event(), functools.partial(fleet.settle, regions, **named))


@asynccontextmanager
async def temporary_nodes(
    region: CloudRegion,
    count: int,
    instance_type: CloudInstanceTypeDef,
    config: CloudInstanceConfig,
    **named: Any,
) -> AsyncIterator[list[CloudNode]]:
    """Give nodes to the body as :func:`tovarincore.fleet.temporary_nodes` does.

    A body that is cancelled, or a launch that is, ends with the nodes' termination before the cancellation
    goes on.
    """
    cancel = named.setdefault("cancel", threading.Event())
    manager = fleet.temporary_nodes(region, count, instance_type, config, **_in_loop(named))
    entered: list[list[CloudNode]] = []
    try:
        await _in_thread(cancel, lambda: entered.append(manager.__enter__()))
        yield entered[0]
    except BaseException as error:
        if entered:
            leave = functools.partial(manager.__exit__, type(error), error, error.__traceback__)
            await _in_thread(cancel, leave)
        raise
    await _in_thread(cancel, functools.partial(manager.__exit__, None, None, None))


async def _run(function: Callable[..., T], *arguments: Any, **named: Any) -> T:
    cancel = named.setdefault("cancel", threading.Event())
    return await _in_thread(cancel, functools.partial(function, *arguments, **_in_loop(named)))


def _in_loop(named: dict[str, Any]) -> dict[str, Any]:
    """Have callbacks called in the event loop."""
    loop = asyncio.get_running_loop()
    callbacks = {name: named[name] for name in _CALLBACKS if named.get(name) is not None}
    return named | {
        name: functools.partial(loop.call_soon_threadsafe, callback) for name, callback in callbacks.items()
    }


async def _in_thread(cancel: threading.Event, function: Callable[[], T]) -> T:
    with Crew(1, "tovarin-fleet") as crew:
        call = asyncio.wrap_future(crew.submit(function))
        cancelled: asyncio.CancelledError | None = None
        while not call.done():
            try:
                await asyncio.wait([call])
            except asyncio.CancelledError as error:
                cancel.set()
                cancelled = error
        if cancelled is not None:
            # What came of it is in the ledger; that the future was looked at keeps the loop from complaining.
            call.exception()
            raise cancelled
        return call.result()
