"""How the Amazon SDK works during one run: it reads its descriptions once, and may tell of its requests."""

from __future__ import annotations

import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

import click

from tovarincore.command.context.invocation import Invocation
from tovarincore.sdk_data import service_descriptions_shared

__all__ = ["prepare_sdk", "requests_told"]

_PREPARED = "tovarincore.command.sdk"
_STARTED = "tovarincore.command.started"


def prepare_sdk() -> None:
    """Let the SDK share its descriptions for the rest of the run, and tell of requests with --verbose."""
    context = click.get_current_context(silent=True)
    if context is None or _PREPARED in context.meta:
        return
    context.meta[_PREPARED] = True
    root = context.find_root()
    root.with_resource(service_descriptions_shared())
    invocation = context.find_object(Invocation)
    if invocation is not None and invocation.verbose:
        root.with_resource(requests_told(invocation.tell))


@contextmanager
def requests_told(tell: Callable[[str], None]) -> Iterator[None]:
    """Tell of each request to Amazon, and of what signs it, while the body runs.

    :param tell: is given one line at a time
    """
    import boto3

    # Every provider operation looks this class up when it makes its session.
    replaced: Any = boto3.Session

    class TellingSession(replaced):  # type: ignore[misc]  # a variable: whichever class stands there
        """``boto3.Session`` whose clients tell what they ask for, and how long it takes."""

        def __init__(self, *arguments: Any, **named: Any) -> None:
            super().__init__(*arguments, **named)
            self.events.register("before-call.ec2", self._begin)
            self.events.register("after-call.ec2", self._end)
            self.events.register("after-call-error.ec2", self._fail)

        def _begin(self, model: Any, params: Any, context: Any, **_: Any) -> None:
            context[_STARTED] = time.monotonic()
            credentials = self.get_credentials()
            source = "nothing" if credentials is None else f"credentials of {credentials.method}"
            tell(f"{model.name}: asking {params['url']}, signed with {source}")

        def _end(self, model: Any, http_response: Any, context: Any, **_: Any) -> None:
            tell(f"{model.name}: status {http_response.status_code} after {_since(context)}")

        def _fail(self, exception: Exception, context: Any, **_: Any) -> None:
            tell(f"no answer after {_since(context)}: {type(exception).__name__}")

    setattr(boto3, "Session", TellingSession)  # noqa: B010  a class that type checkers know as final here
    try:
        yield
    finally:
        if boto3.Session is TellingSession:
            setattr(boto3, "Session", replaced)  # noqa: B010  as above


def _since(context: Any) -> str:
    return f"{time.monotonic() - context.get(_STARTED, time.monotonic()):.2f} s"
