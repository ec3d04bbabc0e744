"""Settings, credentials and variables for what plays on the stage: never the user's, and gone at the end."""

from __future__ import annotations

import os
import tempfile
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import tomli_w

from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import CloudRegion
from tovarincore.core_conf import core_conf_glbl

# They would send requests elsewhere, ask for credentials that are not there or change what is shown.
FOREIGN_PREFIXES = ("AWS_", "TOVARIN_", "DOCKER_")
# Nothing listens there: a request that nobody foresaw fails at once.
NOWHERE = "http://127.0.0.1:1"


@contextmanager
def environment(values: Mapping[str, str]) -> Iterator[None]:
    """Run the body with these variables and none of the user's that name accounts, settings or engines."""
    before = dict(os.environ)
    for name in [name for name in os.environ if name.startswith(FOREIGN_PREFIXES)]:
        del os.environ[name]
    os.environ.update(values)
    try:
        yield
    finally:
        os.environ.clear()
        os.environ.update(before)


@contextmanager
def settings_of(folder: Path, sections: Mapping[str, Any], **variables: str) -> Iterator[None]:
    """Let the package read these sections, and no stored credentials, until the end of the body.

    :param folder: gets the settings file, and the credential store when something is stored
    :param sections: content of the settings file
    :param variables: environment variables on top, such as AWS_ENDPOINT_URL_EC2
    """
    configuration = folder / "core.toml"
    configuration.write_text(tomli_w.dumps(sections), encoding="utf-8")
    # As files with secrets have to be.
    configuration.chmod(0o600)
    values = {
        # Keeps the SDK away from the user's profiles and from the metadata service of a cloud machine.
        "AWS_CONFIG_FILE": str(folder / "aws-config"),
        "AWS_SHARED_CREDENTIALS_FILE": str(folder / "aws-credentials"),
        "AWS_EC2_METADATA_DISABLED": "true",
        # Nor is anything put into the user's cache.
        "XDG_CACHE_HOME": str(folder / "cache"),
        "TOVARIN_CONF": str(configuration),
        "TOVARIN_CLOUD_CONF": str(folder / "cloud.toml"),
    }
    try:
        with environment({**values, **variables}):
            core_conf_glbl.reload()
            yield
    finally:
        core_conf_glbl.reload()


@contextmanager
def surroundings(
    endpoint_url: str, region: CloudRegion, credentials: CloudConf, settings: Mapping[str, Any]
) -> Iterator[None]:
    """Run the body with EC2 requests going to `endpoint_url`, stored credentials and settings."""
    with (
        tempfile.TemporaryDirectory(prefix="tovarin-stage-") as folder,
        settings_of(Path(folder), settings, AWS_ENDPOINT_URL_EC2=endpoint_url),
    ):
        CloudConfManager().set_cloud_conf(region, credentials)
        yield
