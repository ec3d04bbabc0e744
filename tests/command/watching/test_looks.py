"""Looks at regions, as `top` and `exporter` take them."""

from __future__ import annotations

import logging
from collections.abc import Iterator

import click
import pytest

from stage.ec2 import Ec2World
from tests.command.nodes.test_ownership import listing_of_everybody
from tests.command.top.screens import column, play, table, until
from tovarincore.command.exporter.metrics import NodeMetrics
from tovarincore.command.top.app import TopApp
from tovarincore.command.watching.looks import Look, Lookout


@pytest.fixture
def run_of_the_command() -> Iterator[click.Context]:
    """What the command keeps during a run."""
    with click.Context(click.Command("tovarin-nodes")) as context:
        yield context


@pytest.mark.usefixtures("run_of_the_command")
def test_instances_of_other_users_are_no_nodes_of_a_look(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture
) -> None:
    """The tags in EC2's answer are compared with the user name, in looks as in lists."""
    looks: list[Look] = []
    metrics = NodeMetrics()
    with ec2.faults() as endpoint, caplog.at_level(logging.WARNING):
        endpoint.script("DescribeInstances", listing_of_everybody(ec2))
        lookout = Lookout([ec2.region])
        lookout.look(looks.append)
        lookout.look(metrics.take)
    assert [node.name for node in looks[0].nodes] == ["cold-0"]
    assert "2 instances of other users were listed by EC2" in caplog.text
    families = {family.name: family.samples for family in metrics.registry.collect()}
    assert sum(sample.value for sample in families["tovarin_nodes"]) == 1
    assert sum(sample.value for sample in families["tovarin_workers_silent"]) <= 1


@pytest.mark.usefixtures("run_of_the_command")
def test_the_screen_neither_shows_nor_changes_instances_of_other_users(ec2: Ec2World) -> None:
    """Only the user's own node can be chosen, and no request names another."""

    async def scene(app: TopApp, pilot: object) -> None:
        await until(pilot, lambda: table(app).row_count > 0)  # type: ignore[arg-type]
        assert column(app, "NAME") == ["cold-0"]

    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstances", listing_of_everybody(ec2))
        play(TopApp(Lookout([ec2.region]), 3600), scene)
