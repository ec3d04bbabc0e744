"""The command's own look at EC2, for what the facade does not tell."""

from typing import Any

from tovarincore.cloud_def import AWSCloudAuth
from tovarincore.command.context.access import Access
from tovarincore.core_conf import core_conf_glbl

__all__ = ["open_client"]


def open_client(access: Access) -> Any:
    """Return an EC2 client with the region's credentials, proxy and certificate settings.

    :raises Exception: whatever the SDK raises, for example for an unknown profile
    """
    import boto3
    from botocore.config import Config

    auth = access.auth
    assert isinstance(auth, AWSCloudAuth)
    if auth.aws_profile:
        session = boto3.Session(profile_name=auth.aws_profile)
    else:
        session = boto3.Session(
            aws_access_key_id=auth.aws_access_key_id,
            aws_secret_access_key=auth.aws_secret_access_key,
            aws_session_token=auth.aws_session_token,
        )
    proxies: dict[str, str] = {}
    if core_conf_glbl.proxy_enabled:
        proxies["http"], proxies["https"] = core_conf_glbl.get_proxy_conf_tuple()
    return session.client(
        "ec2",
        region_name=access.region.name,
        config=Config(retries={"total_max_attempts": 2, "mode": "standard"}, proxies=proxies),
        verify=not core_conf_glbl.network__bypass_ssl_verification,
    )
