"""Sharing the Amazon SDK's service descriptions between the sessions of a process.

Every provider operation makes its own session and EC2 client, and every fresh session reads and
parses the SDK's description of EC2 again, which is most of the time that making the client takes. The
descriptions are files of the SDK's installation; they hold nothing of any account.
"""

import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

__all__ = [
    "service_descriptions_shared",
    "share_service_descriptions",
    "stop_sharing_service_descriptions",
]

_lock = threading.Lock()
_replaced: type[Any] | None = None  # what boto3.Session was before, while sharing is on
_replacement: type[Any] | None = None
_wanted = False  # by the program, until it says otherwise
_bodies = 0  # that are running under service_descriptions_shared()


def share_service_descriptions() -> None:
    """Let all sessions that are made from now on share one copy of the SDK's service descriptions.

    Off until a program calls it. It puts a subclass in the place of ``boto3.Session``, which every provider
    operation looks up when it makes its session; the subclass differs in one thing, the component
    ``data_loader`` of a session that has none. Sessions, clients and credentials stay as
    fresh as before: profiles, environment and configuration files are read by each session. A session that
    is given a ``botocore_session`` is left as it is.

    Calling it again changes nothing. A description is read from its file at its first use; when the SDK's
    installation or the files in its ``data_path`` change, call :func:`stop_sharing_service_descriptions` and
    this function again, or restart the process.

    :raises ImportError: the SDK is not installed
    """
    global _wanted
    with _lock:
        _begin()
        _wanted = True


def stop_sharing_service_descriptions() -> None:
    """Put back what :func:`share_service_descriptions` replaced; without a call of it, do nothing.

    Sessions that exist keep what they have. If somebody else has replaced ``boto3.Session`` meanwhile, that
    one stays. Bodies of :func:`service_descriptions_shared` that are running go on sharing until they end.
    """
    global _wanted
    with _lock:
        _wanted = False
        _end_unless_needed()


@contextmanager
def service_descriptions_shared(loader: Callable[..., Any] | None = None) -> Iterator[None]:
    """Share descriptions while the body runs, among all threads; bodies may overlap.

    :param loader: makes what reads them, as ``botocore.loaders.Loader`` does; it has no effect while they are
        shared already
    :raises ImportError: the SDK is not installed
    """
    global _bodies
    with _lock:
        _begin(loader)
        _bodies += 1
    try:
        yield
    finally:
        with _lock:
            _bodies -= 1
            _end_unless_needed()


def _begin(loader: Callable[..., Any] | None = None) -> None:
    import boto3

    global _replaced, _replacement
    if _replaced is None:
        _replaced = boto3.Session
        _replacement = _sharing_session(_replaced, loader)
        setattr(boto3, "Session", _replacement)  # noqa: B010  a class that type checkers know as final here


def _end_unless_needed() -> None:
    global _replaced, _replacement
    if _wanted or _bodies or _replaced is None:
        return
    import boto3

    if boto3.Session is _replacement:
        setattr(boto3, "Session", _replaced)  # noqa: B010  as above
    _replaced = _replacement = None


class _SearchPaths(list[str]):
    """Folders to look into; every boto3 session appends its own one, which a shared list needs once."""

    def append(self, folder: str) -> None:
        if folder not in self:
            super().append(folder)


def _sharing_session(base: type[Any], make_loader: Callable[..., Any] | None) -> type[Any]:
    import botocore.loaders
    import botocore.session

    make_loader = make_loader or botocore.loaders.Loader

    loaders: dict[str | None, botocore.loaders.Loader] = {}

    def shared_loader(path: str | None) -> botocore.loaders.Loader:
        # Sessions with another data_path look elsewhere, and share among themselves.
        with _lock:
            if path not in loaders:
                paths = _SearchPaths(botocore.loaders.create_loader(path).search_paths)
                loaders[path] = make_loader(paths, include_default_search_paths=False)
            return loaders[path]

    class SharingSession(base):  # type: ignore[misc]  # a variable: whichever class stands there
        """``boto3.Session`` with service descriptions that all such sessions share."""

        def __init__(self, *arguments: Any, **named: Any) -> None:
            # A botocore session may also come by position, as the fifth argument.
            if len(arguments) < 5 and named.get("botocore_session") is None:
                session = botocore.session.get_session()
                if named.get("profile_name") is not None:
                    session.set_config_variable("profile", named["profile_name"])
                loader = shared_loader(session.get_config_variable("data_path"))
                session.register_component("data_loader", loader)
                named["botocore_session"] = session
            super().__init__(*arguments, **named)

    return SharingSession
