"""The list of known instance types."""

import re
from importlib.metadata import version
from pathlib import Path
from unittest.mock import patch

import pytest

from tests.conftest import ROOT
from tovarincore.cloud_def import CloudInstances, CloudInstanceTypeDef
from tovarincore.core_conf import core_conf_glbl


@pytest.fixture
def types_file(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """The user's file, which does not exist yet."""
    path = tmp_path / "types.toml"
    monkeypatch.setenv("TOVARIN_CLOUD__INSTANCE_TYPES_FILE", str(path))
    core_conf_glbl.reload()
    return path


def find(name: str) -> CloudInstanceTypeDef | None:
    """The type of this name, as a listing looks for it."""
    return next((item for item in CloudInstances.instance_type_list if item.instance_type == name), None)


def test_the_shipped_list_knows_the_common_families() -> None:
    """A listing stops at an unknown type, so the list is long, and no name stands in it twice."""
    names = [item.instance_type for item in CloudInstances.instance_type_list]
    assert len(names) == len(set(names)) > 500
    families = {name.partition(".")[0] for name in names}
    assert {"t2", "t3", "m5", "c5", "r5", "g4dn", "g5", "p3", "m7i", "t4g"} <= families


def test_the_shipped_types_are_as_ec2_describes_them() -> None:
    """Spot checks: vCPUs, memory in MiB, graphics processors."""
    assert find("t3.micro") == CloudInstanceTypeDef("t3.micro", 2, 1024)
    assert find("g4dn.12xlarge") == CloudInstanceTypeDef("g4dn.12xlarge", 48, 196608, 4, "NVIDIA T4")
    assert find("p3.2xlarge") == CloudInstanceTypeDef("p3.2xlarge", 8, 62464, 1, "NVIDIA V100")


def test_botocore_knows_every_shipped_type() -> None:
    """A misspelt name would never match an instance."""
    pinned = re.search(r"^botocore==(.+)$", (ROOT / "requirements/core.txt").read_text(), re.MULTILINE)
    assert pinned is not None
    if version("botocore") != pinned[1]:
        pytest.skip(f"the file of types is that of botocore {pinned[1]}")
    botocore_session = pytest.importorskip("botocore.session", reason="the SDK is not installed")
    known = set(botocore_session.Session().get_service_model("ec2").shape_for("InstanceType").enum)
    assert {item.instance_type for item in CloudInstances.instance_type_list} <= known


def test_the_list_is_read_once() -> None:
    """A listing reads it once per instance."""
    assert CloudInstances.instance_type_list is CloudInstances.instance_type_list
    assert CloudInstances().instance_type_list is CloudInstances.instance_type_list


def test_the_list_can_be_replaced() -> None:
    """By the tools that tests use, which put the reading back."""
    shipped = CloudInstances.instance_type_list
    with patch.object(CloudInstances, "instance_type_list", [CloudInstanceTypeDef("x.1", 1, 1)]):
        assert [item.instance_type for item in CloudInstances.instance_type_list] == ["x.1"]
    assert CloudInstances.instance_type_list is shipped


def test_the_users_file_adds_and_replaces(types_file: Path) -> None:
    """A type in both files is as the user says."""
    types_file.write_text(
        "[instance_types]\n"
        '"t3.micro" = { cpu_count = 1, memory_mib = 5 }\n'
        '"z9.huge" = { cpu_count = 999, memory_mib = 7, gpu_count = 2, gpu_model = "M" }\n'
    )
    assert find("t3.micro") == CloudInstanceTypeDef("t3.micro", 1, 5)
    assert find("z9.huge") == CloudInstanceTypeDef("z9.huge", 999, 7, 2, "M")
    assert find("m5.large") is not None


def test_the_local_type_is_as_large_as_the_container_may_be(monkeypatch: pytest.MonkeyPatch) -> None:
    """The limits of the container are the machine that a worker sees."""
    assert CloudInstances.get_default_local_instance_type() == CloudInstanceTypeDef("local", 1.0, 2048)
    monkeypatch.setenv("TOVARIN_CONTAINER__CPU_COUNT", "2.5")
    monkeypatch.setenv("TOVARIN_CONTAINER__MEMORY_MIB", "512")
    core_conf_glbl.reload()
    assert CloudInstances.get_default_local_instance_type() == CloudInstanceTypeDef("local", 2.5, 512)


def test_a_type_is_found_by_name_or_the_nearest_is_suggested() -> None:
    """A misspelt name ends in an error with the right one; a strange one does not list hundreds."""
    assert CloudInstances.find("t3.small") == CloudInstanceTypeDef("t3.small", 2, 2048)
    with pytest.raises(LookupError, match=r'^unknown instance type "t3.smal"; did you mean "t3.small"\?$'):
        CloudInstances.find("t3.smal")
    with pytest.raises(LookupError, match=r"and \d+ more$"):
        CloudInstances.find("zzzzzzz")
