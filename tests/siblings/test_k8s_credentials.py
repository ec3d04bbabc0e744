"""Where a region's cluster is and who asks."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

import pytest
import yaml

from stage.certificates import make_server_certificate
from stage.kube_api import MANAGER_TOKEN, Fault, KubeApi
from stage.kube_store import Refusal
from stage.kube_world import KubeWorld
from tovarincore._k8s_console_client import credentials
from tovarincore.cloud_def import K8sRegion
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.k8s_console_client import K8sConsoleClient

UNAUTHORIZED = Refusal(401, "Unauthorized", "Unauthorized")


def write_user(kube: KubeWorld, user: dict[str, Any]) -> None:
    """Give the region's kubeconfig this user."""
    config = kube.config_of(MANAGER_TOKEN)
    config["users"][0]["user"] = user
    kube.kubeconfig.write_text(yaml.safe_dump(config), encoding="utf-8")


def listing(kube: KubeWorld, region: K8sRegion | None = None) -> OPResult:
    """List nodes, of the world's region unless another is given, and return the result."""
    nodes, result = K8sConsoleClient(region or kube.region).get_cloud_nodes()
    assert (nodes is None) == result.error
    return result


@pytest.mark.parametrize(
    ("content", "complaint"),
    [
        (None, "not found"),
        ("token: [s3cret", "it is no kubeconfig"),
        ("s3cret", "it is no kubeconfig"),
        ("", "it is no kubeconfig"),
        ("{clusters: [], contexts: []}", "it has no current context"),
        ("{current-context: a, clusters: [], contexts: []}", "it has no context 'a'"),
    ],
)
def test_an_unusable_kubeconfig_is_told(kube: KubeWorld, content: str | None, complaint: str) -> None:
    """Every operation says which region's kubeconfig cannot be used and why, and quotes nothing of it."""
    kube.kubeconfig.unlink()
    if content is not None:
        kube.kubeconfig.write_text(content, encoding="utf-8")
    result = listing(kube)
    assert result.error_code is OPResultErrorCode.UNAUTHENTICATED
    assert f"The kubeconfig of region {kube.region.name} cannot be used" in (result.msg or "")
    assert complaint in (result.msg or "")
    assert "s3cret" not in repr(result)


def test_the_regions_context_is_chosen(kube: KubeWorld) -> None:
    """A region may name another context than the current one; one that is not there is an error."""
    config = kube.config_of(MANAGER_TOKEN)
    config["current-context"] = "elsewhere"
    kube.kubeconfig.write_text(yaml.safe_dump(config), encoding="utf-8")
    fields: dict[str, Any] = {"name": "r", "namespace": kube.namespace, "kubeconfig": str(kube.kubeconfig)}
    assert listing(kube, K8sRegion(**fields, context="here")).success
    assert "it has no context 'elsewhere'" in (listing(kube, K8sRegion(**fields)).msg or "")


def test_the_usual_places_are_looked_at(
    kube: KubeWorld, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    """Without a path a region uses the first existing file of KUBECONFIG, else that of the home."""
    region = K8sRegion(name="r", namespace=kube.namespace)
    monkeypatch.setenv("HOME", str(tmp_path))
    monkeypatch.setenv("KUBECONFIG", os.pathsep.join([str(tmp_path / "none"), str(kube.kubeconfig)]))
    assert listing(kube, region).success
    monkeypatch.delenv("KUBECONFIG")
    assert str(Path("~/.kube/config")) in (listing(kube, region).msg or "").replace(str(tmp_path), "~")
    (tmp_path / ".kube").mkdir()
    kube.kubeconfig.rename(tmp_path / ".kube" / "config")
    assert listing(kube, region).success


def test_a_token_file_is_read_for_every_operation(kube: KubeWorld) -> None:
    """A token file beside the kubeconfig counts as it is when an operation begins."""
    write_user(kube, {"tokenFile": "token"})
    file = kube.kubeconfig.parent / "token"
    assert "cannot be read" in (listing(kube).msg or "")
    file.write_text("expired", encoding="utf-8")
    assert listing(kube).error_code is OPResultErrorCode.UNAUTHENTICATED
    file.write_text(f"{MANAGER_TOKEN}\n", encoding="utf-8")
    assert listing(kube).success


def test_a_token_renewed_meanwhile_is_taken_up(kube: KubeWorld, kube_api: KubeApi) -> None:
    """A token that expires within an operation is read once more, and the operation goes on."""
    kube_api.tokens["short-lived"] = "manager"
    kube.write_kubeconfig("short-lived")
    kube_api.fault("POST pods", Fault(before=lambda: _renew(kube, kube_api)))
    node, result = kube.client.launch_node(instance_type_def=kube.small, instance_config=kube.config())
    assert result == OPResult(success=True)
    assert node is not None
    assert kube_api.requests == ["POST pods", "POST pods", "POST secrets"]


def _renew(kube: KubeWorld, kube_api: KubeApi) -> None:
    del kube_api.tokens["short-lived"]
    kube.write_kubeconfig(MANAGER_TOKEN)


def test_a_refused_token_is_not_sent_twice(kube: KubeWorld, kube_api: KubeApi) -> None:
    """When the kubeconfig holds nothing new, one refusal is enough."""
    kube.write_kubeconfig("expired")
    assert listing(kube).error_code is OPResultErrorCode.UNAUTHENTICATED
    assert kube_api.requests == ["GET pods"]


def test_name_and_password_are_sent(kube: KubeWorld, kube_api: KubeApi) -> None:
    """A user with a password is sent as HTTP's basic authentication."""
    kube_api.tokens["Basic bWU6cHc="] = "manager"
    write_user(kube, {"username": "me", "password": "pw"})
    assert listing(kube).success


def test_a_token_that_no_header_can_hold_is_not_shown(kube: KubeWorld) -> None:
    """A token with a line break inside is refused without a word of it."""
    write_user(kube, {"token": "s3c\nret"})
    result = listing(kube)
    assert result.error_code is OPResultErrorCode.UNAUTHENTICATED
    assert "s3c" not in repr(result)


def test_a_foreign_authority_is_not_trusted(kube: KubeWorld, tmp_path: Path) -> None:
    """A server whose certificate another authority signed gets no request, and the result says why."""
    (tmp_path / "foreign").mkdir()
    foreign = make_server_certificate(tmp_path / "foreign").authority
    kube.write_kubeconfig(MANAGER_TOKEN, **{"certificate-authority": str(foreign)})
    result = listing(kube)
    assert result.error_code is OPResultErrorCode.CERTIFICATE_INVALID
    assert "certificate-authority" in (result.msg or "")


def test_a_missing_authority_is_told(kube: KubeWorld) -> None:
    """A kubeconfig whose authority cannot be read is an error that says so."""
    kube.write_kubeconfig(MANAGER_TOKEN, **{"certificate-authority": "/nowhere/ca.crt"})
    assert listing(kube).error_code is OPResultErrorCode.CERTIFICATE_INVALID


@pytest.mark.parametrize(
    "server", ["cluster.example:6443", "ftp://cluster.example", "https://", "https://[::1"]
)
def test_an_address_that_cannot_be_used_is_told(kube: KubeWorld, server: str) -> None:
    """An address of another form than https://host:port is a result, not an exception."""
    kube.write_kubeconfig(MANAGER_TOKEN, server=server)
    assert listing(kube).error_code is OPResultErrorCode.CONNECTION_FAILED


def test_a_pod_uses_its_service_account(
    kube: KubeWorld, kube_api: KubeApi, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    """In a cluster address, authority and token come from what Kubernetes gives to every pod."""
    region = K8sRegion(name="r", namespace=kube.namespace, in_cluster=True)
    monkeypatch.setattr(credentials, "SERVICE_ACCOUNT_FOLDER", str(tmp_path))
    assert "KUBERNETES_SERVICE_HOST is not set" in (listing(kube, region).msg or "")
    host, _, port = kube_api.url.removeprefix("https://").partition(":")
    monkeypatch.setenv("KUBERNETES_SERVICE_HOST", host)
    monkeypatch.setenv("KUBERNETES_SERVICE_PORT", port)
    assert "No such file" in (listing(kube, region).msg or "")
    for name, content in (
        ("token", MANAGER_TOKEN),
        ("namespace", "x"),
        ("ca.crt", kube_api.authority.read_text()),
    ):
        (tmp_path / name).write_text(content, encoding="utf-8")
    assert listing(kube, region).success


def test_an_auth_provider_is_refused(kube: KubeWorld) -> None:
    """The predecessor of plugins is not supported, and the message says what is."""
    write_user(kube, {"auth-provider": {"name": "gcp"}})
    assert "use an exec plugin" in (listing(kube).msg or "")
