"""A region of fakes that the command can open."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

from tests.fleet.accounts import Account, account
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth

__all__ = ["Account", "opened_account"]


@contextmanager
def opened_account() -> Iterator[Account]:
    """A region of fakes with stored credentials."""
    with account() as found:
        CloudConfManager().set_cloud_conf(found.region, CloudConf(AWSCloudAuth(aws_profile="fake"), "tester"))
        yield found
