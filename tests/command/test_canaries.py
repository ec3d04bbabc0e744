"""The command as a program, the root logger at DEBUG, a canary in each secret: none is written.

EC2, the API server, the engine and the worker send back whatever they are sent.
"""

from __future__ import annotations

import json
import os
import subprocess
import sys
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path
from xml.sax.saxutils import escape

import pytest
import tomli_w

from stage.engine_api import EngineApi
from stage.settings import settings_of
from stage.worker_peers import Conversation, Peer
from tests.conftest import ROOT
from tests.siblings.test_canaries import CANARIES, PROXY_LOGIN, echoes_in_status, forms
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion, CloudRegions, K8sRegion
from tovarincore.container_helper import UUID_LABEL, VERSION_LABEL

# An application of the user's own that runs the command and shows every log line of the process.
PROGRAM = """
import json, logging, sys
logging.basicConfig(level=logging.DEBUG)
from tovarincore.command.main import main
for arguments in json.loads(sys.argv[1]):
    print(arguments[:2], "ended with", main(arguments), flush=True)
"""
COMMANDS: dict[str, list[list[str]]] = {
    "AWS": [
        ["list", "eu-central-1"],
        ["doctor", "eu-central-1"],
        ["keypair", "create", "eu-central-1", "k1", "--file", "{folder}/k1.pem"],
        ["configure", "eu-central-1"],
    ],
    "k8s": [["list", "k8s:lab"], ["templates", "k8s:lab"], ["doctor", "k8s:lab"], ["configure", "k8s:lab"]],
    "local": [
        ["list", "local"],
        ["show", "local", "tovarin-worker"],
        ["launch", "local"],
        ["config", "show"],
    ],
}
WORKER = {
    "Id": "id-1",
    "Names": ["/tovarin-worker"],
    "State": "running",
    "Labels": {UUID_LABEL: "uuid-1", VERSION_LABEL: "1.0"},
}


def answers(kind: str) -> Callable[[Conversation], None]:
    """Refuse a request in the words of EC2 or of an API server, quoting all of it."""

    def behave(conversation: Conversation) -> None:
        request = conversation.connected.recv(65536).decode("latin-1")
        if kind == "AWS":
            error = f"<Error><Code>X</Code><Message>{escape(request)} {CANARIES['secret']}</Message></Error>"
            body = f"<Response><Errors>{error}</Errors></Response>"
        else:
            body = json.dumps({"kind": "Status", "reason": request, "message": request, "code": 403})
        head = f"HTTP/1.1 403 no\r\nConnection: close\r\nContent-Length: {len(body.encode())}\r\n"
        conversation.connected.sendall(f"{head}Content-Type: application/json\r\n\r\n{body}".encode())

    return behave


@pytest.fixture
def hostile(tmp_path: Path) -> Iterator[None]:
    """All kinds of regions, configured with canaries, each of them with a peer that echoes."""
    with ExitStack() as stack:
        ec2, cluster, worker = (
            stack.enter_context(Peer(behaviour))
            for behaviour in (answers("AWS"), answers("k8s"), echoes_in_status)
        )
        engine = stack.enter_context(EngineApi())
        running = {**WORKER, "Ports": [{"IP": "127.0.0.1", "PrivatePort": 8855, "PublicPort": worker.port}]}
        engine.answers["GET", "/containers/json"] = (200, [running])
        echo = {"message": f"TOVARIN_WORKER_TOKEN={CANARIES['stored']} Bearer {CANARIES['token']}"}
        engine.answers["GET", "/images/json"] = (500, echo)
        engine.answers["POST", "/containers/create"] = (500, echo)
        lab = K8sRegion("lab", kubeconfig=str(tmp_path / "kubeconfig"))
        kubeconfig = {
            "current-context": "c",
            "contexts": [{"name": "c", "context": {"cluster": "c", "user": "u"}}],
            "clusters": [{"name": "c", "cluster": {"server": f"http://127.0.0.1:{cluster.port}"}}],
            "users": [{"name": "u", "user": {"token": CANARIES["password"]}}],
        }
        (tmp_path / "kubeconfig").write_text(json.dumps(kubeconfig))
        region = {"cloud": "k8s", "name": "lab", "kubeconfig": lab.kubeconfig}
        amazon = {"cloud": "AWS", "name": "eu-central-1"}
        (tmp_path / "regions.toml").write_text(tomli_w.dumps({"region": [amazon, region]}))
        proxy = f"http://{PROXY_LOGIN}@127.0.0.1:9"
        settings = {
            "worker": {"token": CANARIES["token"], "port": worker.port},
            "proxy": {"http": proxy, "https": proxy},
            "container": {"engine_url": engine.url, "published_port": worker.port},
            "cloud": {"regions_file": str(tmp_path / "regions.toml")},
            "logging": {"level": "DEBUG"},
        }
        endpoint = f"http://127.0.0.1:{ec2.port}"
        stack.enter_context(settings_of(tmp_path, settings, AWS_ENDPOINT_URL_EC2=endpoint))
        auth = AWSCloudAuth("", CANARIES["key-id"], CANARIES["secret"], CANARIES["session"])
        for place in (CloudRegion("eu-central-1", "AWS"), CloudRegions.get_local_container_region(), lab):
            stored = CloudConf(auth if place.cloud == "AWS" else None, "ada", CANARIES["stored"])
            CloudConfManager().set_cloud_conf(place, stored)
        yield


@pytest.mark.parametrize("kind", COMMANDS)
def test_no_canary_leaves_the_command(hostile: None, tmp_path: Path, kind: str) -> None:
    """Neither in lines for people nor in documents, in the log, in a traceback or in a new file."""
    before = set(tmp_path.rglob("*"))
    runs = [
        [word.format(folder=tmp_path) for word in command] + options
        for command in COMMANDS[kind]
        for options in (["--debug"], ["--json"])
    ]
    program = subprocess.run(
        [sys.executable, "-W", "error", "-c", PROGRAM, json.dumps(runs)],
        env={**os.environ, "PYTHONPATH": str(ROOT)},
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=240,
    )
    text = program.stdout + program.stderr
    assert program.returncode == 0, text
    assert text.count("ended with") == len(runs)
    # The peers were asked, and their words were shown.
    assert "***" in text
    for path in filter(Path.is_file, set(tmp_path.rglob("*")) - before):
        text += path.read_text(encoding="utf-8", errors="replace")
    found = [(name, form) for name, canary in CANARIES.items() for form in forms(canary) if form in text]
    assert not found, text
