"""A real interrupt: caught in a refresh and in the wait of a start, propagating elsewhere."""

from __future__ import annotations

import signal
import threading
import time
from collections.abc import Iterator
from types import ModuleType
from typing import Any

import pytest

from tests.fakes import AWS_REGION, CallLog, Fake, Logged, is_free, make_node
from tests.providers.aws.conftest import AUTH
from tests.registry.conftest import provider_class
from tovarincore.core_def import OPResult

pytestmark = pytest.mark.usefixtures("interruptible")


@pytest.fixture
def interruptible() -> Iterator[None]:
    """Python's own handler of SIGINT is in place."""
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    yield
    signal.signal(signal.SIGINT, before)


def interrupt_soon() -> threading.Timer:
    """Send SIGINT to the main thread in a moment; it is to be inside of what is interrupted by now."""
    timer = threading.Timer(0.2, signal.pthread_kill, (threading.get_ident(), signal.SIGINT))
    timer.start()
    return timer


def long_work(*args: Any, **kwargs: Any) -> None:
    """Take longer than any test may, and be interrupted."""
    interrupt_soon()
    for _ in range(300):
        time.sleep(0.1)
    raise AssertionError("nobody interrupted")


def test_an_interrupt_during_a_refresh_is_caught(
    cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The ping is cut short; result and log line tell of it; the registry is as it was."""
    monkeypatch.setattr(cloud_node, "WebSocketClient", long_work)
    manager = provider_class(cloud_node)(AWS_REGION)
    manager.set_node(make_node("old"))
    manager.list_instances = lambda: ([make_node()], OPResult(success=True))
    result = manager.refresh_node_list()
    assert result.error
    assert "KeyboardInterrupt" in result.traceback_text
    assert [type(event.error) for event in log.events] == [KeyboardInterrupt]
    assert [node.instance_id for node in manager.get_node_list()] == ["old"]


def test_an_interrupt_during_the_wait_of_a_start_is_caught(cloud_node: ModuleType, log: CallLog) -> None:
    """The start has been sent; None comes back."""
    manager = cloud_node.AWSNodeManager(AWS_REGION, AUTH, "ada")
    waiter = Fake(log, "waiter", wait=long_work)
    manager._get_client = lambda: Fake(log, "ec2", get_waiter=lambda name: waiter)
    assert manager.start_node("i", True) is None
    assert isinstance(log[-1], Logged)
    assert log[-1][:2] == ("error", "AWS wait failed.")
    assert isinstance(log[-1].error, KeyboardInterrupt)


def test_an_interrupt_of_a_lock_wait_propagates(cloud_node: ModuleType, log: CallLog) -> None:
    """Long before the three seconds are over; the lock stays its holder's."""
    manager = provider_class(cloud_node)(AWS_REGION)
    lock = manager._NodeManager__node_list_lock
    lock.acquire()
    started = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        timer = interrupt_soon()
        manager.get_node_list()
    assert time.monotonic() - started < 2.9
    timer.join()
    assert lock.locked()
    lock.release()
    assert is_free(lock)


def test_an_interrupt_under_the_lock_propagates_and_frees_it(
    cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A slow copy, cut short."""
    manager = provider_class(cloud_node)(AWS_REGION)
    monkeypatch.setattr(cloud_node, "deepcopy", long_work)
    with pytest.raises(KeyboardInterrupt):
        manager.get_node_list()
    assert is_free(manager._NodeManager__node_list_lock)
