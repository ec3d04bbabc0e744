"""The record of calls that fakes keep, and how a test lays down what a call gives."""

import functools
import inspect
from collections.abc import Callable, Iterator, Mapping, MutableMapping
from dataclasses import dataclass, field
from typing import Any, TypeVar, cast

from tovarincore._config_files.names import did_you_mean

__all__ = ["Call", "Record", "answerable", "client_error", "recorded"]

Method = TypeVar("Method", bound=Callable[..., Any])
Fake = TypeVar("Fake", bound=type[Any])

_known: set[str] = set()


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


class _Answers(MutableMapping[str, Any]):
    """Answers by the name of a call; a name that no fake has is an error at once."""

    def __init__(self, given: Mapping[str, Any]) -> None:
        self._given: dict[str, Any] = {}
        self.update(given)

    def __setitem__(self, name: str, answer: Any) -> None:
        if name not in _known:
            raise ValueError(f'no fake has a call "{name}"; {did_you_mean(name, _known)}')
        self._given[name] = answer

    def __getitem__(self, name: str) -> Any:
        return self._given[name]

    def __delitem__(self, name: str) -> None:
        del self._given[name]

    def __iter__(self) -> Iterator[str]:
        return iter(self._given)

    def __len__(self) -> int:
        return len(self._given)


@dataclass
class Record:
    """Calls that reached the fakes, and the answers laid down for them.

    :param calls: every call, in order
    :param answers: by the name of a call, what it gives in place of the fake's own answer; an exception is
        raised. A name that no fake has is refused with ``ValueError``
    """

    calls: list[Call] = field(default_factory=list)
    answers: MutableMapping[str, Any] = field(default_factory=dict)

    def __setattr__(self, name: str, value: Any) -> None:
        checked = _Answers(cast(Mapping[str, Any], value)) if name == "answers" else value
        super().__setattr__(name, checked)

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


def answerable(fake: Fake) -> Fake:
    """Let a test lay down answers for the recorded methods of a class."""
    methods = (name for name, member in vars(fake).items() if hasattr(member, "__wrapped__"))
    _known.update(f"{fake.service}.{name}" for name in methods)
    return fake


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
