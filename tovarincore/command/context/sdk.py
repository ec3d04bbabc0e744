"""How the Amazon SDK works during one run: what it reads once, tells of its requests, and says of owners."""

from __future__ import annotations

import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

import click

from tovarincore.command.context.invocation import Invocation
from tovarincore.sdk_data import service_descriptions_shared

__all__ = ["TAG_USER_NAME", "Owners", "owners_noted", "prepare_sdk", "requests_told", "tags_of"]

TAG_USER_NAME = "tovarin_username"

Owners = dict[str, "str | None"]
"""Who launched an instance, by its id, as EC2 has said in this run; ``None`` for one without the tag."""

_PREPARED = "tovarincore.command.sdk"
_STARTED = "tovarincore.command.started"
# What the SDK calls the places of credentials, in plain words; its other names speak for themselves.
_SOURCES = {
    "none": "nothing",
    "explicit": "the stored access key",
    "env": "credentials of the environment",
    "shared-credentials-file": "credentials of the SDK's credentials file",
    "config-file": "credentials of the SDK's configuration file",
}


def prepare_sdk() -> Owners:
    """Let the SDK share its descriptions for the rest of the run, and tell of requests with --verbose.

    :return: the owners of the instances that EC2 describes from now on
    """
    context = click.get_current_context(silent=True)
    if context is None:
        return {}
    if _PREPARED not in context.meta:
        from tovarincore.command.context.lean_sdk import LeanLoader

        root = context.find_root()
        root.with_resource(service_descriptions_shared(LeanLoader))
        owners: Owners = {}
        root.with_resource(owners_noted(owners))
        context.meta[_PREPARED] = owners
        invocation = context.find_object(Invocation)
        if invocation is not None and invocation.verbose:
            root.with_resource(requests_told(invocation.tell))
    noted: Owners = context.meta[_PREPARED]
    return noted


def tags_of(instance: Any) -> dict[str, str]:
    """Return the tags of an instance, image or key pair as EC2 describes it."""
    return {tag.get("Key", ""): tag.get("Value", "") for tag in instance.get("Tags", [])}


@contextmanager
def owners_noted(owners: Owners) -> Iterator[None]:
    """Note the owner of each instance that EC2 describes while the body runs.

    A node's record does not say who launched it; the answer that it is made from does.
    """

    def note(parsed: Any, **_: Any) -> None:
        for reservation in parsed.get("Reservations", []):
            for instance in reservation.get("Instances", []):
                owners[instance.get("InstanceId", "")] = tags_of(instance).get(TAG_USER_NAME)

    with _sessions(lambda session: session.events.register("after-call.ec2.DescribeInstances", note)):
        yield


@contextmanager
def requests_told(tell: Callable[[str], None]) -> Iterator[None]:
    """Tell of each request to Amazon, and of what signs it, while the body runs.

    :param tell: is given one line at a time
    """

    def listen(session: Any) -> None:
        def begin(model: Any, params: Any, context: Any, **_: Any) -> None:
            context[_STARTED] = time.monotonic()
            credentials = session.get_credentials()
            method = "none" if credentials is None else credentials.method
            source = _SOURCES.get(method, f"credentials of {method}")
            tell(f"{model.name}: asking {params['url']}, signed with {source}")

        session.events.register("before-call.ec2", begin)
        session.events.register("after-call.ec2", end)
        session.events.register("after-call-error.ec2", fail)

    def end(model: Any, http_response: Any, context: Any, **_: Any) -> None:
        tell(f"{model.name}: status {http_response.status_code} after {_since(context)}")

    def fail(exception: Exception, context: Any, **_: Any) -> None:
        tell(f"no answer after {_since(context)}: {type(exception).__name__}")

    with _sessions(listen):
        yield


@contextmanager
def _sessions(prepare: Callable[[Any], object]) -> Iterator[None]:
    """Have each session of the SDK prepared as soon as it is made, while the body runs."""
    import boto3

    # Every provider operation looks this class up when it makes its session.
    replaced: Any = boto3.Session

    class PreparedSession(replaced):  # type: ignore[misc]  # a variable: whichever class stands there
        """``boto3.Session`` that somebody listens to."""

        def __init__(self, *arguments: Any, **named: Any) -> None:
            super().__init__(*arguments, **named)
            prepare(self)

    setattr(boto3, "Session", PreparedSession)  # noqa: B010  a class that type checkers know as final here
    try:
        yield
    finally:
        if boto3.Session is PreparedSession:
            setattr(boto3, "Session", replaced)  # noqa: B010  as above


def _since(context: Any) -> str:
    return f"{time.monotonic() - context.get(_STARTED, time.monotonic()):.2f} s"
