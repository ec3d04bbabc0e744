"""Regions, images and instance types."""

from __future__ import annotations

import json
import re
import threading
from collections.abc import Callable, Iterator
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any

import pytest

from stage.ec2 import IMAGE_NAME, Ec2World
from stage.ports import refusing_port
from tests.command.conftest import Run
from tovarincore.command.context import access
from tovarincore.core_conf import core_conf_glbl


class _Engine(BaseHTTPRequestHandler):
    """What a container engine says when it is asked whether it is there."""

    def do_GET(self) -> None:
        self.send_response(200)
        self.send_header("Api-Version", "1.43")
        self.send_header("Content-Length", "2")
        self.end_headers()
        self.wfile.write(b"OK")

    def log_message(self, format: str, *arguments: object) -> None:
        pass


@pytest.fixture
def engine_url() -> Iterator[str]:
    """Where an engine answers."""
    with ThreadingHTTPServer(("127.0.0.1", 0), _Engine) as server:
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        yield f"tcp://127.0.0.1:{server.server_port}"
        server.shutdown()
        thread.join()


def test_regions_say_which_can_be_used(run_json: Callable[..., Any], ec2: Ec2World, engine_url: str) -> None:
    """A region with stored credentials and one whose engine answers; the others say what they lack."""
    ec2.set_setting("CONTAINER__ENGINE_URL", engine_url)
    regions = {entry["key"]: (entry["usable"], entry["why_not"]) for entry in run_json("regions")}
    assert regions["local:local"] == (True, None)
    assert regions["AWS:us-east-1"] == (True, None)
    assert regions["AWS:eu-central-1"] == (False, "no credentials stored")
    assert len(run_json("regions", "--usable")) == 2


def test_a_region_without_an_engine_is_not_usable(run_json: Callable[..., Any], ec2: Ec2World) -> None:
    """An installed package makes no engine; listings of all regions leave the region out."""
    with refusing_port() as port:
        ec2.set_setting("CONTAINER__ENGINE_URL", f"tcp://127.0.0.1:{port}")
        regions = {entry["key"]: entry["why_not"] for entry in run_json("regions")}
        assert regions["local:local"] == f"no container engine answers at tcp://127.0.0.1:{port}"
        assert [entry["name"] for entry in run_json("regions", "--usable")] == ["us-east-1"]


@pytest.mark.parametrize("named", [True, False], ids=["of the region", "of the user"])
def test_a_missing_kubeconfig_is_a_fault_of_the_configuration(
    run: Run, run_json: Callable[..., Any], no_account: Path, monkeypatch: pytest.MonkeyPatch, named: bool
) -> None:
    """It is told which file is missing and where that is said; nobody has refused anything."""
    path = no_account / "config-of-a-cluster"
    region = '[[region]]\ncloud = "k8s"\nname = "lab"\n' + (f'kubeconfig = "{path}"\n' if named else "")
    (no_account / "regions.toml").write_text(region)
    monkeypatch.setenv("TOVARIN_CLOUD__REGIONS_FILE", str(no_account / "regions.toml"))
    monkeypatch.setenv("KUBECONFIG", str(path))
    core_conf_glbl.reload()
    result = run("list", "lab")
    assert result.exit_code == 4
    assert f"the kubeconfig file {path} of the region lab does not exist" in result.stderr
    assert "[cloud] regions_file" in result.stderr
    (entry,) = run_json("regions", "--filter", "name=lab")
    assert entry["why_not"] == "the kubeconfig file is missing"


def test_verbose_tells_of_requests_to_the_engine(
    run: Run, no_account: Path, engine_url: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Where it listens, what came of it and how long it took."""
    monkeypatch.setenv("TOVARIN_CONTAINER__ENGINE_URL", engine_url)
    core_conf_glbl.reload()
    first, second, *_ = run("regions", "--verbose").stderr.splitlines()
    assert first == f"GET /_ping: asking {engine_url}, with no credentials"
    assert re.fullmatch(r"GET /_ping: status 200 after \d+\.\d\d s", second)


def test_a_region_whose_package_is_missing_is_not_usable(
    run_json: Callable[..., Any], no_account: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The reason is told in the listing already, not by the first command that fails."""
    monkeypatch.setattr(access, "_is_installed", lambda package: package != "docker")
    regions = {entry["key"]: entry["why_not"] for entry in run_json("regions")}
    assert regions["local:local"] == "the package docker is not installed"


def test_templates_are_the_images_of_the_region(
    run: Run, run_json: Callable[..., Any], ec2: Ec2World
) -> None:
    """Public images are listed; private ones only when asked for."""
    private = ec2.endpoint.register_image("TOVARIN_AI_GPU_DEV_2.0.0", public=False)
    (public,) = run_json("templates", "us-east-1")
    assert (public["id"], public["name"], public["gpu"]) == (ec2.image_id, IMAGE_NAME, False)
    assert private in [entry["id"] for entry in run_json("templates", "us-east-1", "--private")]
    header, row = run("templates", "us-east-1").stdout.splitlines()
    assert header.split() == ["NAME", "ID", "VERSION", "PAY", "TYPE", "FOR", "CREATED"]
    assert row.split()[:5] == [IMAGE_NAME, ec2.image_id, "1.0.0", "PLAN_A", "CPU"]


def test_a_region_without_images_says_so(run: Run, ec2: Ec2World) -> None:
    """An empty table is a sentence that says what else to try."""
    ec2.raw.deregister_image(ImageId=ec2.image_id)
    assert run("templates", "us-east-1").stdout == (
        "The region us-east-1 offers no image (--private lists images that are not public).\n"
    )


def test_amazon_s_types_are_the_known_ones_and_need_no_credentials(run: Run, no_account: Path) -> None:
    """The list of types comes with the product."""
    # Hundreds, which are not held to the schema one by one.
    listed = json.loads(run("types", "us-east-1", "--json").stdout)["items"]
    types = {entry["instance_type"]: entry for entry in listed}
    assert (types["t3.small"]["cpu_count"], types["t3.small"]["memory_mib"]) == (2, 2048)
    assert ["t3.small", "2", "2048", "0", "-"] in [
        line.split() for line in run("types", "us-east-1").stdout.splitlines()
    ]


def test_the_local_type_is_as_large_as_configured(run_json: Callable[..., Any], no_account: Path) -> None:
    """The type of the local container follows the settings."""
    (no_account / "core.toml").write_text("[container]\nmemory_mib = 512\ncpu_count = 0.5\n")
    (entry,) = run_json("types", "local")
    assert (entry["instance_type"], entry["cpu_count"], entry["memory_mib"]) == ("local", 0.5, 512)
