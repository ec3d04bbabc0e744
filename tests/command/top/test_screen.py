"""The full screen by its keys, on made-up nodes and on a region of fakes."""

from __future__ import annotations

import threading
import time

import pytest
from textual.pilot import Pilot

from stage.ec2 import Ec2World
from stage.fault import unauthorized
from stage.made_up_nodes import MadeUpLookout
from tests.command.top.pictures import SCREENS, drawn
from tests.command.top.screens import column, head, made_up, play, table, text_of, told, until
from tests.conftest import ROOT
from tovarincore.cloud_def import NodeState
from tovarincore.command.top import table as nodetable
from tovarincore.command.top.app import TopApp
from tovarincore.command.top.dialogs import Question, Sheet
from tovarincore.command.top.table import NodeTable
from tovarincore.command.watching.looks import Lookout
from tovarincore.testing.fakes import patched_cloud_node

PICTURES = ROOT / "docs" / "pictures"


def on(ec2: Ec2World, count: int) -> TopApp:
    """The screen of a region with so many nodes whose workers answer."""
    for number in range(1, count + 1):
        ec2.run_instance(f"ready-{number}")
    return TopApp(Lookout([ec2.region]), 0.1)


def states(ec2: Ec2World) -> dict[str, str]:
    """The states of all instances by name."""
    return {node.name: node.state.value for node in ec2.listed()}


@pytest.mark.parametrize("name", list(SCREENS))
def test_the_screen_is_as_in_the_documentation(name: str) -> None:
    """What it draws is, to the letter, the picture that was looked at; `make recordings` draws it."""
    picture = (PICTURES / f"top-{name}.svg").read_text(encoding="utf-8")
    assert drawn(name) == picture


def test_words_choose_nodes_and_escape_drops_them() -> None:
    """All words have to stand in a row, wherever; the table has the keys again afterwards."""

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: table(app).row_count == 300)
        await pilot.press("slash", *"web us-east running")
        await until(pilot, lambda: 0 < table(app).row_count < 40)
        assert {name[:3] for name in column(app, "NAME")} == {"web"}
        assert set(column(app, "REGION")) == {"us-e-1"}
        await pilot.press("enter", "s")
        assert "/web us-east running" in head(app)
        await pilot.press("escape")
        await until(pilot, lambda: table(app).row_count == 300)

    play(made_up(300), scene)


def test_the_busiest_can_stand_first() -> None:
    """One key goes through the columns; nodes without a load stand last."""

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: table(app).row_count == 3)
        for _ in range(4):
            await pilot.press("s")
        assert "by load" in head(app)
        loads = [text[-4:].strip() for text in column(app, "LOAD")]
        assert loads[2] == "" and int(loads[0][:-1]) > int(loads[1][:-1])

    play(made_up(3), scene)


def test_enter_shows_all_that_is_known_of_a_node() -> None:
    """In a window that a key closes."""

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: table(app).row_count == 3)
        await pilot.press("down", "enter")
        assert isinstance(app.screen, Sheet)
        assert "trainer-01" in text_of(app) and "no answer within 2 s" in text_of(app)
        await pilot.press("escape")
        assert not isinstance(app.screen, Sheet)

    play(made_up(3), scene)


def test_a_node_is_ended_after_a_question(ec2: Ec2World) -> None:
    """No changes nothing; yes ends the node, which says so until the listing does."""

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: "3 ready" in head(app))
        await pilot.press("down", "T")
        assert isinstance(app.screen, Question)
        assert "ready-2" in text_of(app) and "Terminate this node, disks included?" in text_of(app)
        await pilot.press("n")
        assert set(states(ec2).values()) == {"Running"}
        await pilot.press("T", "y")
        await until(pilot, lambda: table(app).row_count == 2)
        assert states(ec2) == {"ready-1": "Running", "ready-2": "Terminated", "ready-3": "Running"}
        await pilot.press("g")
        await until(pilot, lambda: table(app).row_count == 3)

    play(on(ec2, 3), scene)


def test_marked_nodes_are_changed_together(ec2: Ec2World) -> None:
    """The space bar marks; the question counts them; the one under the cursor is left out."""

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: "3 ready" in head(app))
        for key, state in (("X", "Stopped"), ("S", "Running")):
            await pilot.press("home", "space", "space", key)
            assert "these 2 nodes?" in text_of(app)
            await pilot.press("y")
            await until(pilot, lambda: column(app, "STATE") == [state, state, "Running"])  # noqa: B023
            assert "marked" not in head(app)

    play(on(ec2, 3), scene)


def test_a_lost_region_is_told_and_its_nodes_stay(ec2: Ec2World) -> None:
    """The screen goes on, and is as before when the region is back."""

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: "2 ready" in head(app))
        ec2.send_requests_to("http://127.0.0.1:9")
        await until(pilot, lambda: "Could not connect" in text_of(app))
        assert table(app).row_count == 2
        ec2.send_requests_to(ec2.endpoint.url)
        await until(pilot, lambda: "Could not connect" not in text_of(app))

    play(on(ec2, 2), scene)


def test_a_change_that_is_refused_is_told(ec2: Ec2World) -> None:
    """The node is as it was."""

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: "1 ready" in head(app))
        await pilot.press("X", "y")
        await until(pilot, lambda: "not authorized" in told(app))
        await until(pilot, lambda: column(app, "STATE") == ["Running"])

    with ec2.faults() as endpoint:
        endpoint.script("StopInstances", unauthorized())
        play(on(ec2, 1), scene)


def test_keys_are_heard_while_a_look_takes_long() -> None:
    """A look that waits for a provider holds nothing up, and does not keep the screen from its end."""

    class Slow(MadeUpLookout):
        """Gives its nodes, then waits."""

        def look(self, on_look, cancel=None):  # type: ignore[no-untyped-def]
            """Look once."""
            super().look(on_look, cancel)
            assert isinstance(cancel, threading.Event)
            cancel.wait(60)

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: table(app).row_count == 3)
        await pilot.press("s", "down")
        assert "by region" in head(app) and table(app).cursor_row == 1

    begin = time.monotonic()
    play(TopApp(Slow(3).as_lookout(), 3600), scene)
    assert time.monotonic() - begin < 50


def test_a_thousand_nodes_cost_no_more_than_those_on_the_screen(monkeypatch: pytest.MonkeyPatch) -> None:
    """A look, a scroll step and another order work out the lines that are seen, and no others."""
    app, lines, worked_out = made_up(1000), 24, []
    cells = nodetable._cells
    monkeypatch.setattr(nodetable, "_cells", lambda *given: worked_out.append(given[0].key) or cells(*given))  # type: ignore[func-returns-value]

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: table(app).row_count == 1000)
        await pilot.press("end")
        assert table(app).cursor_row == 999
        await until(pilot, lambda: column(app, "NAME")[-1] in text_of(app))
        for number, event in enumerate(("look", "pageup", "s", "home")):
            worked_out.clear()
            if event == "look":
                MadeUpLookout.look(app._lookout, app.book.take)  # type: ignore[arg-type]
                app.draw()
                await pilot.pause()
            else:
                await pilot.press(event)
            await until(pilot, lambda: len(worked_out) > 0)
            assert len(set(worked_out)) <= lines, (number, event)

    play(app, scene, lines=lines)


def test_the_cursor_stays_on_its_node() -> None:
    """Whatever the order is, and when other nodes go; where its own node goes, on the line."""
    app = made_up(300)

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: table(app).row_count == 300)
        await pilot.press(*["down"] * 7)
        where = table(app).current
        await pilot.press("s", "s")
        assert table(app).current == where and table(app).cursor_row != 7
        await pilot.press("slash", *"running", "enter")
        assert table(app).current == where
        line = table(app).cursor_row
        assert where is not None
        await pilot.press("slash", *f" {column(app, 'NAME')[line + 1]}", "enter", "escape")
        assert table(app).current != where

    play(app, scene)


def test_the_mouse_chooses_a_line_and_opens_its_node() -> None:
    """A click puts the cursor there, a click at the cursor shows the details; titles are no line."""

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: table(app).row_count == 3)
        await pilot.click(NodeTable, offset=(5, 3))
        assert table(app).cursor_row == 2
        await pilot.click(NodeTable, offset=(5, 0))
        await pilot.click(NodeTable, offset=(5, 9))
        assert table(app).cursor_row == 2 and not isinstance(app.screen, Sheet)
        await pilot.click(NodeTable, offset=(5, 3))
        await until(pilot, lambda: isinstance(app.screen, Sheet))
        assert column(app, "NAME")[2] in text_of(app)

    play(made_up(3), scene)


def test_nothing_is_told_by_colour_alone(monkeypatch: pytest.MonkeyPatch) -> None:
    """With NO_COLOR states and reasons stand there as words, and bars have their numbers."""
    monkeypatch.setenv("NO_COLOR", "1")
    app = made_up(3)
    assert app.no_color

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: table(app).row_count == 3)
        assert column(app, "STATE") == ["Running"] * 3
        assert column(app, "WORKER")[1].startswith("no answer")
        assert column(app, "LOAD")[0].endswith("%")

    play(app, scene)


def test_a_state_that_changed_ends_what_was_being_done() -> None:
    """Until then the row says it."""
    app = made_up(3)
    (row, *_) = app.book.rows()
    app.book.doing[row.key] = "stopping"
    assert app.book.rows()[0].doing == "stopping"
    row.node.state = NodeState.STOPPED
    MadeUpLookout.look(app._lookout, app.book.take)  # type: ignore[arg-type]
    assert app.book.rows()[0].doing == ""


def test_who_quits_in_the_middle_is_told_what_was_left_out() -> None:
    """Requests under way end; the others are not made, and their nodes are named."""

    def slow(**_: object) -> None:
        time.sleep(1)
        raise TimeoutError

    async def scene(app: TopApp, pilot: Pilot[None]) -> None:
        await until(pilot, lambda: table(app).row_count == 300)
        await pilot.press(*["space"] * 40, "T", "y")
        await until(pilot, lambda: column(app, "STATE").count("ending") == 40)
        await pilot.press("q")

    app = made_up(300)
    with patched_cloud_node() as cloud:
        cloud.answers["ec2.terminate_instances"] = slow
        play(app, scene)
        asked = cloud.names.count("ec2.terminate_instances")
    assert 0 < asked < 40
    assert len(app.left_out) == 40
