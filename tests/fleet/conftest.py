"""The emulated account that launches of fleets work on."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import boto3
import pytest

from stage.ec2 import IMAGE_NAME, USER_NAME, Ec2World
from stage.ec2_endpoint import ACCESS_KEY_ID, SECRET_ACCESS_KEY
from stage.ec2_fixtures import ec2, ec2_endpoint, healthy_worker, sdk_data_read_once
from stage.patience import SETUP_SECONDS
from tests.fleet.accounts import Account, account
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import CloudRegion
from tovarincore.fleet import Patience

# Named here, pytest finds them in this folder too.
__all__ = ["ec2", "ec2_endpoint", "healthy_worker", "sdk_data_read_once"]


@pytest.fixture
def hasty() -> Patience:
    """Repetitions without the pauses that a real provider needs."""
    return Patience(seconds=SETUP_SECONDS, first_pause=0.01, longest_pause=0.05, unseen_seconds=0.1)


@pytest.fixture
def world() -> Iterator[Account]:
    """An empty region in memory."""
    with account() as made:
        yield made


def second_region(world: Ec2World) -> CloudRegion:
    """Another region of the account, with the key pair, its own image and stored credentials."""
    region = CloudRegion("eu-west-1", "AWS")
    CloudConfManager().set_cloud_conf(region, CloudConf(world.auth, USER_NAME))
    session: Any = boto3.Session(ACCESS_KEY_ID, SECRET_ACCESS_KEY, region_name=region.name)
    client = session.client("ec2", endpoint_url=world.endpoint.url)
    image_id = client.register_image(Name=IMAGE_NAME, RootDeviceName="/dev/sda1")["ImageId"]
    client.modify_image_attribute(ImageId=image_id, LaunchPermission={"Add": [{"Group": "all"}]})
    client.create_key_pair(KeyName="tovarin-key")
    client.close()
    return region
