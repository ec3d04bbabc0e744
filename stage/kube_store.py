"""What an API server keeps, and the rules by which it changes; as far as this product's requests go."""

from __future__ import annotations

import base64
import copy
import json
import re
import threading
import uuid
from datetime import datetime, timezone
from typing import Any

Manifest = dict[str, Any]
Key = tuple[str, str, str]

KIND_OF = {
    "pods": "Pod",
    "secrets": "Secret",
    "configmaps": "ConfigMap",
    "resourcequotas": "ResourceQuota",
    "namespaces": "Namespace",
}
_NAME = re.compile(r"[a-z0-9]([-a-z0-9]*[a-z0-9])?(\.[a-z0-9]([-a-z0-9]*[a-z0-9])?)*")
_LABEL_VALUE = re.compile(r"(([A-Za-z0-9][-A-Za-z0-9_.]*)?[A-Za-z0-9])?")
_SECRET_BYTES = 1048576


class Refusal(Exception):
    """An answer of the API server other than success."""

    def __init__(self, code: int, reason: str, message: str) -> None:
        super().__init__(message)
        self.code = code
        self.status = {
            "kind": "Status",
            "apiVersion": "v1",
            "metadata": {},
            "status": "Failure",
            "message": message,
            "reason": reason,
            "code": code,
        }


class KubeStore:
    """Objects by resource, namespace and name.

    There is no garbage collector, so an object that is left behind stays, and no kubelet, so a pod that was
    bound to a machine stays until it is deleted without grace.
    """

    def __init__(self) -> None:
        self.objects: dict[Key, Manifest] = {}
        self.lock = threading.RLock()
        self._version = 0
        self._snapshots: dict[str, list[Manifest]] = {}

    def create(self, plural: str, namespace: str, manifest: Manifest) -> Manifest:
        """Check and keep a new object."""
        with self.lock:
            metadata = manifest.setdefault("metadata", {})
            name = metadata.get("name", "")
            self._check(plural, namespace, name, manifest)
            self._version += 1
            now = datetime.now(timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")
            metadata.update(uid=str(uuid.uuid4()), creationTimestamp=now, resourceVersion=str(self._version))
            if plural != "namespaces":
                metadata["namespace"] = namespace
            manifest.update(apiVersion="v1", kind=KIND_OF[plural])
            if plural == "pods":
                manifest["status"] = {"phase": "Pending"}
            for key, text in manifest.pop("stringData", {}).items():
                manifest.setdefault("data", {})[key] = base64.b64encode(text.encode()).decode()
            self.objects[plural, namespace, name] = manifest
            return copy.deepcopy(manifest)

    def get(self, plural: str, namespace: str, name: str) -> Manifest:
        """Return one object."""
        with self.lock:
            return copy.deepcopy(self._find(plural, namespace, name))

    def change(self, plural: str, namespace: str, name: str, patch: Manifest, part: str | None) -> Manifest:
        """Merge a patch into an object; with a sub-resource (`part`), into that part alone."""
        with self.lock:
            found = self._find(plural, namespace, name)
            _check_uid(plural, name, found, patch.get("metadata", {}).get("uid"))
            _merge(found, {part: patch.get(part)} if part else patch)
            self._version += 1
            found["metadata"]["resourceVersion"] = str(self._version)
            return copy.deepcopy(found)

    def bind(self, namespace: str, name: str, machine: str) -> None:
        """Place a pod on a machine, as the scheduler does."""
        with self.lock:
            self._find("pods", namespace, name)["spec"]["nodeName"] = machine

    def delete(
        self, plural: str, namespace: str, name: str, grace_seconds: int | None, uid: str | None = None
    ) -> None:
        """Remove an object, or mark it when it is a pod that a machine has to end first."""
        with self.lock:
            found = self._find(plural, namespace, name)
            _check_uid(plural, name, found, uid)
            if plural == "pods" and found["spec"].get("nodeName") and grace_seconds != 0:
                grace = found["spec"].get("terminationGracePeriodSeconds", 30)
                found["metadata"].setdefault("deletionTimestamp", "2026-01-01T00:00:00Z")
                found["metadata"]["deletionGracePeriodSeconds"] = (
                    grace if grace_seconds is None else grace_seconds
                )
            else:
                del self.objects[plural, namespace, name]

    def page(
        self, plural: str, namespace: str, selector: str, limit: int, token: str | None
    ) -> tuple[list[Manifest], str | None]:
        """Return a page of a listing and the token for the next; all pages show the state at the first."""
        with self.lock:
            if token is None:
                snapshot, start = str(uuid.uuid4()), 0
                wanted = [part.split("=", 1) for part in selector.split(",") if part]
                self._snapshots[snapshot] = [
                    manifest
                    for (kind, space, _), manifest in sorted(self.objects.items())
                    if (kind, space) == (plural, namespace)
                    and all(manifest["metadata"].get("labels", {}).get(key) == value for key, value in wanted)
                ]
            else:
                snapshot, start = json.loads(base64.b64decode(token))
            if snapshot not in self._snapshots:
                raise Refusal(
                    410,
                    "Expired",
                    "The provided continue parameter is too old to display a consistent list result.",
                )
            items = self._snapshots[snapshot]
            end = start + limit if limit else len(items)
            following = None
            if end < len(items):
                following = base64.b64encode(json.dumps([snapshot, end]).encode()).decode()
            return items[start:end], following

    def expire_listings(self) -> None:
        """Forget the state that half-read listings show, as compaction does."""
        with self.lock:
            self._snapshots.clear()

    def _find(self, plural: str, namespace: str, name: str) -> Manifest:
        if (plural, namespace, name) not in self.objects:
            raise Refusal(404, "NotFound", f'{plural} "{name}" not found')
        return self.objects[plural, namespace, name]

    def _check(self, plural: str, namespace: str, name: str, manifest: Manifest) -> None:
        if plural != "namespaces" and ("namespaces", "", namespace) not in self.objects:
            raise Refusal(404, "NotFound", f'namespaces "{namespace}" not found')
        if (plural, namespace, name) in self.objects:
            raise Refusal(409, "AlreadyExists", f'{plural} "{name}" already exists')
        invalid = f'{KIND_OF[plural]} "{name}" is invalid: '
        if not _NAME.fullmatch(name):
            raise Refusal(
                422, "Invalid", f'{invalid}metadata.name: Invalid value: "{name}": a DNS-1123 subdomain'
            )
        for value in manifest["metadata"].get("labels", {}).values():
            if len(value) > 63 or not _LABEL_VALUE.fullmatch(value):
                raise Refusal(
                    422, "Invalid", f'{invalid}metadata.labels: Invalid value: "{value}": a valid label'
                )
        for container in manifest.get("spec", {}).get("containers", []):
            for value in container.get("resources", {}).get("requests", {}).values():
                if value.startswith("-"):
                    raise Refusal(422, "Invalid", f"{invalid}spec: Invalid value: {value}: at least 0")
        if sum(map(len, manifest.get("stringData", {}).values())) > _SECRET_BYTES:
            raise Refusal(422, "Invalid", f"{invalid}data: Too long: must have at most {_SECRET_BYTES} bytes")
        self._check_quota(plural, namespace, name)

    def _check_quota(self, plural: str, namespace: str, name: str) -> None:
        used = sum((kind, space) == (plural, namespace) for kind, space, _ in self.objects)
        for (kind, space, quota), manifest in self.objects.items():
            hard = manifest.get("status", {}).get("hard", {}).get(plural)
            if (kind, space) == ("resourcequotas", namespace) and hard is not None and used >= int(hard):
                raise Refusal(
                    403,
                    "Forbidden",
                    f'{plural} "{name}" is forbidden: exceeded quota: {quota}, requested: {plural}=1, '
                    f"used: {plural}={used}, limited: {plural}={hard}",
                )


def _check_uid(plural: str, name: str, found: Manifest, uid: str | None) -> None:
    """Refuse what was meant for another object of this name."""
    if uid is not None and uid != found["metadata"]["uid"]:
        raise Refusal(
            409,
            "Conflict",
            f'Operation cannot be fulfilled on {plural} "{name}": Precondition failed: UID in precondition: '
            f"{uid}, UID in object meta: {found['metadata']['uid']}",
        )


def _merge(target: Manifest, patch: Manifest) -> None:
    """Merge as RFC 7396 says."""
    for key, value in patch.items():
        if value is None:
            target.pop(key, None)
        elif isinstance(value, dict) and isinstance(target.get(key), dict):
            _merge(target[key], value)
        else:
            target[key] = value
