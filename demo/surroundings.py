"""What a demo gives the node manager to work with: settings, stored credentials, an environment."""

from __future__ import annotations

import tempfile
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path

import tomli_w

from demo.environment import environment
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import CloudRegion
from tovarincore.core_conf import core_conf_glbl


@contextmanager
def surroundings(
    endpoint_url: str, region: CloudRegion, credentials: CloudConf, settings: Mapping[str, object]
) -> Iterator[None]:
    """Run the body with EC2 requests going to `endpoint_url`, stored credentials and settings.

    The settings file and the credential store lie in a temporary folder; the user's own are neither
    read nor written.
    """
    with tempfile.TemporaryDirectory(prefix="tovarin-demo-") as folder_name:
        folder = Path(folder_name)
        conf_path = folder / "core.toml"
        conf_path.write_text(tomli_w.dumps(settings), encoding="utf-8")
        values = {
            "AWS_ENDPOINT_URL_EC2": endpoint_url,
            # Keeps the SDK away from the user's profiles and from the metadata service of a cloud machine.
            "AWS_CONFIG_FILE": str(folder / "aws-config"),
            "AWS_SHARED_CREDENTIALS_FILE": str(folder / "aws-credentials"),
            "AWS_EC2_METADATA_DISABLED": "true",
            "TOVARIN_CONF": str(conf_path),
            "TOVARIN_CLOUD_CONF": str(folder / "cloud.toml"),
        }
        with environment(values):
            core_conf_glbl.reload()
            CloudConfManager().set_cloud_conf(region, credentials)
            try:
                yield
            finally:
                core_conf_glbl.reload()
