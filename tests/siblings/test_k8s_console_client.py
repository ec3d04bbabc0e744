"""What the Kubernetes client promises whichever method is called."""

from __future__ import annotations

import os
import subprocess
import sys
import threading

import pytest

from stage.kube_api import Fault, KubeApi
from stage.kube_store import Refusal
from stage.kube_world import KubeWorld
from tovarincore.cloud_def import CloudNode, K8sRegion
from tovarincore.k8s_console_client import K8sConsoleClient

INTERNAL = Refusal(500, "InternalError", "etcd is gone")


def test_making_a_client_touches_nothing() -> None:
    """Neither the kubeconfig nor the Kubernetes library is looked at before the first call."""
    script = (
        "import sys\n"
        "from tovarincore.cloud_def import K8sRegion\n"
        "from tovarincore.k8s_console_client import K8sConsoleClient\n"
        "K8sConsoleClient(K8sRegion(name='r', kubeconfig='/nowhere'))\n"
        "assert not {'lightkube', 'httpx2', 'yaml', 'msgspec'} & set(sys.modules)\n"
    )
    subprocess.run([sys.executable, "-c", script], check=True)


def test_a_missing_library_is_named_with_its_remedy(monkeypatch: pytest.MonkeyPatch) -> None:
    """Without the optional packages every call says what to install, in one line."""
    for name in [name for name in sys.modules if name.startswith("tovarincore._k8s_console_client.")]:
        if not name.endswith("errors"):
            monkeypatch.delitem(sys.modules, name)
    for name in [name for name in sys.modules if name.startswith("lightkube.")]:
        monkeypatch.delitem(sys.modules, name)
    monkeypatch.delattr("tovarincore._k8s_console_client.operations", raising=False)
    monkeypatch.setitem(sys.modules, "lightkube", None)
    client = K8sConsoleClient(K8sRegion(name="r"))
    nodes, listing = client.get_cloud_nodes()
    assert nodes is None
    for result in (listing, client.terminate_node(instance_id="n"), client.list_instance_types()[1]):
        assert result.error
        assert (result.msg or "").endswith("pip install tovarincore[kubernetes]")
        assert "\n" not in (result.msg or "")


def test_an_unreadable_catalogue_is_told(kube: KubeWorld, kube_api: KubeApi) -> None:
    """A failing API server is an error with an empty list, not a namespace without a catalogue."""
    kube_api.fault("GET configmaps", Fault(INTERNAL), times=2)
    for entries, result in (kube.client.list_instance_templates(), kube.client.list_instance_types()):
        assert entries == []
        assert result.msg == "etcd is gone"


def test_threads_share_a_client(kube: KubeWorld) -> None:
    """Launches from several threads through one client all succeed, each with its own node."""
    nodes: list[CloudNode] = []
    barrier = threading.Barrier(4)

    def work() -> None:
        barrier.wait()
        nodes.append(kube.launched())

    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    listed, _ = kube.client.get_cloud_nodes()
    assert {node.uuid for node in listed or []} == {node.uuid for node in nodes}
    assert len(nodes) == 4


def test_a_namespace_that_cannot_be_is_refused(kube: KubeWorld, kube_api: KubeApi) -> None:
    """A namespace's name is checked before it becomes part of a path."""
    client = K8sConsoleClient(K8sRegion(name="r", namespace="a/../b", kubeconfig=str(kube.kubeconfig)))
    nodes, result = client.get_cloud_nodes()
    assert nodes is None
    assert "'a/../b' cannot be the name of a namespace" in (result.msg or "")
    assert kube_api.requests == []


def test_threads_that_are_the_first_to_use_the_client_do_no_harm(kube: KubeWorld) -> None:
    """In a fresh process many threads list at the same moment: none of them ends it."""
    kube.launched()
    script = (
        "import sys, threading\n"
        "from tovarincore.cloud_def import K8sRegion\n"
        "from tovarincore.k8s_console_client import K8sConsoleClient\n"
        "client = K8sConsoleClient(K8sRegion('r', namespace=sys.argv[1], kubeconfig=sys.argv[2]))\n"
        "barrier, found = threading.Barrier(8), []\n"
        "def work():\n"
        "    barrier.wait()\n"
        "    found.append(client.get_cloud_nodes())\n"
        "threads = [threading.Thread(target=work) for _ in range(8)]\n"
        "[thread.start() for thread in threads]\n"
        "[thread.join() for thread in threads]\n"
        "assert [len(nodes or []) for nodes, _ in found] == [1] * 8, found\n"
    )
    arguments = [sys.executable, "-c", script, kube.namespace, str(kube.kubeconfig)]
    environment = {**os.environ, "TOVARIN_KUBERNETES__OPERATION_SECONDS": "60"}
    subprocess.run(arguments, check=True, env=environment, timeout=120)
