"""The record of calls that fakes keep, and how a test lays down what a call gives."""

import functools
import inspect
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any, TypeVar, cast

__all__ = ["Call", "Record", "client_error", "recorded"]

Method = TypeVar("Method", bound=Callable[..., Any])


@dataclass(frozen=True)
class Call:
    """One recorded call.

    :param name: service and operation, for example ``"ec2.run_instances"``
    :param args: positional arguments
    :param kwargs: keyword arguments
    """

    name: str
    args: tuple[Any, ...]
    kwargs: dict[str, Any]


@dataclass
class Record:
    """Calls that reached the fakes, and the answers laid down for them.

    :param calls: every call, in order
    :param answers: by the name of a call, what it gives in place of the fake's own answer; an exception is
        raised
    """

    calls: list[Call] = field(default_factory=list)
    answers: dict[str, Any] = field(default_factory=dict)

    @property
    def names(self) -> list[str]:
        """The names of the calls, in order."""
        return [call.name for call in self.calls]


def client_error(code: str, message: str, operation: str = "RunInstances") -> Exception:
    """Return the error with which the SDK reports that EC2 refused a request.

    :param code: EC2's error code, for example ``"InsufficientInstanceCapacity"``
    :param message: EC2's words
    :param operation: name of the request
    """
    from botocore.exceptions import ClientError

    return ClientError({"Error": {"Code": code, "Message": message}}, operation)


def recorded(method: Method) -> Method:
    """Let calls of a method be recorded, and answered by what the test laid down for them."""

    @functools.wraps(method)
    def call(self: Any, *args: Any, **kwargs: Any) -> Any:
        name = f"{self.service}.{method.__name__}"
        record: Record = self.cloud
        record.calls.append(Call(name, args, kwargs))
        if name not in record.answers:
            return method(self, *args, **kwargs)
        answer = record.answers[name]
        if isinstance(answer, BaseException):
            raise answer
        return answer(*args, **kwargs) if inspect.isroutine(answer) else answer

    return cast(Method, call)
