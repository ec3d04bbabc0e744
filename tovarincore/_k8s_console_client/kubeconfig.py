"""Kubeconfig files: the cluster and the user of one context.

Every field that the format has is known here: it is honoured, or the file is refused with the reason.
https://kubernetes.io/docs/reference/config-api/kubeconfig.v1/ lists them.
"""

from collections.abc import Hashable
from pathlib import Path
from typing import Any, TypeVar

import msgspec
import yaml

from tovarincore._k8s_console_client.files import read_small_file
from tovarincore._transport.deadline import Deadline

__all__ = ["Cluster", "ExecPlugin", "UnusableKubeconfig", "User", "read_kubeconfig"]

T = TypeVar("T")


class UnusableKubeconfig(ValueError):
    """A kubeconfig cannot be used; the text says why and shows no value of it."""


class Variable(msgspec.Struct, frozen=True, forbid_unknown_fields=True):
    """An environment variable of a credential plugin."""

    name: str
    value: str


class ExecPlugin(msgspec.Struct, frozen=True, forbid_unknown_fields=True):
    """A program that prints a credential."""

    apiVersion: str
    command: str
    args: list[str] | None = None
    env: list[Variable] | None = None
    installHint: str | None = None
    interactiveMode: str | None = None
    provideClusterInfo: bool = False


class Cluster(msgspec.Struct, frozen=True, forbid_unknown_fields=True, rename="kebab"):
    """Where an API server is and how it is verified."""

    server: str
    tls_server_name: str | None = None
    insecure_skip_tls_verify: bool = False
    certificate_authority: str | None = None
    certificate_authority_data: str | None = None
    proxy_url: str | None = None
    disable_compression: bool = False
    extensions: object = None


class User(msgspec.Struct, frozen=True, forbid_unknown_fields=True, rename="kebab"):
    """Who asks, and as whom."""

    client_certificate: str | None = None
    client_certificate_data: str | None = None
    client_key: str | None = None
    client_key_data: str | None = None
    token: str | None = None
    token_file: str | None = msgspec.field(name="tokenFile", default=None)
    impersonate: str | None = msgspec.field(name="as", default=None)
    impersonate_uid: str | None = msgspec.field(name="as-uid", default=None)
    impersonate_groups: list[str] | None = msgspec.field(name="as-groups", default=None)
    impersonate_extra: dict[str, list[str]] | None = msgspec.field(name="as-user-extra", default=None)
    username: str | None = None
    password: str | None = None
    auth_provider: object = None
    exec: ExecPlugin | None = None
    extensions: object = None


class _Context(msgspec.Struct, frozen=True):
    cluster: str
    user: str | None = None


# Before threads do: the library is not safe for those that convert to a type first, at the same time.
for _kind in (Cluster, User, _Context):
    msgspec.json.Decoder(_kind)


def read_kubeconfig(path: Path, context: str, deadline: Deadline) -> tuple[Cluster, User]:
    """Return the cluster and the user of a context.

    :param context: name of the context; empty means the file's current one
    :param deadline: when reading has to be done: a file can be made to take minutes
    :raises UnusableKubeconfig: the file is of another kind, or holds something that is not supported
    :raises OSError: the file cannot be read
    :raises Failure: the time is up
    """
    content = _load(read_small_file(path), deadline)
    if not isinstance(content, dict):
        raise UnusableKubeconfig("it is no kubeconfig")
    _refuse_two_of_one_name(content)
    wanted = context or content.get("current-context")
    if not wanted:
        raise UnusableKubeconfig("it has no current context")
    chosen = _entry(content, "context", wanted, _Context)
    user = _entry(content, "user", chosen.user, User) if chosen.user else User()
    return _entry(content, "cluster", chosen.cluster, Cluster), user


def _entry(content: dict[object, object], kind: str, name: object, type_: type[T]) -> T:
    listed = content.get(f"{kind}s")
    for entry in listed if isinstance(listed, list) else []:
        if isinstance(entry, dict) and entry.get("name") == name:
            try:
                return msgspec.convert(entry.get(kind), type_)
            except msgspec.ValidationError as error:
                # Its text names the field and the types, never a value.
                raise UnusableKubeconfig(f"its {kind} cannot be used: {error}") from None
            except (UnicodeError, RecursionError) as error:
                raise UnusableKubeconfig(f"its {kind} cannot be used ({type(error).__name__})") from None
    raise UnusableKubeconfig(f"it has no {kind} {str(name)[:100]!r}")


def _refuse_two_of_one_name(content: dict[object, object]) -> None:
    """As kubectl does: others take the first or the last, so nobody can tell which is meant."""
    for kind in ("context", "user", "cluster"):
        listed = content.get(f"{kind}s")
        seen = set()
        for entry in listed if isinstance(listed, list) else []:
            name = entry.get("name") if isinstance(entry, dict) else None
            if isinstance(name, str) and name in seen:
                raise UnusableKubeconfig(f"it has two {kind}s named {name[:100]!r}; remove one")
            seen.add(name if isinstance(name, str) else None)


def _load(data: bytes, deadline: Deadline) -> object:
    # The loader in C is several times as fast and crashes on deep nesting.
    class Loader(yaml.SafeLoader):
        def compose_node(self, parent: yaml.Node | None, index: int) -> yaml.Node | None:
            deadline.remaining()
            return super().compose_node(parent, index)

        def flatten_mapping(self, node: yaml.MappingNode) -> None:
            """Leave the key ``<<`` as it is, which is then refused: merges within merges fill the memory."""

        def construct_mapping(self, node: yaml.MappingNode, deep: bool = False) -> dict[Hashable, Any]:
            """Refuse a key that comes twice: the second one would silently replace the first."""
            mapping = super().construct_mapping(node, deep=deep)
            left = set(mapping)
            for key_node, _ in node.value:
                key = self.construct_object(key_node)
                if key not in left:
                    line = key_node.start_mark.line + 1
                    raise UnusableKubeconfig(f"line {line} has the key {str(key)[:100]!r} again; remove one")
                left.remove(key)
            return mapping

    try:
        return yaml.load(data.decode("utf-8"), Loader)
    except UnusableKubeconfig:
        raise
    except (yaml.YAMLError, ValueError, RecursionError, TypeError, KeyError) as error:
        # Their texts quote the file, which holds secrets.
        raise UnusableKubeconfig(f"it is no kubeconfig ({type(error).__name__})") from None
