"""What importing the sibling modules does not do."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

# An audit hook sees every open() of the process; modules themselves are read, so their files do not count.
_PROGRAM = """
import sys
opened = []
def hook(event, arguments):
    if event == "open" and not str(arguments[0]).endswith((".py", ".pyc", ".so")):
        opened.append(str(arguments[0]))
sys.addaudithook(hook)
class Refuse:
    def find_spec(self, name, path=None, target=None):
        if name.partition(".")[0] in {"boto3", "botocore", "dateutil", "docker", "lightkube"}:
            raise ModuleNotFoundError("No module named " + repr(name), name=name)
sys.meta_path.insert(0, Refuse())
import tovarincore
from tovarincore import api_def, cloud_conf, cloud_def, core_conf, core_def, util, webs_client
cloud_conf.CloudConfManager()
cloud_def.CloudRegion("a", "AWS"), cloud_def.K8sRegion("b"), cloud_def.AWSCloudAuth()
cloud_def.CloudRegions.get_local_container_region()
core_conf.CoreConf()
hasattr(core_conf.core_conf_glbl, "__deepcopy__"), hasattr(core_conf.core_conf_glbl, "_nothing")
dir(core_conf.core_conf_glbl), repr(core_conf.core_conf_glbl)
assert not opened, opened
"""


def run(program: str, **environment: str) -> subprocess.CompletedProcess[str]:
    """Run a program in a child process that finds the package."""
    root = Path(__file__).resolve().parents[2]
    return subprocess.run(
        [sys.executable, "-X", "dev", "-W", "error", "-c", program],
        cwd=root,
        env={**os.environ, "PYTHONPATH": str(root), **environment},
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )


def test_imports_and_constructors_read_no_file_and_need_no_sdk(tmp_path: Path) -> None:
    """Broken configuration files lie ready: neither is opened, and no SDK is looked for."""
    for name in ("core.toml", "cloud.toml"):
        (tmp_path / name).write_text("not toml [")
    child = run(
        _PROGRAM,
        TOVARIN_CONF=str(tmp_path / "core.toml"),
        TOVARIN_CLOUD_CONF=str(tmp_path / "cloud.toml"),
        TOVARIN_NO__SUCH="1",
    )
    assert (child.returncode, child.stdout, child.stderr) == (0, "", "")


@pytest.mark.parametrize(
    "module", ["core_def", "api_def", "util", "core_conf", "cloud_def", "cloud_conf", "webs_client"]
)
def test_each_module_can_be_imported_first(module: str) -> None:
    """No module relies on another one having been imported before it."""
    child = run(f"import tovarincore.{module}")
    assert (child.returncode, child.stderr) == (0, "")


def test_the_package_imports_nothing() -> None:
    """Importing the package alone costs nothing."""
    child = run("import sys, tovarincore; print([m for m in sys.modules if m.startswith('tovarincore.')])")
    assert child.stdout == "[]\n"
