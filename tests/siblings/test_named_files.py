"""The files that settings name, of instance types and of regions: what is wrong in them is said."""

from collections.abc import Callable
from pathlib import Path

import pytest

from tovarincore.cloud_def import CloudInstances, CloudRegions
from tovarincore.core_conf import ConfigError, core_conf_glbl

# By the setting: what reads the file.
READ: dict[str, Callable[[], object]] = {
    "instance_types_file": lambda: CloudInstances.instance_type_list,
    "regions_file": CloudRegions.get_all,
}
MISTAKES = {
    "instance_types_file": [
        (
            '[instance_types]\n"a.b" = { cpu_count = 0, memory_mib = 1 }',
            ['"a.b"', "cpu_count 0", "at least 1"],
        ),
        (
            '[instance_types]\n"a.b" = { cpu_count = 1, memory_mib = "1" }',
            ["memory_mib '1'", "a whole number"],
        ),
        ('[instance_types]\n"a.b" = { cpu_count = 1 }', ['"a.b": memory_mib is missing']),
        ('[instance_types]\n"a.b" = { cpus = 1 }', ['unknown key "cpus"', "cpu_count, gpu_count"]),
        ('[instance_types]\n"a.b" = 1', ['"a.b": 1 is not allowed', "{ cpu_count = 2, memory_mib = 4096 }"]),
        (
            "[instance_types]\na.b = { cpu_count = 1, memory_mib = 1 }",
            ['"a": is only half a name', 'in quotes: "a.b"'],
        ),
        ("[instance_typs]", ['unknown section "instance_typs"', 'did you mean "instance_types"?']),
        ("instance_types = 1", ["allowed is a section [instance_types]"]),
        ("[instance_types", ["is not valid TOML at"]),
    ],
    "regions_file": [
        ('[[region]]\ncloud = "aws"\nname = "a"', ["[[region]] number 1", "'aws'", '"AWS" or "k8s"']),
        ('[[region]]\ncloud = "local"\nname = "a"', ["the local region always exists"]),
        ('[[region]]\nname = "a"', ["cloud None"]),
        ('[[region]]\ncloud = "AWS"', ["name is missing"]),
        ('[[region]]\ncloud = "AWS"\nname = ""', ["name is missing"]),
        ('[[region]]\ncloud = "AWS"\nname = 5', ["name 5", "a text"]),
        (
            '[[region]]\ncloud = "AWS"\nname = "a"\nnamespace = "n"',
            ['unknown key "namespace" of a region of AWS'],
        ),
        ('[[region]]\ncloud = "k8s"\nname = "a"\nin_cluster = 1', ["in_cluster 1", "true or false"]),
        ('[[region]]\ncloud = "k8s"\nname = "a"\nnamspace = "n"', ['did you mean "namespace"?']),
        ('[[region]]\ncloud = "AWS"\nname = "a"\n' * 2, ["numbers 1 and 2 are both AWS:a"]),
        ('[[regions]]\ncloud = "AWS"', ['unknown section "regions"', 'did you mean "region"?']),
        ('[region]\ncloud = "AWS"', ["allowed are tables [[region]]"]),
        ("region = [1]", ["allowed are tables [[region]]"]),
    ],
}


@pytest.fixture
def file(setting: str, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """The file that the setting names, which does not exist yet."""
    path = tmp_path / "named.toml"
    monkeypatch.setenv(f"TOVARIN_CLOUD__{setting.upper()}", str(path))
    core_conf_glbl.reload()
    return path


@pytest.mark.parametrize(
    ("setting", "text", "parts"),
    [(setting, *mistake) for setting, mistakes in MISTAKES.items() for mistake in mistakes],
)
def test_a_file_with_a_mistake_is_refused(file: Path, setting: str, text: str, parts: list[str]) -> None:
    """With the file, the type or the number of the region, the key and what is allowed."""
    file.write_text(text)
    with pytest.raises(ConfigError) as caught:
        READ[setting]()
    for part in [f"{file}: ", *parts]:
        assert part in str(caught.value)


@pytest.mark.parametrize("setting", READ)
def test_a_missing_file_is_refused(file: Path, setting: str) -> None:
    """It was named on purpose; the setting that names it is told."""
    with pytest.raises(ConfigError, match=rf"named\.toml: no such file; the setting \[cloud\] {setting}"):
        READ[setting]()
