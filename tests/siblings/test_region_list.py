"""The list of the regions that this installation knows."""

import socket
import sys
from pathlib import Path
from typing import Any, NoReturn

import pytest

from tovarincore.cloud_def import CloudRegion, CloudRegions, K8sRegion
from tovarincore.core_conf import ConfigError, core_conf_glbl


@pytest.fixture
def regions_file(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """The regions file, which does not exist yet."""
    path = tmp_path / "regions.toml"
    monkeypatch.setenv("TOVARIN_CLOUD__REGIONS_FILE", str(path))
    core_conf_glbl.reload()
    return path


@pytest.fixture
def no_network(monkeypatch: pytest.MonkeyPatch) -> None:
    """Any connection fails the test."""

    def refuse(*arguments: Any) -> NoReturn:
        raise AssertionError("the network was asked")

    monkeypatch.setattr(socket.socket, "connect", refuse)
    monkeypatch.setattr(socket, "getaddrinfo", refuse)


@pytest.fixture
def no_sdk(monkeypatch: pytest.MonkeyPatch) -> None:
    """A machine on which the Amazon SDK is not installed."""
    for name in [name for name in sys.modules if name.partition(".")[0] in {"botocore", "boto3"}]:
        monkeypatch.delitem(sys.modules, name)
    monkeypatch.setitem(sys.modules, "botocore", None)


def test_the_local_region_always_exists() -> None:
    """Without any configuration, and it is one and the same record."""
    region = CloudRegions.get_local_container_region()
    assert region is not None
    assert (region.name, region.cloud) == ("local", "local")
    assert CloudRegions.get_local_container_region() is region


@pytest.mark.usefixtures("no_network")
def test_amazons_regions_come_from_the_sdks_own_data() -> None:
    """With the names that Amazon gives them; the network is not asked."""
    pytest.importorskip("botocore", reason="the SDK is not installed")
    regions = {region.name: region for region in CloudRegions.get_aws_regions()}
    assert {"us-east-1", "eu-central-1"} <= set(regions)
    assert all(region.cloud == "AWS" for region in regions.values())
    assert regions["eu-central-1"].title == "Europe (Frankfurt)"


@pytest.mark.usefixtures("no_sdk")
def test_without_the_sdk_the_error_says_what_to_do() -> None:
    """Install it, or list the regions in a file."""
    with pytest.raises(ConfigError, match=r"install boto3, or list the regions .* \[cloud\] regions_file"):
        CloudRegions.get_aws_regions()


@pytest.mark.usefixtures("no_sdk")
def test_without_the_sdk_the_other_regions_are_listed(regions_file: Path) -> None:
    """A machine for Kubernetes alone needs no Amazon SDK."""
    regions_file.write_text('[[region]]\ncloud = "k8s"\nname = "lab"\n')
    assert [region.key for region in CloudRegions.get_all()] == ["local:local", "k8s:lab"]
    assert CloudRegions.find("eu-central-1") is None


@pytest.mark.usefixtures("no_sdk")
def test_the_file_takes_the_place_of_the_sdks_data(regions_file: Path) -> None:
    """In the order of the file."""
    regions_file.write_text(
        '[[region]]\ncloud = "AWS"\nname = "us-west-2"\ntitle = "Home"\n'
        '[[region]]\ncloud = "k8s"\nname = "lab"\n'
        '[[region]]\ncloud = "AWS"\nname = "cn-north-1"\n'
    )
    assert [(region.name, region.title) for region in CloudRegions.get_aws_regions()] == [
        ("us-west-2", "Home"),
        ("cn-north-1", ""),
    ]
    assert [region.name for region in CloudRegions.get_all()] == ["local", "lab", "us-west-2", "cn-north-1"]


def test_kubernetes_regions_come_from_the_file(regions_file: Path) -> None:
    """A relative kubeconfig is meant from the file's own folder."""
    regions_file.write_text(
        '[[region]]\ncloud = "k8s"\nname = "lab"\n'
        '[[region]]\ncloud = "k8s"\nname = "prod"\ntitle = "P"\nnamespace = "n"\nkubeconfig = "kube/config"\n'
        'context = "c"\nin_cluster = true\n'
    )
    lab, prod = CloudRegions.get_k8s_regions()
    assert vars(lab) == vars(K8sRegion("lab"))
    assert vars(prod) == vars(
        K8sRegion("prod", "k8s", "P", "n", str(regions_file.parent / "kube" / "config"), "c", True)
    )


def test_without_a_file_there_are_no_kubernetes_regions() -> None:
    """No cluster is guessed."""
    assert CloudRegions.get_k8s_regions() == []


def test_a_kubeconfig_in_the_home_directory_is_found(
    regions_file: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """As a shell would expand it."""
    monkeypatch.setenv("HOME", "/home/ada")
    regions_file.write_text('[[region]]\ncloud = "k8s"\nname = "lab"\nkubeconfig = "~/.kube/config"\n')
    assert CloudRegions.get_k8s_regions()[0].kubeconfig == "/home/ada/.kube/config"


def test_a_region_is_found_by_name_and_by_key(regions_file: Path) -> None:
    """The key tells regions of different kinds apart."""
    regions_file.write_text(
        '[[region]]\ncloud = "k8s"\nname = "both"\n[[region]]\ncloud = "AWS"\nname = "both"\n'
    )
    assert CloudRegions.find("local") is CloudRegions.get_local_container_region()
    assert CloudRegions.find("local:local") is CloudRegions.get_local_container_region()
    assert CloudRegions.find("both") == K8sRegion("both")
    assert CloudRegions.find("k8s:both") == K8sRegion("both")
    assert CloudRegions.find(K8sRegion("both").hash_key) == K8sRegion("both")
    assert CloudRegions.find("AWS:both") == CloudRegion("both", "AWS")
    assert CloudRegions.find("nowhere") is None


def test_a_region_is_got_by_name_or_the_nearest_is_suggested() -> None:
    """Unlike find, get never gives None: a misspelt name ends in an error with the right one."""
    assert CloudRegions.get("us-east-1") == CloudRegions.find("us-east-1")
    with pytest.raises(LookupError, match=r'^unknown region "us-east1"; did you mean "us-east-1"\?$'):
        CloudRegions.get("us-east1")
