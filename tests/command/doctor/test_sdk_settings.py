"""Settings that requests to EC2 do not follow."""

from __future__ import annotations

from pathlib import Path

import pytest

from stage.settings import settings_of
from tovarincore.cloud_def import AWSCloudAuth
from tovarincore.command.doctor.sdk_settings import check_sdk_settings
from tovarincore.command.doctor.verdicts import Level

VARIABLES = "HTTPS_PROXY HTTP_PROXY ALL_PROXY NO_PROXY REQUESTS_CA_BUNDLE"
PROXY = {"proxy": {"enabled": True, "https": "http://proxy.example:3128"}}


@pytest.fixture(autouse=True)
def no_variables(monkeypatch: pytest.MonkeyPatch) -> None:
    """None of the variables is set."""
    for name in VARIABLES.split():
        monkeypatch.delenv(name, raising=False)
        monkeypatch.delenv(name.lower(), raising=False)


@pytest.mark.parametrize(
    "variable, settings, words",
    [
        ("HTTPS_PROXY", {}, "HTTPS_PROXY has no effect"),
        ("https_proxy", {}, "https_proxy has no effect"),
        ("NO_PROXY", PROXY, "NO_PROXY has no effect: every request"),
        ("AWS_CA_BUNDLE", {}, "AWS_CA_BUNDLE has no effect"),
        ("REQUESTS_CA_BUNDLE", {}, "REQUESTS_CA_BUNDLE has no effect"),
        ("AWS_ENDPOINT_URL_EC2", {}, "requests go to http://127.0.0.1:9"),
    ],
)
def test_variables_without_effect_are_named(
    tmp_path: Path, variable: str, settings: dict[str, dict[str, object]], words: str
) -> None:
    """What a person may rely on in vain is a warning."""
    with settings_of(tmp_path, settings, **{variable: "http://127.0.0.1:9"}):
        (verdict,) = check_sdk_settings("AWS:r", AWSCloudAuth())
    assert verdict.level is Level.WARN
    assert words in verdict.text


@pytest.mark.parametrize(
    "variable, settings", [("HTTPS_PROXY", PROXY), ("NO_PROXY", {})], ids=["proxy", "bypass"]
)
def test_variables_that_change_nothing_are_not_mentioned(
    tmp_path: Path, variable: str, settings: dict[str, dict[str, object]]
) -> None:
    """With a configured proxy the variable for one is no surprise; without any, neither is a bypass."""
    with settings_of(tmp_path, settings, **{variable: "http://127.0.0.1:9"}):
        (verdict,) = check_sdk_settings("AWS:r", AWSCloudAuth())
    assert verdict.level is Level.OK


def test_certificates_of_a_profile_have_no_effect_either(tmp_path: Path) -> None:
    """The profile's ca_bundle is found where the SDK would look."""
    (tmp_path / "aws-config").write_text("[profile work]\nca_bundle = /etc/ca.pem\n")
    with settings_of(tmp_path, {}):
        (verdict,) = check_sdk_settings("AWS:r", AWSCloudAuth(aws_profile="work"))
    assert "ca_bundle of the AWS configuration has no effect" in verdict.text


def test_certificates_that_are_not_verified_are_a_warning(tmp_path: Path) -> None:
    """The setting that turns verification off is named."""
    with settings_of(tmp_path, {"network": {"bypass_ssl_verification": True}}):
        (verdict,) = check_sdk_settings("AWS:r", AWSCloudAuth())
    assert (verdict.level, "not verified" in verdict.text) == (Level.WARN, True)
