"""Makes an image of the reference worker from files of this machine, for a place without an image registry.

The image holds this interpreter with its standard library and the shared libraries they need, the
websockets package and tovarincore's Python modules; nothing is downloaded. Linux only. From a shell:

    python -m tovarincore.testing.worker_image 1.0.0 1.1.0
"""

from __future__ import annotations

import argparse
import json
import os
import py_compile
import re
import subprocess
import sys
import sysconfig
import tarfile
import tempfile
from collections.abc import Iterable, Iterator, Mapping, Sequence
from importlib.util import find_spec
from pathlib import Path
from typing import IO

import docker

from tovarincore.container_helper import client_settings
from tovarincore.core_conf import core_conf_glbl

_PYTHON_HOME = "opt/python"
_WORKER_HOME = "opt/worker"
_PORT = 8855
_PACKAGES = ("websockets", "tovarincore")
_WORKER = "tovarincore.testing.reference_worker"

_IMAGE_SETTINGS = (
    # One variable each: Podman takes a line of several for one.
    f"ENV PYTHONHOME=/{_PYTHON_HOME}",
    f"ENV PYTHONPATH=/{_WORKER_HOME}",
    f"ENV LD_LIBRARY_PATH=/{_PYTHON_HOME}/lib",
    "ENV PYTHONDONTWRITEBYTECODE=1",
    "ENV PYTHONUNBUFFERED=1",
    "USER 65534:65534",
    f'CMD ["/{_PYTHON_HOME}/bin/python3", "-m", "{_WORKER}", "--host", "0.0.0.0", "--port", "{_PORT}"]',
)
# A server needs none of these, and some would bring a window system along.
_LEFT_OUT_FOLDERS = re.compile(
    r"__pycache__|site-packages|dist-packages|tests?|idlelib|lib2to3|pydoc_data|turtledemo|ensurepip"
    r"|distutils|venv|tkinter|config-.*"
)
_LEFT_OUT_EXTENSIONS = re.compile(r"_tkinter|_?curses|_curses_panel|readline|_?g?dbm|nis|_test|xxlimited|_xx")
_LDD_LINE = re.compile(r"\s*(?:(?P<name>\S+) => )?(?P<path>/\S+) \(0x[0-9a-f]+\)")


def import_worker_image(client: docker.APIClient, repository: str, versions: Sequence[str]) -> None:
    """Make the image on an engine and tag it with every version.

    :param client: the low-level client of the engine
    :param repository: name of the image
    :param versions: its tags, at least one
    :raises docker.errors.APIError: the engine refuses it
    :raises ModuleNotFoundError: websockets is not installed here
    """
    with tempfile.NamedTemporaryFile(suffix=".tar") as archive:
        write_root_file_system(archive)
        archive.flush()
        answer = client.import_image_from_file(archive.name, changes=list(_IMAGE_SETTINGS))
    # Named by its id: Podman does not heed the tag of an import, and lists names with a registry.
    image_id = json.loads(answer.splitlines()[-1])["status"]
    for version in versions:
        client.tag(image_id, repository, version)


def write_root_file_system(archive: IO[bytes]) -> None:
    """Write the image's whole file system as a tar archive.

    What the worker imports has its bytecode beside it: a container cannot keep any, and would compile it at
    each start.

    :param archive: file to write to
    :raises OSError: a file of this machine cannot be read
    :raises subprocess.CalledProcessError: the worker cannot be imported here
    """
    executable = Path(sys.executable).resolve()
    library = Path(sysconfig.get_path("stdlib", vars={"base": sys.base_prefix}))
    extensions = [path for path in _files_below(library) if path.suffix == ".so"]
    with tarfile.open(fileobj=archive, mode="w") as tar:
        _add(tar, executable, f"{_PYTHON_HOME}/bin/python3")
        for name, path in _shared_libraries([executable, *extensions]).items():
            _add(tar, path, name)
        modules = dict(_modules(library))
        for name, path in modules.items():
            _add(tar, path, name)
        _add_bytecode(tar, modules)


def _modules(library: Path) -> Iterator[tuple[str, Path]]:
    """Place in the image and file of each module, and of what lies beside them."""
    for path in _files_below(library):
        yield f"{_PYTHON_HOME}/lib/{library.name}/{path.relative_to(library)}", path
    for package in _PACKAGES:
        for folder in _package_folders(package):
            for path in _files_below(folder):
                if path.suffix in (".py", ".toml"):
                    yield f"{_WORKER_HOME}/{package}/{path.relative_to(folder)}", path


def _add_bytecode(tar: tarfile.TarFile, modules: Mapping[str, Path]) -> None:
    """Compile what the worker imports, and put it where the interpreter looks for it."""
    imported = _imported_by_the_worker()
    # A module of the image that somebody changes later is compiled again.
    mode = py_compile.PycInvalidationMode.CHECKED_HASH
    with tempfile.TemporaryDirectory() as folder:
        compiled = Path(folder) / "compiled"
        for name, path in modules.items():
            if path.suffix == ".py" and path in imported:
                py_compile.compile(str(path), str(compiled), f"/{name}", doraise=True, invalidation_mode=mode)
                place = Path(name)
                cached = f"{place.stem}.{sys.implementation.cache_tag}.pyc"
                _add(tar, compiled, str(place.parent / "__pycache__" / cached))


def _imported_by_the_worker() -> set[Path]:
    """The files of all modules that are imported when the worker starts."""
    program = (
        f"import runpy, sys, {_WORKER}\n"
        "for module in sys.modules.values():\n"
        "    print(getattr(module, '__file__', None) or '')"
    )
    places = {str(folder.parent) for package in _PACKAGES for folder in _package_folders(package)}
    listing = subprocess.run(
        [sys.executable, "-c", program],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sorted(places))},
    ).stdout
    return {Path(line) for line in listing.splitlines() if line}


def _files_below(folder: Path) -> Iterator[Path]:
    for path in sorted(folder.iterdir()):
        if path.is_dir():
            if not _LEFT_OUT_FOLDERS.fullmatch(path.name):
                yield from _files_below(path)
        elif path.suffix != ".so" or not _LEFT_OUT_EXTENSIONS.match(path.name):
            yield path


def _package_folders(package: str) -> list[Path]:
    spec = find_spec(package)
    if spec is None or spec.submodule_search_locations is None:
        raise ModuleNotFoundError(f"The image needs the package {package}: install it with pip")
    return [Path(folder) for folder in spec.submodule_search_locations]


def _shared_libraries(binaries: Iterable[Path]) -> dict[str, Path]:
    """The shared libraries of these binaries by their place in the image."""
    listing = subprocess.run(
        ["ldd", *map(str, binaries)],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
        # Else what is put into every process here would count as one of their libraries.
        env={**os.environ, "LD_PRELOAD": ""},
    ).stdout
    libraries = {}
    for line in listing.splitlines():
        match = _LDD_LINE.fullmatch(line)
        if match is None:
            continue
        path = Path(match["path"])
        # The loader itself is listed without an arrow; programs name it by its whole path.
        place = f"{_PYTHON_HOME}/lib/{match['name']}" if match["name"] else str(path).lstrip("/")
        libraries[place] = path.resolve()
    return libraries


def _add(tar: tarfile.TarFile, path: Path, name: str) -> None:
    info = tar.gettarinfo(path, name)
    if info.issym() or info.islnk():
        # Links lead to places that the image does not have.
        info = tar.gettarinfo(path.resolve(), name)
        info.type = tarfile.REGTYPE
        info.size = path.stat().st_size
    info.uid = info.gid = 0
    info.uname = info.gname = "root"
    info.mode = 0o755 if path.stat().st_mode & 0o111 else 0o644
    with path.open("rb") as content:
        tar.addfile(info, content)


def main() -> None:
    """Make the image under the name of [container] image, on the engine of [container] engine_url."""
    parser = argparse.ArgumentParser(
        prog="python -m tovarincore.testing.worker_image", description=(__doc__ or "").partition("\n")[0]
    )
    parser.add_argument("versions", nargs="+", metavar="VERSION", help="tag for the image, for example 1.0.0")
    versions: list[str] = parser.parse_args().versions
    repository: str = core_conf_glbl.container__image
    with docker.APIClient(**client_settings()) as client:
        import_worker_image(client, repository, versions)
    print(*(f"{repository}:{version}" for version in versions), sep="\n")


if __name__ == "__main__":
    main()
