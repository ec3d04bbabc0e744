"""Credential plugins of a kubeconfig, also those that do their worst."""

from __future__ import annotations

import json
import os
import sys
import time
from pathlib import Path
from typing import Any

import pytest

from stage.kube_api import MANAGER_TOKEN, KubeApi
from stage.kube_world import KubeWorld
from stage.patience import SLACK_SECONDS, in_time
from tests.siblings.test_k8s_credentials import listing, write_user
from tovarincore.core_def import OPResultErrorCode


def plugin(folder: Path, body: str) -> dict[str, Any]:
    """A user who runs a credential plugin made of this Python code."""
    file = folder / "plugin.py"
    file.write_text(f"#!{sys.executable}\n{body}", encoding="utf-8")
    file.chmod(0o755)
    # Relative, as cloud tools write it: to the kubeconfig.
    return {"exec": {"apiVersion": "client.authentication.k8s.io/v1", "command": "./plugin.py"}}


def printing(status: dict[str, str]) -> str:
    """Code of a plugin that prints a credential."""
    return f"print({json.dumps(json.dumps({'status': status}))})"


def test_a_plugin_gives_the_token(kube: KubeWorld) -> None:
    """The plugin is told the interface's version and that nobody is there to ask; its token is sent."""
    body = (
        "import json, os\n"
        "info = json.loads(os.environ['KUBERNETES_EXEC_INFO'])\n"
        "assert info['apiVersion'] == 'client.authentication.k8s.io/v1' and not info['spec']['interactive']\n"
        + printing({"token": MANAGER_TOKEN})
    )
    write_user(kube, plugin(kube.kubeconfig.parent, body))
    assert listing(kube).success


@pytest.mark.parametrize(
    ("body", "complaint"),
    [
        ("import sys; sys.exit('log in first')", "ended with status 1: log in first"),
        ("print('s3cret')", "printed no ExecCredential"),
        ("print('[]')", "printed no ExecCredential"),
        (printing({}), "printed neither a token nor a certificate"),
    ],
)
def test_a_failing_plugin_is_told(kube: KubeWorld, body: str, complaint: str) -> None:
    """What a plugin complains about is passed on, what it prints as a credential is not."""
    write_user(kube, plugin(kube.kubeconfig.parent, body))
    result = listing(kube)
    assert result.error_code is OPResultErrorCode.UNAUTHENTICATED
    assert complaint in (result.msg or "")
    assert "s3cret" not in repr(result)


def test_a_missing_plugin_is_named_with_its_hint(kube: KubeWorld) -> None:
    """A plugin that is not installed is named, with the kubeconfig's own hint."""
    user = plugin(kube.kubeconfig.parent, "")
    user["exec"] |= {"command": "tovarin-no-such-plugin", "installHint": "Install it."}
    write_user(kube, user)
    message = listing(kube).msg or ""
    assert "tovarin-no-such-plugin" in message
    assert message.endswith("Install it.")


def test_a_hanging_plugin_costs_the_time_limit(kube: KubeWorld) -> None:
    """A plugin that waits for somebody is ended with the operation's time."""
    write_user(kube, plugin(kube.kubeconfig.parent, "import time; time.sleep(60)"))
    kube.limit(1)
    with in_time(1):
        result = listing(kube)
    assert result.error_code is OPResultErrorCode.TIMEOUT


@pytest.mark.parametrize("part", ["command", "argument", "name", "value"])
def test_a_nul_is_told(kube: KubeWorld, part: str) -> None:
    """No program can be given a NUL: that is a result, wherever in the kubeconfig it stands."""
    user = plugin(kube.kubeconfig.parent, "")
    if part == "command":
        user["exec"]["command"] = "./plugin\0.py"
    elif part == "argument":
        user["exec"]["args"] = ["a\0b"]
    else:
        variable = {"name": "A", "value": "b"}
        user["exec"]["env"] = [{**variable, part: "a\0b"}]
    write_user(kube, user)
    result = listing(kube)
    assert result.error_code is OPResultErrorCode.UNAUTHENTICATED
    assert "cannot be run: embedded null" in (result.msg or "")


@pytest.mark.parametrize("stream", ["stdout", "stderr"])
def test_a_plugin_that_floods_is_ended(kube: KubeWorld, stream: str) -> None:
    """Beyond 1 MiB a plugin's output is not kept, and the plugin is ended at once."""
    write_user(
        kube, plugin(kube.kubeconfig.parent, f"import sys\nwhile True: sys.{stream}.write('x' * 65536)")
    )
    with in_time():
        assert "printed more than 1048576 bytes" in (listing(kube).msg or "")


@pytest.mark.parametrize("last", ["", "time.sleep(60)", "sys.exit(1)"], ids=["ends well", "hangs", "fails"])
def test_what_a_plugin_leaves_behind_is_ended(kube: KubeWorld, last: str) -> None:
    """The processes that a plugin started end with it, whether it ends well or not."""
    note = kube.kubeconfig.parent / "child"
    body = (
        "import subprocess, sys, time\n"
        "child = subprocess.Popen(['sleep', '60'], stdin=-3, stdout=-3, stderr=-3)\n"
        f"open({str(note)!r}, 'w').write(str(child.pid))\n" + printing({"token": MANAGER_TOKEN}) + "\n" + last
    )
    write_user(kube, plugin(kube.kubeconfig.parent, body))
    if "sleep" in last:
        # Long enough for a busy machine to start two programs.
        kube.limit(5)
    assert listing(kube).success == (not last)
    child = int(note.read_text())
    end = time.monotonic() + SLACK_SECONDS
    while _runs(child) and time.monotonic() < end:
        time.sleep(0.01)
    assert not _runs(child)


def _runs(process: int) -> bool:
    """Whether a process runs; one that only waits to be collected does not."""
    try:
        return "Z" not in Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0]
    except OSError:
        return False


def test_a_plugin_may_ask_for_the_cluster(kube: KubeWorld, kube_api: KubeApi) -> None:
    """With provideClusterInfo it is told address and authority."""
    body = (
        "import json, os\n"
        "cluster = json.loads(os.environ['KUBERNETES_EXEC_INFO'])['spec']['cluster']\n"
        f"assert cluster['server'] == {kube_api.url!r} and cluster['certificate-authority-data']\n"
        + printing({"token": MANAGER_TOKEN})
    )
    user = plugin(kube.kubeconfig.parent, body)
    user["exec"]["provideClusterInfo"] = True
    write_user(kube, user)
    assert listing(kube).success


@pytest.mark.parametrize("file", ["pipe", "/dev/zero"])
def test_a_plugin_s_authority_that_is_no_file_is_not_waited_for(kube: KubeWorld, file: str) -> None:
    """Nobody may ever write to a pipe, and a device never ends."""
    os.mkfifo(kube.kubeconfig.parent / "pipe")
    user = plugin(kube.kubeconfig.parent, printing({"token": MANAGER_TOKEN}))
    user["exec"]["provideClusterInfo"] = True
    config = kube.config_of(MANAGER_TOKEN, **{"certificate-authority": file})
    config["users"][0]["user"] = user
    kube.kubeconfig.write_text(json.dumps(config), encoding="utf-8")
    with in_time():
        result = listing(kube)
    assert result.error_code is OPResultErrorCode.CERTIFICATE_INVALID
    assert "is not a regular file" in (result.msg or "")


@pytest.mark.parametrize(
    "output",
    [
        "null",
        "7",
        '{"status": null}',
        '{"status": {"token": 7}}',
        '{"status": []}',
        "[" * 100_000,
        '"\\ud800"',
    ],
    ids=["null", "number", "no status", "token", "list", "deep", "surrogate"],
)
def test_odd_output_is_told(kube: KubeWorld, output: str) -> None:
    """What is no credential is a result that shows nothing of it."""
    write_user(kube, plugin(kube.kubeconfig.parent, f"print({output!r})"))
    result = listing(kube)
    assert result.error_code is OPResultErrorCode.UNAUTHENTICATED
    assert "printed no ExecCredential" in (result.msg or "")


def test_secrets_of_a_plugin_s_variables_are_not_shown(kube: KubeWorld) -> None:
    """A plugin may complain with what it was given."""
    user = plugin(
        kube.kubeconfig.parent, "import os, sys; sys.exit('bad secret ' + os.environ['CLIENT_SECRET'])"
    )
    user["exec"]["env"] = [{"name": "CLIENT_SECRET", "value": "canary-4711"}]
    write_user(kube, user)
    result = listing(kube)
    assert "ended with status 1: bad secret ***" in (result.msg or "")
    assert "canary-4711" not in repr(result)
