"""Runs the full screen without a terminal."""

from __future__ import annotations

import asyncio
import re
import time
from collections.abc import Callable, Coroutine
from typing import Any

from textual.pilot import Pilot
from textual.widgets import Static

from stage.made_up_nodes import NOW, MadeUpLookout
from stage.patience import SETUP_SECONDS
from tovarincore.command.top.app import TopApp
from tovarincore.command.top.table import NodeTable

Scene = Callable[["TopApp", "Pilot[None]"], Coroutine[Any, Any, None]]


def play(app: TopApp, scene: Scene, columns: int = 80, lines: int = 24) -> None:
    """Show the screen, and do with it what the scene does."""

    async def run() -> None:
        async with app.run_test(size=(columns, lines)) as pilot:
            await scene(app, pilot)

    asyncio.run(run())


async def until(pilot: Pilot[None], holds: Callable[[], bool]) -> None:
    """Wait until something holds."""
    end = time.monotonic() + SETUP_SECONDS
    while not holds():
        assert time.monotonic() < end, "it does not come to hold"
        await pilot.pause(0.02)


def made_up(count: int, lost: bool = False) -> TopApp:
    """The screen with made-up nodes, at a fixed time; it looks once."""
    lookout = MadeUpLookout(count, lost)
    app = TopApp(lookout.as_lookout(), every=3600, clock=lambda: NOW)
    for _ in range(6):
        lookout.look(app.book.take)
    app.book.launched.update(lookout.launched())
    return app


def head(app: TopApp) -> str:
    """The first line."""
    return str(app.screen_stack[0].query_one("#head", Static).content)


def table(app: TopApp) -> NodeTable:
    """The table."""
    return app.screen_stack[0].query_one(NodeTable)


def column(app: TopApp, title: str) -> list[str]:
    """The texts of a column, from top to bottom."""
    return table(app).column(title)


def told(app: TopApp) -> str:
    """What is told beside the table."""
    return " ".join(notification.message for notification in app._notifications)


def text_of(app: TopApp) -> str:
    """All that is on the screen, line by line."""
    picture = app.export_screenshot()
    lines: dict[float, str] = {}
    for match in re.finditer(r'<text class="[\w-]+-r\d+"[^>]*y="([\d.]+)"[^>]*>(.*?)</text>', picture):
        lines[float(match[1])] = lines.get(float(match[1]), "") + match[2].replace("&#160;", " ")
    return "\n".join(lines[key] for key in sorted(lines))
