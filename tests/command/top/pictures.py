"""Draws the full screen for the documentation: `python -m tests.command.top.pictures`.

The tests draw the same, and compare.
"""

from __future__ import annotations

import os
import re
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from typing import Any

from textual.pilot import Pilot

from tests.command.top.screens import column, head, made_up, play, text_of, until
from tests.conftest import ROOT
from tovarincore.command.top.app import TopApp
from tovarincore.testing.fakes import patched_cloud_node

PICTURES = ROOT / "docs" / "pictures"
_MARKED = ("down", "space", "space", "space", "T")


@dataclass(frozen=True)
class Screen:
    """What is drawn.

    :param count: number of nodes
    :param columns: width of the screen
    :param keys: what is pressed before
    :param lost: a region cannot be refreshed
    """

    count: int
    columns: int
    keys: tuple[str, ...] = ()
    lost: bool = False


SCREENS = {
    "3-nodes-80-columns": Screen(3, 80),
    "3-nodes-160-columns": Screen(3, 160),
    "300-nodes-80-columns": Screen(300, 80),
    "300-nodes-160-columns": Screen(300, 160),
    "terminate-asked": Screen(300, 80, _MARKED),
    "terminate": Screen(300, 160, (*_MARKED, "y"), lost=True),
}


def drawn(name: str) -> str:
    """Draw a screen; EC2 answers no request to end nodes, so that they are in the middle of it."""
    screen = SCREENS[name]
    pictures = []
    over = threading.Event()

    def never(**_: Any) -> None:
        over.wait()
        raise TimeoutError

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: "nodes" in head(app) and "quit" in text_of(app))
        for key in screen.keys:
            await pilot.press(key)
        # Three are marked; on a busy machine their requests begin late.
        await until(pilot, lambda: "y" not in screen.keys or column(app, "STATE").count("ending") == 3)
        await pilot.pause()
        pictures.append(app.export_screenshot(title="tovarin-nodes top"))
        over.set()

    with patched_cloud_node() as cloud, _utc():
        cloud.answers["ec2.terminate_instances"] = never
        play(made_up(screen.count, screen.lost), scene, screen.columns)
    # The picture asks no host for a font: each viewer has a monospaced one.
    return re.sub(r"\s*@font-face \{.*?\}|\s*<!--.*?-->", "", pictures[0], flags=re.DOTALL)


@contextmanager
def _utc() -> Iterator[None]:
    """Let times be shown as they are in Greenwich."""
    before = os.environ.get("TZ")
    os.environ["TZ"] = "UTC"
    time.tzset()
    try:
        yield
    finally:
        if before is None:
            del os.environ["TZ"]
        else:
            os.environ["TZ"] = before
        time.tzset()


if __name__ == "__main__":
    for each in SCREENS:
        (PICTURES / f"top-{each}.svg").write_text(drawn(each), encoding="utf-8")
