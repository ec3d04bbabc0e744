"""What users install."""

import os
import subprocess
import sys
import sysconfig
import venv
import zipfile
from importlib.metadata import version
from pathlib import Path

import pytest

from scripts.check_wheel import faults, main

ROOT = Path(__file__).resolve().parents[2]


def run(*command: str | Path, cwd: Path = ROOT) -> str:
    """Run a command; return its output, or fail with all it said."""
    # The scripts beside the interpreter are on the path, as in an activated environment: CMake and Ninja.
    environment = dict(os.environ, PATH=f"{Path(sys.executable).parent}{os.pathsep}{os.environ['PATH']}")
    done = subprocess.run(command, cwd=cwd, env=environment, capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def pip(*arguments: str | Path) -> None:
    """Run pip of this environment."""
    run(sys.executable, "-m", "pip", "--disable-pip-version-check", "--quiet", *arguments)


compiles = pytest.mark.thorough(reason="compiles the whole module")


def wheel_of_this_tree(folder: Path, *settings: str) -> Path:
    """A wheel made in the folder, by the package's build with these settings on top."""
    options = [word for setting in (*settings, f"build-dir={folder / 'build'}") for word in ("-C", setting)]
    pip("wheel", "--no-deps", "--no-build-isolation", *options, "--wheel-dir", folder, ".")
    (made,) = folder.glob("*.whl")
    return made


@pytest.fixture(scope="module")
def wheel(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A wheel of this tree for the running interpreter."""
    # Its C++ is compiled quickly, not for speed: nothing below runs it long.
    return wheel_of_this_tree(tmp_path_factory.mktemp("wheel"), "cmake.build-type=Debug")


def test_a_wheel_carries_what_it_should_beside_the_module(tmp_path: Path) -> None:
    """Without CMake: the Python files, the data, the stub and the marker are there, and no sources."""
    made = wheel_of_this_tree(tmp_path, "wheel.cmake=false")
    with zipfile.ZipFile(made) as archive:
        found = faults(archive.namelist())
    # The step that would compile the module also adds the pages and the manual.
    assert found == [
        "expected one built module, tovarincore/cloud_node, found []",
        "tovarincore/pages/*.md is missing",
        "share/man/man1/tovarin-nodes.1 is missing",
    ]


@compiles
@pytest.mark.no_sanitizer  # the wheel's module is compiled as users compile it
def test_a_wheel_carries_the_package_and_no_source_of_the_module(
    wheel: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    """The wheel of this tree passes the check that `make wheel` applies."""
    monkeypatch.setattr(sys, "argv", ["check_wheel", str(wheel)])
    assert (main(), capsys.readouterr().err) == (0, "")


@compiles
@pytest.mark.no_sanitizer  # as above
def test_a_wheel_imports_in_an_environment_of_its_own(wheel: Path, tmp_path: Path) -> None:
    """The installed module is the one imported there, and the version is that of the metadata."""
    venv.create(tmp_path / "venv", with_pip=False)
    python = tmp_path / "venv" / "bin" / "python"
    purelib = "import sysconfig; print(sysconfig.get_path('purelib'))"
    # What the package depends on is lent by this environment: the tests install nothing from an index.
    Path(run(python, "-c", purelib).strip(), "lent.pth").write_text(sysconfig.get_path("purelib"))
    pip("--python", python, "install", "--no-deps", "--no-index", wheel)
    code = (
        "import importlib.metadata as m; from tovarincore import cloud_node; "
        "print(cloud_node.__file__, m.version('tovarincore'))"
    )
    said = run(python, "-I", "-X", "dev", "-W", "error", "-c", code, cwd=tmp_path).split()
    assert said[0].startswith(str(tmp_path / "venv"))
    assert said[1] == version("tovarincore")
    page = run(python, "-I", "-m", "tovarincore", "help", "iam-policy", cwd=tmp_path)
    assert "ec2:RunInstances" in page
    assert (tmp_path / "venv" / "share" / "man" / "man1" / "tovarin-nodes.1").is_file()


def test_the_check_of_a_wheel_names_each_fault() -> None:
    """Sources, files outside the package, and whatever is missing are all named."""
    names = [
        "tovarincore/cloud_node/module/module.cpp",
        "tovarincore/cloud_node.py",
        "tests/conftest.py",
        "tovarincore/__init__.py",
        "tovarincore-1.0.data/data/share/",  # a folder's own entry, as auditwheel writes them
    ]
    said = faults(names)
    assert [line.split(" is ")[0].split(",")[0] for line in said] == [
        "expected one built module",
        "tovarincore/cloud_node/module/module.cpp",
        "tovarincore/cloud_node.py",
        "tests/conftest.py",
        "tovarincore/py.typed",
        "tovarincore/cloud_node.pyi",
        "tovarincore/data/*.toml",
        "tovarincore/pages/*.md",
        "share/man/man1/tovarin-nodes.1",
    ]


@pytest.mark.no_sanitizer  # git does not know the copy of the tree that such a run takes place in
def test_the_version_stands_in_one_place() -> None:
    """No file but pyproject.toml states the version."""
    stated = f'"{version("tovarincore")}"'
    assert run("git", "grep", "-lF", stated, "--", "*.py", "*.toml", "*.cpp", "*.h").split() == [
        "pyproject.toml"
    ]
