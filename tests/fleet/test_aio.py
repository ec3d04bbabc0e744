"""The forms for programs with an event loop."""

from __future__ import annotations

import asyncio
import itertools
import threading
from collections.abc import Callable
from typing import Any

import pytest

from stage.patience import SETUP_SECONDS
from tests.fleet.accounts import HASTY, Account
from tovarincore.fleet import FleetError, Ledger, aio


def test_a_fleets_life_in_an_event_loop(world: Account) -> None:
    """Every form does what its namesake does, and calls back in the loop."""
    told: list[tuple[object, bool]] = []

    async def live() -> None:
        loop_thread = threading.current_thread()

        def tell(outcome: object) -> None:
            told.append((outcome, threading.current_thread() is loop_thread))

        launched = await aio.launch(world.region, 3, world.size, world.config, on_outcome=tell)
        assert len(told) == 3 and all(in_loop for _, in_loop in told)
        assert (await aio.wait(launched.launched, "ready", 60)).complete
        (refreshed,) = await aio.refresh([world.region])
        assert refreshed.answered == 3
        for action in (aio.stop, aio.start, aio.reboot, aio.terminate):
            assert (await action(launched.launched)).complete
        assert await aio.settle([world.region]) == []

    asyncio.run(live())
    assert set(world.states().values()) == {"Terminated"}


async def cancel_in_the_middle(world: Account, body: Callable[[], Any]) -> None:
    """Cancel a task when EC2 has served one launch and works on the next, and let EC2 go on then."""
    client = world.cloud.ec2(world.region)
    run: Callable[..., Any] = type(client).run_instances.__wrapped__  # type: ignore[attr-defined]
    asked = itertools.count(1)
    under_way, cancelled = threading.Event(), threading.Event()

    def served(**request: Any) -> Any:
        if next(asked) > 1:
            under_way.set()
            cancelled.wait(SETUP_SECONDS)
        return run(client, **request)

    world.cloud.answers["ec2.run_instances"] = served
    task = asyncio.create_task(body())
    await asyncio.to_thread(under_way.wait, SETUP_SECONDS)
    task.cancel()
    asyncio.get_running_loop().call_later(0.05, cancelled.set)
    with pytest.raises(asyncio.CancelledError):
        await task


def test_cancelling_a_launch_notes_what_was_under_way(world: Account) -> None:
    """The cancellation goes on when every instance that exists is in the ledger."""

    async def body() -> None:
        await aio.launch(world.region, 20, world.size, world.config, at_once=2, patience=HASTY)

    asyncio.run(cancel_in_the_middle(world, body))
    ids = {entry.instance_id for entry in Ledger().entries()}
    assert ids == set(world.cloud.ec2(world.region).instances)
    assert 1 < len(ids) < 20
    assert Ledger().open_intents() == []


def temporary(world: Account, **named: Any) -> Any:
    """Two temporary nodes in the world's region."""
    return aio.temporary_nodes(world.region, 2, world.size, world.config, patience=HASTY, **named)


def test_temporary_nodes_end_when_the_body_is_cancelled(world: Account) -> None:
    """Before the cancellation goes on."""

    async def body() -> None:
        async with temporary(world) as nodes:
            assert len(nodes) == 2
            await asyncio.sleep(60)

    async def live() -> None:
        task = asyncio.create_task(body())
        while len(world.cloud.names) < 10 or "worker.refresh_system_stat" not in world.cloud.names:
            await asyncio.sleep(0.01)
        await asyncio.sleep(0.2)
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task

    asyncio.run(live())
    assert set(world.states().values()) == {"Terminated"}


def test_temporary_nodes_end_when_their_launch_is_cancelled(world: Account) -> None:
    """Those that were launched until then."""

    async def body() -> None:
        async with temporary(world, at_once=1):
            raise AssertionError("the body ran")

    asyncio.run(cancel_in_the_middle(world, body))
    assert set(world.states().values()) == {"Terminated"}


def test_the_errors_of_temporary_nodes_come_through(world: Account) -> None:
    """The body's own, and one that says that nodes are missing."""

    async def body(error: BaseException | None, **named: Any) -> None:
        async with temporary(world, **named):
            if error is not None:
                raise error

    asyncio.run(body(None))
    error = ValueError("the body's own")
    with pytest.raises(ValueError) as caught:
        asyncio.run(body(error))
    assert caught.value is error
    world.cloud.silent = {"tovarin-node-1"}
    with pytest.raises(FleetError, match="not every node is ready"):
        asyncio.run(body(None, timeout=0.05))
    assert set(world.states().values()) == {"Terminated"}
