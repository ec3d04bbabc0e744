"""The requests of the Kubernetes interface that nodes need, in one namespace."""

from collections.abc import Iterator
from typing import Annotated, TypeVar

import msgspec
from lightkube.resources.core_v1 import ConfigMap, Pod, Secret

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.failures import refusal_of, unreadable
from tovarincore._k8s_console_client.names import is_object_name
from tovarincore._k8s_console_client.transport import Answer, Connection
from tovarincore.core_def import OPResultErrorCode

__all__ = ["NamespaceApi"]

T = TypeVar("T", Pod, Secret, ConfigMap)

_PLURAL_OF: dict[type[Pod | Secret | ConfigMap], str] = {
    Pod: "pods",
    Secret: "secrets",
    ConfigMap: "configmaps",
}
_MANAGER = {"fieldManager": "tovarincore"}
# Decoders are made here, under the lock of the import: threads that are the first to decode one type, at the
# same time, crash the library.
_DECODERS = {kind: msgspec.json.Decoder(kind) for kind in _PLURAL_OF}
_UNUSABLE = (msgspec.MsgspecError, UnicodeDecodeError, RecursionError)


class _ListMetadata(msgspec.Struct):
    # It is sent back in the next request's path.
    continue_: Annotated[str, msgspec.Meta(max_length=65536)] | None = msgspec.field(
        name="continue", default=None
    )


class _Page(msgspec.Struct):
    items: list[msgspec.Raw] | None
    metadata: _ListMetadata | None = None


_PAGE = msgspec.json.Decoder(_Page)


class NamespaceApi:
    """The objects of one namespace.

    Every method raises :class:`KubernetesError` when the API server refuses or its answer cannot be used.

    :param connection: to the API server; its owner closes it
    :param namespace: a name that has been checked
    """

    def __init__(self, connection: Connection, namespace: str) -> None:
        self._connection = connection
        self._path = f"/api/v1/namespaces/{namespace}"

    def create(self, manifest: T) -> T:
        """Create an object and return it as the API server keeps it."""
        manifest.apiVersion, manifest.kind = "v1", type(manifest).__name__
        answer = self._send("POST", type(manifest), None, query=_MANAGER, body=msgspec.json.encode(manifest))
        return _decoded(answer, type(manifest))

    def get(self, kind: type[T], name: str) -> T:
        """Return one object."""
        return _decoded(self._send("GET", kind, name), kind)

    def pages(self, kind: type[T], labels: dict[str, str], page_size: int) -> Iterator[list[msgspec.Raw]]:
        """Yield the objects with certain labels page by page, each as its JSON text."""
        query = {"limit": str(page_size), "labelSelector": ",".join(f"{k}={v}" for k, v in labels.items())}
        while True:
            answer = self._send("GET", kind, None, query=query)
            try:
                page = _PAGE.decode(answer.body)
            except _UNUSABLE as error:
                raise unreadable(error) from None
            yield page.items or []
            following = page.metadata.continue_ if page.metadata else None
            if not following:
                return
            query["continue"] = following

    def merge(self, kind: type[T], name: str, patch: dict[str, object]) -> None:
        """Merge some fields into an object."""
        body = msgspec.json.encode(patch)
        self._send(
            "PATCH", kind, name, query=_MANAGER, body=body, content_type="application/merge-patch+json"
        )

    def delete(
        self, kind: type[T], name: str, *, uid: str | None = None, grace_seconds: int | None = None
    ) -> None:
        """Have an object deleted.

        :param uid: delete only the object with this id, never another one of the same name (409)
        :param grace_seconds: time for a pod to end; ``None`` leaves it as the pod has it
        """
        options: dict[str, object] = {"apiVersion": "v1", "kind": "DeleteOptions"}
        if uid is not None:
            options["preconditions"] = {"uid": uid}
        if grace_seconds is not None:
            options["gracePeriodSeconds"] = grace_seconds
        self._send("DELETE", kind, name, body=msgspec.json.encode(options))

    def _send(
        self,
        method: str,
        kind: type[Pod | Secret | ConfigMap],
        name: str | None,
        *,
        query: dict[str, str] | None = None,
        body: bytes | None = None,
        content_type: str = "application/json",
    ) -> Answer:
        path = f"{self._path}/{_PLURAL_OF[kind]}"
        if name is not None:
            if not is_object_name(name):
                # An empty one would mean all objects, one with a slash or a question mark others.
                raise KubernetesError(
                    f"{name!r} cannot be the name of an object", OPResultErrorCode.NOT_FOUND
                )
            path += f"/{name}"
        answer = self._connection.send(method, path, query, body, content_type)
        if not 200 <= answer.status < 300:
            raise refusal_of(answer.status, answer.body)
        return answer


def _decoded(answer: Answer, kind: type[T]) -> T:
    try:
        decoded = _DECODERS[kind].decode(answer.body)
    except _UNUSABLE as error:
        raise unreadable(error) from None
    assert isinstance(decoded, kind)
    return decoded
