"""The SDK's data, read once in a process: the facade makes a client for every request, and each reads it."""

from __future__ import annotations

import functools
from collections.abc import Callable, Hashable, Iterator
from contextlib import ExitStack, contextmanager
from typing import Any
from unittest.mock import patch

from botocore import hooks
from botocore.client import ClientCreator
from botocore.loaders import JSONFileLoader, Loader
from botocore.model import ServiceModel

_SDK_MADE: dict[Hashable, Any] = {}


def _judged_once(judge: Callable[[Any], Any]) -> Callable[[Any], Any]:
    """The judgement of a hook, made once for each function: every session registers the same hundred."""
    of_function = functools.cache(judge)
    return lambda hook: of_function(getattr(hook, "__func__", hook))


def _once(method: Callable[..., Any], key: Callable[..., Hashable]) -> Callable[..., Any]:
    """The method, called once for each key of its arguments in all of this process."""

    @functools.wraps(method)
    def remembered(self: Any, *arguments: Any, **named: Any) -> Any:
        place = (method.__qualname__, key(self, *arguments, **named))
        if place not in _SDK_MADE:
            _SDK_MADE[place] = method(self, *arguments, **named)
        # A copy of what callers change.
        return dict(made) if isinstance(made := _SDK_MADE[place], dict) else made

    return remembered


def _described(service_model: ServiceModel) -> Hashable:
    """The service and how many operations of it are described: the command keeps a few of EC2's."""
    return service_model.service_name, len(service_model.operation_names)


@contextmanager
def sdk_read_once() -> Iterator[None]:
    """Let the SDK read its data and write a client's methods once while the body runs, and remember them."""
    with ExitStack() as patched:
        for owner, name, key in (
            (JSONFileLoader, "load_file", lambda loader, path: path),
            (Loader, "list_available_services", lambda loader, type_name: (*loader.search_paths, type_name)),
            (ClientCreator, "_create_methods", lambda creator, service_model: _described(service_model)),
            # Each session asks for the same hundred names, and searches a long table for each.
            (hooks.EventAliaser, "_alias_event_name", lambda aliaser, name: name),
        ):
            patched.enter_context(patch.object(owner, name, _once(getattr(owner, name), key)))
        # Looks through all operations of a service, for each client.
        discovery = vars(ServiceModel)["endpoint_discovery_operation"]
        find = _once(lambda model: discovery.__get__(model, ServiceModel), _described)
        patched.enter_context(patch.object(ServiceModel, "endpoint_discovery_operation", property(find)))
        patched.enter_context(patch.object(hooks, "accepts_kwargs", _judged_once(hooks.accepts_kwargs)))
        yield
