"""The command in a Kubernetes region, on the API server of the tests."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
import tomli_w
from lightkube.resources.core_v1 import Pod

from stage.kube_api import POWERLESS_TOKEN, KubeApi
from stage.kube_fixtures import kube, kube_api, shared_kube_api
from stage.kube_world import KubeWorld
from tests.command.conftest import Run
from tovarincore.core_conf import core_conf_glbl

__all__ = ["kube", "kube_api", "shared_kube_api"]

LAUNCH = ("launch", "k8s:lab", "--type", "k8s.small", "--name", "cold-1")


@pytest.fixture
def lab(kube: KubeWorld, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[KubeWorld]:
    """The test's namespace as the region lab."""
    path = tmp_path / "regions.toml"
    region = {"cloud": "k8s", "name": "lab", "namespace": kube.namespace, "kubeconfig": str(kube.kubeconfig)}
    path.write_text(tomli_w.dumps({"region": [region]}))
    monkeypatch.setenv("TOVARIN_CLOUD__REGIONS_FILE", str(path))
    core_conf_glbl.reload()
    yield kube


def test_a_pod_is_launched_listed_and_terminated(
    run: Run, run_json: Callable[..., Any], lab: KubeWorld
) -> None:
    """The whole of a node's life works without stored credentials; the launch is noted."""
    launched = run_json(*LAUNCH, "--params", '{"env": {"A": "b"}}')
    (pod,) = lab.pods()
    assert launched["instance_id"] == pod.metadata.name  # type: ignore[union-attr]
    lab.bind(launched["instance_id"])
    lab.set_status(launched["instance_id"], "Running", ready="True", pod_ip="127.0.0.1")
    (listed,) = run_json("list", "lab")
    assert (listed["instance_id"], listed["state"]) == (launched["instance_id"], "Running")
    assert run_json("orphans", "lab") == []
    ended = run_json("terminate", "lab", "cold-1", "--yes", "--reason", "the test is over")
    assert ended[0]["terminated"] is True
    assert run("list", "lab").stdout == "No nodes in the region lab.\n"


def test_verbose_tells_of_requests_to_the_cluster(run: Run, lab: KubeWorld) -> None:
    """Which server is asked, where the credentials come from, and what came of it; no token is shown."""
    result = run("list", "lab", "--verbose", "--no-probe")
    first, second, *_ = result.stderr.splitlines()
    assert first.startswith(f"GET /api/v1/namespaces/{lab.namespace}/pods")
    assert first.endswith(f", with credentials of {lab.kubeconfig}")
    assert ": status 200 after " in second
    assert "Bearer" not in result.stderr


def test_orphans_are_the_user_s_own(
    run_json: Callable[..., Any], lab: KubeWorld, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Other people's pods of the namespace are listed, but are no orphans of this user."""
    own = lab.launched(name="cold-1")
    monkeypatch.setenv("LOGNAME", "somebody-else")
    lab.launched(name="cold-2")
    monkeypatch.delenv("LOGNAME")
    assert len(run_json("list", "lab")) == 2
    assert [orphan["instance_id"] for orphan in run_json("orphans", "lab")] == [own.instance_id]


def test_the_cluster_s_catalogue_is_shown(run_json: Callable[..., Any], lab: KubeWorld) -> None:
    """Images and types are those of the namespace."""
    assert [entry["instance_type"] for entry in run_json("types", "lab")][0] == "k8s.small"
    assert [entry["version"] for entry in run_json("templates", "lab")] == ["latest"]


@pytest.mark.parametrize("command", ["start", "stop", "reboot"])
def test_what_a_pod_cannot_do_is_refused_with_a_reason(run: Run, lab: KubeWorld, command: str) -> None:
    """A request that the provider would silently ignore is an error."""
    result = run(command, "lab", "cold-1")
    assert result.exit_code == 2
    assert "nodes in Kubernetes cannot be started, stopped or rebooted" in result.stderr


def test_a_dry_run_is_refused(run: Run, lab: KubeWorld) -> None:
    """Trying would really launch a pod."""
    result = run("try", "lab", "--type", "k8s.small")
    assert result.exit_code == 2
    assert result.stderr.startswith("error: Kubernetes has no dry run: trying would really launch a node\n")
    assert lab.pods() == []


def test_missing_rights_are_one_line(run: Run, lab: KubeWorld) -> None:
    """The API server's own words, and whom to ask."""
    lab.write_kubeconfig(POWERLESS_TOKEN)
    result = run("list", "lab")
    assert result.exit_code == 6
    first, second = result.stderr.splitlines()
    assert 'User "powerless" cannot list resource "pods"' in first
    assert second == (
        "  try: ask the cluster's administrator for the rights that this lists: tovarin-nodes help kubernetes"
    )


def test_a_cluster_that_is_down_is_one_line(run: Run, lab: KubeWorld, kube_api: KubeApi) -> None:
    """No API server is said as such, by the doctor too."""
    kube_api.stop()
    try:
        listed, examined = run("list", "lab"), run("doctor", "lab")
    finally:
        kube_api.start()
    assert listed.exit_code == 5
    assert listed.stderr.startswith("error: The Kubernetes API server cannot be reached")
    assert examined.exit_code == 1
    assert "fail    k8s:lab cluster: The Kubernetes API server cannot be reached" in examined.stdout


def test_the_doctor_sees_the_cluster(run: Run, lab: KubeWorld) -> None:
    """One line tells what the namespace holds."""
    result = run("doctor", "lab")
    assert result.exit_code == 0, result.output
    *_, cluster, token = result.stdout.splitlines()
    assert cluster == f"ok      k8s:lab cluster: namespace {lab.namespace}: 0 nodes, 1 images, 4 types"
    assert token.startswith("warn    k8s:lab worker token: workers are asked without a token")


def test_a_name_from_the_cluster_cannot_steer_the_terminal(run: Run, lab: KubeWorld) -> None:
    """An escape sequence in a pod's annotation is spelt out in every line that names the node."""
    assert run("launch", "lab", "--type", "k8s.small", "--name", "cold-1").exit_code == 0
    (pod,) = lab.pods()
    name = pod.metadata.name  # type: ignore[union-attr]
    renamed = {"metadata": {"annotations": {"tovarincore/name": "cold-\x1b[2J"}}}
    lab.admin.patch(Pod, str(name), renamed, namespace=lab.namespace)
    asked = run("terminate", "lab", str(name))
    ended = run("terminate", "lab", str(name), "--yes")
    assert "Terminate cold-\\x1b[2J (" in asked.stderr
    assert ended.exit_code == 0
    assert "\x1b" not in run("list", "lab").output + asked.output + ended.output
