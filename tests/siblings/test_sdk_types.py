"""The types that only the installed SDK knows: they follow the files' ones once somebody comes to them."""

import copy
import dataclasses
import pickle
import threading
from collections.abc import Callable
from datetime import date
from pathlib import Path

import pytest

from tovarincore._cloud_def import sdk_types
from tovarincore.cloud_def import CloudInstances, CloudInstanceTypeDef
from tovarincore.core_conf import ConfigError, core_conf_glbl

# In EC2's model since 2006, and too old for the files.
OLD = "m1.small"


@pytest.fixture
def readings(monkeypatch: pytest.MonkeyPatch) -> list[str]:
    """Every reading of the SDK's names in the test, which are four; two of them stand in the shipped file."""
    seen: list[str] = []

    def names() -> list[str]:
        seen.append("read")
        return ["t3.small", "new.one", "t3.micro", "new.two"]

    monkeypatch.setattr(sdk_types, "_names_of_sdk", names)
    return seen


def new_types() -> list[CloudInstanceTypeDef]:
    """What is to follow, with sizes that are not known."""
    return [CloudInstanceTypeDef("new.one", 0, 0), CloudInstanceTypeDef("new.two", 0, 0)]


def search(name: str) -> CloudInstanceTypeDef | None:
    """Look for a type as a listing does."""
    return next((item for item in CloudInstances.instance_type_list if item.instance_type == name), None)


def test_a_search_that_finds_a_known_type_reads_no_description(readings: list[str]) -> None:
    """Listings stay as fast as they are."""
    assert search("t3.small") == CloudInstanceTypeDef("t3.small", 2, 2048)
    assert readings == []


def test_a_search_that_comes_to_the_end_goes_on(readings: list[str]) -> None:
    """And the description is read once, whatever is found."""
    assert search("new.two") == CloudInstanceTypeDef("new.two", 0, 0)
    assert search("new.one") == CloudInstanceTypeDef("new.one", 0, 0)
    assert search("never.was") is None
    assert CloudInstances.instance_type_list[-2:] == new_types()
    assert {type(item) for item in CloudInstances.instance_type_list} == {CloudInstanceTypeDef}
    assert readings == ["read"]


LOOKS: dict[str, Callable[[CloudInstanceTypeDef], object]] = {
    "repr": repr,
    "comparing": lambda last: last == CloudInstanceTypeDef("new.one", 0, 0) or last.cpu_count,
    "copying": copy.copy,
    "copying deeply": copy.deepcopy,
    "pickling": lambda last: pickle.loads(pickle.dumps(last)),
    "as a dictionary": dataclasses.asdict,
    "replacing": lambda last: dataclasses.replace(last, gpu_count=1),
    "size": lambda last: last.memory_mib,
}


@pytest.mark.parametrize("look", LOOKS.values(), ids=LOOKS.keys())
def test_whoever_looks_at_the_last_one_sees_a_type(
    readings: list[str], look: Callable[[CloudInstanceTypeDef], object]
) -> None:
    """It is one from then on, and so is what was made of it."""
    last = CloudInstances.instance_type_list[-1]
    seen = look(last)
    assert type(last) is CloudInstanceTypeDef and last == CloudInstanceTypeDef("new.one", 0, 0)
    assert type(seen) is not type(last) or seen.instance_type == "new.one"
    assert not hasattr(last, "no_such_field")
    assert CloudInstances.instance_type_list[-2:] == new_types()


def test_a_deep_copy_of_the_list_is_one_of_types(readings: list[str]) -> None:
    """It shares nothing with the list."""
    copied = copy.deepcopy(CloudInstances.instance_type_list)
    assert copied[-1].instance_type in ("new.one", "new.two")
    assert copied[-1] is not CloudInstances.instance_type_list[-2]


@pytest.mark.parametrize("names", [[], ["t3.small"]], ids=["no SDK", "nothing to add"])
def test_without_further_types_the_list_ends(names: list[str], monkeypatch: pytest.MonkeyPatch) -> None:
    """No element of it is an odd one afterwards."""
    monkeypatch.setattr(sdk_types, "_names_of_sdk", lambda: names)
    assert search(OLD) is None
    listed = [item.instance_type for item in CloudInstances.instance_type_list]
    assert all(listed) and len(listed) == len(set(listed))


def test_threads_that_come_to_the_end_together_find_the_same(readings: list[str]) -> None:
    """One of them reads the description."""
    barrier, found = threading.Barrier(8), []

    def look() -> None:
        barrier.wait()
        found.append(search("new.two"))

    threads = [threading.Thread(target=look) for _ in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert found == [CloudInstanceTypeDef("new.two", 0, 0)] * 8
    assert readings == ["read"]


def test_every_type_that_the_installed_sdk_names_is_known() -> None:
    """With its own description of EC2, none twice; a listing stops at none of them."""
    botocore_session = pytest.importorskip("botocore.session", reason="the SDK is not installed")
    named = botocore_session.Session().get_service_model("ec2").shape_for("InstanceType").enum
    listed = [item.instance_type for item in CloudInstances.instance_type_list]
    # An older SDK does not name all types of the file.
    assert set(listed) >= set(named) and len(listed) == len(set(listed)) > 700
    assert CloudInstances.find(OLD) == CloudInstanceTypeDef(OLD, 0, 0)


def test_a_user_file_beside_the_settings_is_read(conf_file: Path) -> None:
    """No setting has to name it; where the setting names one, that one is meant."""
    path = conf_file.with_name("instance_types.toml")
    assert CloudInstances.get_user_file() == path
    path.write_text('[instance_types]\n"z9.huge" = { cpu_count = 9, memory_mib = 9 }\n')
    assert search("z9.huge") == CloudInstanceTypeDef("z9.huge", 9, 9)
    conf_file.write_text(f'[cloud]\ninstance_types_file = "{conf_file.parent}/other.toml"\n')
    core_conf_glbl.reload()
    assert CloudInstances.get_user_file() == conf_file.with_name("other.toml")


def test_the_date_of_the_sizes_is_the_newest_of_both_files(conf_file: Path) -> None:
    """A file without a date says nothing."""
    shipped = CloudInstances.get_data_date()
    assert shipped is not None and shipped > date(2020, 1, 1)
    path = conf_file.with_name("instance_types.toml")
    for text, newest in (("", shipped), ("updated = 2001-01-01", shipped), ("updated = 2099-12-31", None)):
        path.write_text(f"{text}\n[instance_types]\n")
        core_conf_glbl.reload()
        assert CloudInstances.get_data_date() == (newest or date(2099, 12, 31))


@pytest.mark.parametrize("value", ["1", '"2026-01-31"', "2026-01-31T10:00:00Z"])
def test_a_date_that_is_none_is_refused(conf_file: Path, value: str) -> None:
    """The text shows one."""
    conf_file.with_name("instance_types.toml").write_text(f"updated = {value}\n")
    with pytest.raises(ConfigError, match="updated .* is not allowed; allowed is a date such as 2026-01-31"):
        CloudInstances.get_data_date()
