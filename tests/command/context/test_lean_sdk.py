"""What is kept of the SDK's data, so that a command need not read all of it."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import botocore.loaders
import pytest
from botocore import xform_name

from tests.conftest import ROOT
from tovarincore.command.context import lean_sdk
from tovarincore.command.context.lean_sdk import OPERATIONS, LeanLoader


@pytest.fixture(autouse=True)
def cache_file(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """Where the data is kept during the test; nothing is there yet."""
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    lean_sdk._kept.cache_clear()
    return tmp_path / "tovarin" / "sdk-data.json"


@pytest.fixture(scope="module")
def full() -> Any:
    """EC2's description as the SDK has it."""
    return botocore.loaders.Loader().load_service_model("ec2", "service-2")


def test_every_request_of_the_product_is_kept(full: Any) -> None:
    """A request whose name stands in a source and not in the list would fail with a strange error."""
    sources = [*ROOT.glob("tovarincore/cloud_node/**/*.cpp"), *ROOT.glob("tovarincore/command/**/*.py")]
    sources += ROOT.glob("tovarincore/fleet/*.py")
    text = "\n".join(path.read_text(encoding="utf-8") for path in sources)
    asked = {
        name
        for name in full["operations"]
        if f'"{xform_name(name)}"' in text or f".{xform_name(name)}(" in text
    }
    assert len(asked) > 15
    assert asked <= set(OPERATIONS)


def test_what_is_kept_is_what_the_sdk_says(full: Any) -> None:
    """Operations and shapes are the same but for their documentation, and no shape is missing."""
    lean = LeanLoader().load_service_model("ec2", "service-2")
    assert set(lean["operations"]) == set(OPERATIONS)
    for name, operation in lean["operations"].items():
        assert operation.items() <= full["operations"][name].items()
    for name, shape in lean["shapes"].items():
        whole = full["shapes"][name]
        for key in shape.keys() - {"members"}:
            assert shape[key] == whole[key]
        assert shape.get("members", {}).keys() == whole.get("members", {}).keys()
        for part in shape.get("members", {}).values():
            assert part["shape"] in lean["shapes"]


def test_the_second_process_reads_the_file(cache_file: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """It is its owner's alone, and gives what was made."""
    made = LeanLoader().load_service_model("ec2", "service-2")
    assert cache_file.stat().st_mode & 0o777 == 0o600
    lean_sdk._kept.cache_clear()
    monkeypatch.setattr(lean_sdk, "_make", lambda: pytest.fail("it was made again"))
    assert LeanLoader().load_service_model("ec2", "service-2") == made


@pytest.mark.parametrize("damage", ["", "[]", '{"of": [0]}', "other version"])
def test_a_file_that_is_no_use_is_made_again(cache_file: Path, damage: str) -> None:
    """It is half written, somebody else's, or of another version of the SDK."""
    LeanLoader().load_service_model("ec2", "service-2")
    kept = json.loads(cache_file.read_bytes())
    kept["of"][1] = "0.0"
    cache_file.write_text(json.dumps(kept) if damage == "other version" else damage)
    lean_sdk._kept.cache_clear()
    assert LeanLoader().load_service_model("ec2", "service-2")["operations"]
    assert json.loads(cache_file.read_bytes())["of"][1] != "0.0"


def test_a_cache_that_cannot_be_written_is_no_failure(tmp_path: Path, cache_file: Path) -> None:
    """The data is made for the run alone."""
    (tmp_path / "tovarin").write_text("in the folder's place")
    assert LeanLoader().load_service_model("ec2", "service-2")["operations"]


def test_a_description_of_the_user_s_own_wins(tmp_path: Path) -> None:
    """The SDK looks into folders that the user names; what is there is not passed over."""
    folder = tmp_path / "models" / "ec2" / "2016-11-15"
    folder.mkdir(parents=True)
    (folder / "service-2.json").write_text('{"metadata": {}, "operations": {"Own": {}}, "shapes": {}}')
    loader = LeanLoader([str(tmp_path / "models")])
    assert "Own" in loader.load_service_model("ec2", "service-2")["operations"]


def test_other_services_are_read_as_ever() -> None:
    """Only EC2 is known."""
    assert "GetCallerIdentity" in LeanLoader().load_service_model("sts", "service-2")["operations"]
