"""Fakes of sibling modules and of the EC2 client: all record into one log, whose entries compare whole."""

from __future__ import annotations

import logging
import sys
from collections.abc import Callable
from datetime import datetime
from typing import Any, NamedTuple

from botocore.exceptions import ClientError

from tovarincore.cloud_def import (
    AWSCloudNode,
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudRegion,
    InstanceTemplate,
    InstanceTemplatePayType,
    NodeState,
)

AWS_REGION = CloudRegion(name="eu-central-1", cloud="AWS")
SMALL = CloudInstanceTypeDef(instance_type="t3.small", cpu_count=2, memory_mib=2048)


class Call(NamedTuple):
    """One recorded call; keyword arguments are kept in the order in which they were passed."""

    name: str
    args: tuple[Any, ...]
    kwargs: tuple[tuple[str, Any], ...]


def call(name: str, /, *args: Any, **kwargs: Any) -> Call:
    """Return the record that this call leaves."""
    return Call(name, args, tuple(kwargs.items()))


class Logged(NamedTuple):
    """One log event, with the exception whose traceback its record carries."""

    level: str
    message: Any
    error: BaseException | None = None


class CallLog(list[Any]):
    """Calls and log events in the order in which they happened."""

    @property
    def names(self) -> list[str]:
        """The names of the calls, without the log events."""
        return [entry.name for entry in self if isinstance(entry, Call)]

    @property
    def events(self) -> list[Logged]:
        """The log events, without the calls."""
        return [entry for entry in self if isinstance(entry, Logged)]


def answer(with_: Any, args: tuple[Any, ...], kwargs: dict[str, Any]) -> Any:
    """Raise an exception, call a function, return anything else."""
    if isinstance(with_, BaseException):
        raise with_
    return with_(*args, **kwargs) if isinstance(with_, Callable) else with_  # type: ignore[arg-type]


class Fake:
    """Records every method called on it, and answers as told; a method it was told nothing of gives None."""

    def __init__(self, log: CallLog, name: str, **answers: Any) -> None:
        self.log = log
        self.name = name
        self.answers = answers

    def __getattr__(self, method: str) -> Callable[..., Any]:
        if method.startswith("__"):
            raise AttributeError(method)
        full_name = f"{self.name}.{method}"

        def record(*args: Any, **kwargs: Any) -> Any:
            self.log.append(call(full_name, *args, **kwargs))
            return answer(self.answers.get(method), args, kwargs)

        return record


def recording(log: CallLog, name: str, with_: Any = None) -> Callable[..., Any]:
    """Return a function that records its calls and answers as a method of a Fake does."""

    def record(*args: Any, **kwargs: Any) -> Any:
        log.append(call(name, *args, **kwargs))
        return answer(with_, args, kwargs)

    return record


class _Handler(logging.Handler):
    def __init__(self, log: CallLog) -> None:
        super().__init__()
        self.log = log

    def emit(self, record: logging.LogRecord) -> None:
        # exc_info of a record made outside a handler is (None, None, None).
        error = record.exc_info[1] if record.exc_info else None
        self.log.append(Logged(record.levelname.lower(), record.msg, error))


def recording_logger(log: CallLog) -> logging.Logger:
    """Return a logger of the standard library whose events go into the log."""
    logger = logging.Logger("recording", logging.DEBUG)
    logger.addHandler(_Handler(log))
    return logger


class FakeLock:
    """A lock that records how it is used, and that can be told what its methods answer."""

    def __init__(self, log: CallLog, acquired: Any = True, released: Any = None) -> None:
        self.log = log
        self.acquired = acquired
        self.released = released

    def acquire(self, *args: Any, **kwargs: Any) -> Any:
        self.log.append(call("acquire", *args, **kwargs))
        return answer(self.acquired, (), {})

    def release(self, *args: Any) -> Any:
        self.log.append(call("release", *args))
        return answer(self.released, (), {})


LOCKED = call("acquire", timeout=3)
RELEASED = call("release")


def is_free(lock: Any) -> bool:
    """Whether nobody holds the lock."""
    free: bool = lock.acquire(blocking=False)
    if free:
        lock.release()
    return free


class Workers:
    """Stands for the class of web-socket clients: each node's worker answers as told, by instance id."""

    def __init__(self, log: CallLog, **pings: Any) -> None:
        self.log = log
        self.pings = pings
        self.refreshed: Any = None

    def __call__(self, *args: Any, **kwargs: Any) -> Fake:
        self.log.append(call("WebSocketClient", *args, **kwargs))
        node = args[0]
        return Fake(
            self.log,
            node.instance_id,
            api_get_op_result=self.pings.get(node.instance_id),
            refresh_system_stat=(lambda: self.refreshed(node)) if self.refreshed else None,
        )


def client_error(response: dict[str, Any]) -> ClientError:
    """Return the SDK's error with exactly this response, however odd."""
    error = ClientError({"Error": {"Code": "x", "Message": "x"}}, "Operation")
    error.response = response  # type: ignore[assignment]
    return error


def refusal(code: str, message: str = "Refused") -> ClientError:
    """Return the SDK's error for a request that EC2 refused."""
    return client_error({"Error": {"Code": code, "Message": message}})


# The shapes of an error response in which the message cannot be found, and the key that is missed first.
ODD_RESPONSES: dict[str, tuple[dict[str, Any], str]] = {
    "no Error": ({}, "Error"),
    "no Message": ({"Error": {"Code": "Odd"}}, "Message"),
    "empty Error": ({"Error": {}}, "Message"),
}


def make_node(instance_id: str = "i-1", **fields: Any) -> AWSCloudNode:
    """Return a running node."""
    return AWSCloudNode(
        **{
            "region": AWS_REGION,
            "instance_id": instance_id,
            "instance_type_def": SMALL,
            "uuid": f"uuid of {instance_id}",
            "state": NodeState.RUNNING,
            **fields,
        }
    )


def make_template(**fields: Any) -> InstanceTemplate:
    """Return an image of plan A without graphics processors."""
    return InstanceTemplate(
        **{
            "instance_template_id": "ami-1",
            "name": "TOVARIN_AI_CPU_PLAN_A_1.0",
            "product_pay_type": InstanceTemplatePayType.PLAN_A,
            "created_date": datetime(2024, 3, 1),
            "region": AWS_REGION,
            "version": "1.0",
            **fields,
        }
    )


def make_config(**fields: Any) -> CloudInstanceConfig:
    """Return settings of a launch."""
    return CloudInstanceConfig(
        **{
            "disk_size": 50,
            "launch_instance_settings": {"a": [1, "é"]},
            "instance_template": make_template(),
            "key_pair_name": "key",
            "uuid": "u-1",
            "name": "node",
            "instance_profile_name": "profile",
            **fields,
        }
    )


def handled() -> BaseException | None:
    """Return the exception being handled at this moment, as a collaborator sees it."""
    return sys.exc_info()[1]
