"""Waiting for a worker."""

from __future__ import annotations

import signal
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path
from types import SimpleNamespace

import pytest

from stage.certificates import make_server_certificate
from stage.ec2 import Ec2World
from stage.fault import SERVED, throttled
from stage.ports import free_port
from tests.command.conftest import Run, finish, send_to_worker, start_command
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes import readiness
from tovarincore.command.nodes.backoff import Backoff
from tovarincore.command.nodes.inventory import list_nodes
from tovarincore.testing.reference_worker import ReferenceWorker

WAIT = ("wait", "us-east-1", "late-1")


@pytest.fixture
def meanwhile(monkeypatch: pytest.MonkeyPatch) -> Callable[..., None]:
    """Lets things happen while the command sleeps, one after the other, in place of time going by."""

    def set_up(*steps: Callable[[], object]) -> None:
        left: Iterator[Callable[[], object]] = iter(steps)
        clock = SimpleNamespace(sleep=lambda seconds: next(left)(), monotonic=time.monotonic)
        monkeypatch.setattr(readiness, "time", clock)

    return set_up


def test_waiting_ends_when_the_worker_answers(
    run: Run, ec2: Ec2World, meanwhile: Callable[..., None]
) -> None:
    """First the port is closed, which is told once; then the worker comes up."""
    ec2.run_instance("late-1")
    port = free_port()
    send_to_worker("late-1", port)
    with ExitStack() as cleanup:
        worker = ReferenceWorker(port=port)
        meanwhile(lambda: None, lambda: cleanup.enter_context(worker))
        result = run(*WAIT)
    assert (result.exit_code, result.stdout) == (0, "late-1 is ready\n")
    (line,) = result.stderr.splitlines()
    assert "port closed or unreachable" in line


def test_a_lost_answer_does_not_end_the_wait(run: Run, ec2: Ec2World, meanwhile: Callable[..., None]) -> None:
    """Once the node was seen, an unreachable EC2 is a reason to go on waiting."""
    ec2.run_instance("late-1")
    port, url = free_port(), ec2.endpoint.url
    send_to_worker("late-1", port)
    with ExitStack() as cleanup:
        worker = ReferenceWorker(port=port)

        def come_back() -> None:
            ec2.send_requests_to(url)
            cleanup.enter_context(worker)

        meanwhile(lambda: ec2.send_requests_to(f"http://127.0.0.1:{free_port()}"), come_back)
        result = run(*WAIT)
    assert result.exit_code == 0, result.output
    assert "EC2 cannot be reached" in result.stderr


def test_a_node_that_ends_meanwhile_is_given_up(
    run: Run, ec2: Ec2World, meanwhile: Callable[..., None]
) -> None:
    """A terminated node will never be ready, a stopped one not by itself."""
    instance_id = ec2.run_instance("cold-1")
    meanwhile(lambda: ec2.raw.stop_instances(InstanceIds=[instance_id]))
    stopped = run("wait", "us-east-1", "cold-1")
    assert stopped.exit_code == 1
    assert f"start it: tovarin-nodes start us-east-1 {instance_id}" in stopped.stderr
    ec2.raw.terminate_instances(InstanceIds=[instance_id])
    terminated = run("wait", "us-east-1", "cold-1")
    assert terminated.exit_code == 1
    assert "cold-1 is terminated and will never be ready" in terminated.stderr


def test_a_new_node_may_not_be_listed_yet(
    run: Run, ec2: Ec2World, meanwhile: Callable[..., None], monkeypatch: pytest.MonkeyPatch
) -> None:
    """After a launch a listing that lacks the node is no reason to give up."""
    monkeypatch.setattr(readiness, "list_nodes", lambda access: [])
    meanwhile(lambda: monkeypatch.setattr(readiness, "list_nodes", list_nodes))
    result = run("launch", "us-east-1", "--type", "t3.small", "--name", "ready-1", "--wait")
    assert result.exit_code == 0, result.output
    assert "it is not listed yet" in result.stderr


@pytest.mark.parametrize("why", ["closed port", "token", "certificate", "no worker"])
def test_the_time_out_says_why_the_worker_was_not_ready(
    run: Run, ec2: Ec2World, tmp_path: Path, why: str
) -> None:
    """Closed port, token, certificate and a stranger at the port are told apart."""
    ec2.run_instance("late-1")
    with ExitStack() as cleanup:
        if why == "token":
            port = cleanup.enter_context(ReferenceWorker(token="right")).port
        elif why == "certificate":
            context = make_server_certificate(tmp_path).server_context()
            port = cleanup.enter_context(ReferenceWorker(ssl_context=context)).port
            ec2.set_setting("WORKER__SCHEME", "wss")
        elif why == "no worker":
            port = int(ec2.endpoint.url.rpartition(":")[2])
        else:
            port = free_port()
        send_to_worker("late-1", port)
        result = run(*WAIT, "--timeout", "0")
    words = {
        "closed port": "port closed or unreachable: ",
        "token": "token refused: ",
        "certificate": "certificate not accepted: ",
        "no worker": "not a worker: ",
    }
    assert result.exit_code == 7
    assert f"error: late-1 was not ready within 0 seconds: {words[why]}" in result.stderr


def test_ctrl_c_ends_the_wait_with_one_line(ec2: Ec2World) -> None:
    """The process says that the node goes on by itself and ends with 130."""
    ec2.run_instance("cold-1")
    process = start_command("wait", "us-east-1", "cold-1")
    assert process.stderr is not None
    assert "port closed" in process.stderr.readline()
    process.send_signal(signal.SIGINT)
    code, stdout, stderr = finish(process)
    assert (code, stdout) == (130, "")
    (line,) = stderr.splitlines()
    assert line == "error: interrupted: stopped waiting for cold-1; the node itself goes on"


def test_a_busy_ec2_is_left_alone_for_longer_and_longer(
    run: Run, ec2: Ec2World, healthy_worker: ReferenceWorker, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Throttling is no reason to give up, even at first; each pause is longer than the last."""
    ec2.run_instance("ready-1")
    pauses: list[float] = []
    clock = SimpleNamespace(sleep=pauses.append, monotonic=time.monotonic)
    monkeypatch.setattr(readiness, "time", clock)
    with ec2.faults() as endpoint:
        # Each time the SDK asks once more by itself.
        endpoint.script("DescribeInstances", *[throttled()] * 6, SERVED)
        result = run("wait", "us-east-1", "ready-1")
    assert (result.exit_code, result.stdout) == (0, "ready-1 is ready\n")
    assert pauses == [6.0, 12.0, 24.0]
    assert "Request limit exceeded" in result.stderr


def test_what_the_service_asks_for_counts_more() -> None:
    """Retry-After is honoured, longer than any pause of our own; an answer makes pauses short again."""
    backoff = Backoff(3.0)
    busy = CommandFailure("busy", code=ExitCode.BUSY, wait_seconds=90.0)
    assert backoff.pause_after(busy) == 90.0
    for _ in range(9):
        last = backoff.pause_after(CommandFailure("busy", code=ExitCode.BUSY))
    assert last == 60.0
    backoff.answered()
    assert backoff.pause_after(CommandFailure("lost", code=ExitCode.UNREACHABLE)) == 3.0
