"""The full screen with 1,000 nodes: what a key press, a scroll step and a look cost the thread that draws."""

from __future__ import annotations

import asyncio
import time
from collections.abc import Awaitable, Callable

from textual.pilot import Pilot

from benchmarks.report import seconds
from stage.made_up_nodes import NOW, MadeUpLookout
from tovarincore.command.top.app import TopApp
from tovarincore.command.top.table import NodeTable

ROWS = 1000
ROUNDS = 15
COLUMNS, LINES = 160, 48

Event = Callable[[TopApp, "Pilot[None]"], Awaitable[object]]


def _keys(*names: str) -> Event:
    return lambda app, pilot: pilot.press(*names)


async def _tick(app: TopApp, pilot: Pilot[None]) -> None:
    app.draw()
    await pilot.pause()


async def _look(app: TopApp, pilot: Pilot[None]) -> None:
    app._lookout.look(app._take)
    await pilot.pause()


EVENTS: list[tuple[str, Event]] = [
    ("a key that changes nothing", _keys("f12")),
    ("one line down", _keys("down")),
    ("one page down", _keys("pagedown")),
    ("to the end and back", _keys("end", "home")),
    ("a mark", _keys("space")),
    ("a second passes", _tick),
    ("a look; all loads change", _look),
    ("another order", _keys("s")),
    ("a letter of the filter, and away with it", _keys("slash", "w", "escape")),
]


async def _measured() -> list[tuple[str, float, float]]:
    lookout = MadeUpLookout(ROWS)
    app = TopApp(lookout.as_lookout(), every=3600, clock=lambda: NOW)
    for _ in range(12):
        lookout.look(app.book.take)
    app.book.launched.update(lookout.launched())
    found = []
    async with app.run_test(size=(COLUMNS, LINES)) as pilot:
        while app.query_one(NodeTable).row_count < ROWS:
            await pilot.pause(0.05)
        # The pilot waits in steps; what counts is the time of this thread's processor.
        for name, event in EVENTS:
            cpu, clock = [], []
            for _ in range(ROUNDS):
                begin, begin_cpu = time.perf_counter(), time.thread_time()
                await event(app, pilot)
                clock.append(time.perf_counter() - begin)
                cpu.append(time.thread_time() - begin_cpu)
            found.append((name, min(cpu), sorted(cpu)[ROUNDS // 2]))
    return found


def table() -> str:
    """CPU time of each event as a Markdown table."""
    lines = ["| event | CPU, least | CPU, median |", "|---|---:|---:|"]
    for name, least, median in asyncio.run(_measured()):
        lines.append(f"| {name} | {seconds(least)} | {seconds(median)} |")
    return "\n".join(lines)
