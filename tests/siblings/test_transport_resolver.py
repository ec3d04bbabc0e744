"""Names are resolved under a deadline by a resolver that cannot be interrupted."""

import socket
import threading
import time
from collections.abc import Iterator
from typing import Any

import pytest

from stage.patience import SETUP_SECONDS, SLACK_SECONDS, in_time
from tovarincore._transport import resolver
from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore.core_def import OPResultErrorCode

FOUND: Any = [
    (socket.AF_INET6, socket.SOCK_STREAM, 6, "", ("::1", 0, 0, 0)),
    (socket.AF_INET, socket.SOCK_STREAM, 6, "", ("127.0.0.1", 0)),
]


class NameService:
    """In place of the system's resolver: names that begin with "hang" wait until they are released."""

    def __init__(self) -> None:
        self.asked: list[str] = []
        self.released = threading.Event()

    def getaddrinfo(self, host: str, port: object, **_: object) -> Any:
        """Answer, fail or hang as the name says."""
        self.asked.append(host)
        if host.startswith("hang"):
            self.released.wait()
        if host.startswith("none"):
            raise socket.gaierror(socket.EAI_NONAME, "Name or service not known")
        return FOUND


@pytest.fixture
def names(monkeypatch: pytest.MonkeyPatch) -> Iterator[NameService]:
    """The name service of the test; every thread that it holds up has ended afterwards."""
    service = NameService()
    monkeypatch.setattr(socket, "getaddrinfo", service.getaddrinfo)
    yield service
    service.released.set()
    wait_for_threads()


def wait_for_threads() -> None:
    """Return once no look-up is under way."""
    end = time.monotonic() + SLACK_SECONDS
    while any(thread.name == "tovarin-resolver" for thread in threading.enumerate()):
        assert time.monotonic() < end
        time.sleep(0.005)


def failure_of(host: str, seconds: float = 0.05) -> Failure:
    """Return how resolving a host fails."""
    with pytest.raises(Failure) as caught:
        resolver.resolve(host, 80, Deadline(seconds))
    return caught.value


def give_up_on_hanging(names: NameService) -> None:
    """Ask for the name that hangs; on a busy machine the look-up may be given up before its thread runs."""
    while not names.asked:
        failure_of("hang", seconds=0.02)


@pytest.mark.parametrize(
    ("host", "family"),
    [
        ("127.0.0.1", socket.AF_INET),
        ("::1", socket.AF_INET6),
        ("fe80::1%lo", socket.AF_INET6),
    ],
)
def test_numeric_addresses_ask_nobody(names: NameService, host: str, family: int) -> None:
    """They are their own answer."""
    assert resolver.resolve(host, 80, Deadline(SETUP_SECONDS)) == [(family, host, 80)]
    assert names.asked == []


def test_all_addresses_of_a_name_come_in_the_order_of_the_resolver(names: NameService) -> None:
    """The system has sorted them by preference."""
    assert resolver.resolve("worker", 80, Deadline(SETUP_SECONDS)) == [
        (socket.AF_INET6, "::1", 80),
        (socket.AF_INET, "127.0.0.1", 80),
    ]


def test_an_unknown_name_fails_at_once(names: NameService) -> None:
    """The text names it."""
    failure = failure_of("none.example", seconds=5)
    assert failure.error_code is OPResultErrorCode.CONNECTION_FAILED
    assert str(failure).startswith("the name none.example does not resolve ([Errno -2]")


def test_a_name_that_cannot_be_one_fails_like_an_unknown_one() -> None:
    """The interpreter refuses it before it asks anybody, with an error that is no OSError."""
    failure = failure_of("x" * 64 + ".example", seconds=5)
    assert failure.error_code is OPResultErrorCode.CONNECTION_FAILED


def test_a_hanging_name_is_waited_for_until_the_deadline(names: NameService) -> None:
    """The thread stays behind, the caller does not."""
    with in_time(0.2, least=0.2):
        failure = failure_of("hang", seconds=0.2)
    assert failure.error_code is OPResultErrorCode.TIMEOUT
    assert "resolving hang" in str(failure)


def test_a_hanging_name_occupies_one_thread_however_often_it_is_asked_for(names: NameService) -> None:
    """Later requests join the look-up under way, and a name that answers is not held up."""
    give_up_on_hanging(names)
    for _ in range(20):
        failure_of("hang", seconds=0.01)
    assert names.asked == ["hang"]
    assert resolver.resolve("worker", 80, Deadline(SETUP_SECONDS))


def test_dozens_of_hanging_names_hold_up_no_other(names: NameService) -> None:
    """Their threads are bounded, but there is one left for a name that answers."""
    for number in range(40):
        failure_of(f"hang{number}", seconds=0.001)
    assert resolver.resolve("worker", 80, Deadline(SETUP_SECONDS))


def test_more_hanging_names_than_threads_time_out_and_the_pool_recovers(
    names: NameService, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The number of threads is bounded; look-ups given up while they waited for one are never made."""
    monkeypatch.setattr(resolver, "_MAX_THREADS", 8)
    for number in range(8):
        # On a busy machine the look-up may be given up before its thread runs.
        while len(names.asked) <= number:
            failure_of(f"hang{number}", seconds=0.02)
    assert failure_of("worker", seconds=0.1).error_code is OPResultErrorCode.TIMEOUT
    assert sum(thread.name == "tovarin-resolver" for thread in threading.enumerate()) == 8
    assert "worker" not in names.asked
    names.released.set()
    assert resolver.resolve("other", 80, Deadline(SETUP_SECONDS))
    wait_for_threads()
    assert sorted(names.asked) == [*(f"hang{number}" for number in range(8)), "other"]


def test_requests_that_wait_together_get_the_same_answer(names: NameService) -> None:
    """One look-up serves every request that asks meanwhile."""
    found: list[Any] = []
    asking = [
        threading.Thread(target=lambda: found.append(resolver.resolve("hang", 80, Deadline(SETUP_SECONDS))))
        for _ in range(4)
    ]
    for thread in asking:
        thread.start()
    while not names.asked or resolver._pool._lookups["hang"].waiters < len(asking):
        time.sleep(0.001)
    names.released.set()
    for thread in asking:
        thread.join()
    assert len(found) == 4
    assert all(addresses == found[0] for addresses in found)
    assert names.asked == ["hang"]


def test_the_threads_do_not_keep_the_process_alive(names: NameService) -> None:
    """A process may end while a resolver hangs."""
    give_up_on_hanging(names)
    (thread,) = (each for each in threading.enumerate() if each.name == "tovarin-resolver")
    assert thread.daemon


def test_no_thread_to_be_had_is_a_failure_of_the_request_alone(
    names: NameService, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Nothing is left behind that later requests would wait for."""

    def refuse(thread: threading.Thread) -> None:
        raise RuntimeError("can't start new thread")

    with monkeypatch.context() as patch:
        patch.setattr(threading.Thread, "start", refuse)
        failure = failure_of("worker")
    assert failure.error_code is OPResultErrorCode.CONNECTION_FAILED
    assert "can't start new thread" in str(failure)
    assert resolver.resolve("worker", 80, Deadline(SETUP_SECONDS))
