"""The worker image made from files of this machine, and the recipe that users build theirs with."""

from __future__ import annotations

import json
import os
import re
import shlex
import subprocess
import sys
import tarfile
from collections.abc import Iterator
from pathlib import Path

import pytest

from stage.engine_api import EngineApi
from stage.patience import SETUP_SECONDS
from stage.settings import settings_of
from tovarincore.testing.worker_image import write_root_file_system

ROOT = Path(__file__).resolve().parents[2]
RECIPE = ROOT / "containers" / "worker" / "Dockerfile"

pytestmark = pytest.mark.skipif(sys.platform != "linux", reason="the image is made of Linux programs")


@pytest.fixture(scope="module")
def root_folder(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Path]:
    """The image's file system, unpacked."""
    folder = tmp_path_factory.mktemp("root")
    archive = folder.with_suffix(".tar")
    with archive.open("wb") as file:
        write_root_file_system(file)
    with tarfile.open(archive) as tar:
        members = tar.getmembers()
        assert all(member.isreg() for member in members)
        for member in members:
            target = folder / member.name
            target.parent.mkdir(parents=True, exist_ok=True)
            content = tar.extractfile(member)
            assert content is not None
            target.write_bytes(content.read())
            target.chmod(member.mode)
    archive.unlink()
    yield folder


def _run_in_image(root_folder: Path, *arguments: str) -> subprocess.CompletedProcess[str]:
    """Run the image's interpreter with nothing but the image's settings."""
    home = root_folder / "opt/python"
    (loader,) = root_folder.glob("lib*/ld-linux*")
    done = subprocess.run(
        [str(loader), str(home / "bin/python3"), *arguments],
        cwd=root_folder,
        env={
            "PYTHONHOME": str(home),
            "PYTHONPATH": str(root_folder / "opt/worker"),
            "LD_LIBRARY_PATH": str(home / "lib"),
            "PYTHONDONTWRITEBYTECODE": "1",
        },
        capture_output=True,
        text=True,
        timeout=SETUP_SECONDS,
        check=False,
    )
    assert done.returncode == 0, done.stderr
    return done


def test_the_image_runs_the_worker_with_nothing_but_its_own_files(root_folder: Path) -> None:
    """The interpreter in it starts with its own libraries and standard library, and can import the worker."""
    program = (
        "import sys, ssl, ctypes, tovarincore.testing.reference_worker as worker, websockets; "
        "print(worker.__file__); print(websockets.__file__); print(ssl.__file__); "
        "print(*(line.split()[-1] for line in open('/proc/self/maps') if '.so' in line))"
    )
    loaded = {os.path.realpath(path) for path in _run_in_image(root_folder, "-c", program).stdout.split()}
    assert len(loaded) > 5
    assert [path for path in loaded if not path.startswith(os.path.realpath(root_folder))] == []


def test_a_worker_starts_without_compiling_anything(root_folder: Path) -> None:
    """A container keeps no bytecode: whatever the image lacks is compiled at each start."""
    said = _run_in_image(root_folder, "-v", "-m", "tovarincore.testing.reference_worker", "--help").stderr
    assert len(re.findall(r"^# code object from .*\.pyc'$", said, re.MULTILINE)) > 50
    assert re.findall(r"^# code object from .*\.py$", said, re.MULTILINE) == []


def test_the_image_holds_no_tests_or_other_packages(root_folder: Path) -> None:
    """What a server does not need stays out, and so does whatever else is installed on this machine."""
    folders = {path.name for path in root_folder.rglob("*") if path.is_dir()}
    assert folders.isdisjoint({"site-packages", "test", "idlelib", "ensurepip", "tkinter"})
    packages = {path.name for path in (root_folder / "opt/worker").iterdir()}
    assert packages == {"tovarincore", "websockets"}


def test_the_command_imports_once_and_tags_the_other_versions(tmp_path: Path) -> None:
    """All versions are one image, under the configured name, on the configured engine."""
    with EngineApi() as api:
        api.answers["POST", "/images/create"] = (200, {"status": "sha256:0"})
        api.answers["POST", "/images/sha256:0/tag"] = (201, None)
        with settings_of(tmp_path, {"container": {"engine_url": api.url, "image": "acme/worker"}}):
            done = subprocess.run(
                [sys.executable, "-m", "tovarincore.testing.worker_image", "1.0", "1.1"],
                cwd=ROOT,
                capture_output=True,
                text=True,
                timeout=60,
                check=False,
            )
        assert (done.returncode, done.stdout) == (0, "acme/worker:1.0\nacme/worker:1.1\n"), done.stderr
        imported, *tagged = api.requests[1:]
    assert "repo" not in imported.query
    assert [(tag.query["repo"], tag.query["tag"]) for tag in tagged] == [
        ("acme/worker", "1.0"),
        ("acme/worker", "1.1"),
    ]


def test_the_recipe_copies_files_that_exist_and_starts_the_same_worker() -> None:
    """The recipe's build context is the package's folder; its command is that of the image made here."""
    lines = RECIPE.read_text().splitlines()
    copied = [shlex.split(line)[1:-1] for line in lines if line.startswith("COPY ")]
    assert copied != []
    for name in (name for names in copied for name in names):
        assert (ROOT / "tovarincore" / name).is_file()
    (command,) = [json.loads(line.removeprefix("CMD ")) for line in lines if line.startswith("CMD ")]
    assert command[1:] == [
        "-m", "tovarincore.testing.reference_worker", "--host", "0.0.0.0", "--port", "8855"
    ]  # fmt: skip


def test_the_recipe_installs_the_same_websockets_versions_as_the_package() -> None:
    """The worker in the container and its clients stand on one range of versions."""
    requirement = re.compile(r'"(websockets[^"]*)"')
    package = (ROOT / "pyproject.toml").read_text()
    assert requirement.findall(RECIPE.read_text()) == requirement.findall(package) != []
