"""What ``doctor`` looks at of the settings for proxies and certificates.

The provider gives the SDK's client both explicitly, so that the SDK reads none of the variables and files
that usually say them.
"""

import os
from collections.abc import Iterator
from typing import Any

from tovarincore.cloud_def import AWSCloudAuth
from tovarincore.command.doctor.verdicts import Verdict, ok, warn
from tovarincore.core_conf import core_conf_glbl

__all__ = ["check_sdk_settings"]

_PROXY_VARIABLES = ("HTTPS_PROXY", "https_proxy", "HTTP_PROXY", "http_proxy", "ALL_PROXY", "all_proxy")
_BYPASS_VARIABLES = ("NO_PROXY", "no_proxy")
_BUNDLE_VARIABLES = ("AWS_CA_BUNDLE", "REQUESTS_CA_BUNDLE")


def check_sdk_settings(key: str, auth: AWSCloudAuth) -> Iterator[Verdict]:
    """Look for settings that have no effect, and for those that weaken the connection.

    :param key: the region's key, for the subject
    :param auth: its credentials, whose profile may name certificates
    """
    subject = f"{key} connection"
    found = list(_findings(subject, auth))
    yield from found or [ok(subject, "proxy and certificates are as the configuration says")]


def _findings(subject: str, auth: AWSCloudAuth) -> Iterator[Verdict]:
    conf = core_conf_glbl
    proxies = _set_variables(_PROXY_VARIABLES)
    if proxies and not conf.proxy_enabled:
        yield warn(
            subject,
            f"{' and '.join(proxies)} has no effect on requests to EC2",
            "set [proxy] enabled = true and https in the configuration",
        )
    bypasses = _set_variables(_BYPASS_VARIABLES)
    if bypasses and conf.proxy_enabled:
        yield warn(
            subject,
            f"{' and '.join(bypasses)} has no effect: every request to EC2 goes through [proxy]",
            "set [proxy] enabled = false if EC2 is to be reached directly",
        )
    bundles = _set_variables(_BUNDLE_VARIABLES)
    profile_bundle = _profile_bundle(auth)
    if profile_bundle and "AWS_CA_BUNDLE" not in bundles:
        bundles.append("ca_bundle of the AWS configuration")
    if bundles:
        yield warn(
            subject,
            f"{' and '.join(bundles)} has no effect on requests to EC2",
            "nothing, unless certificates fail: then install the authority among the SDK's own certificates",
        )
    if conf.network__bypass_ssl_verification:
        yield warn(
            subject,
            "certificates of EC2's endpoint are not verified",
            "set [network] bypass_ssl_verification = false",
        )
    endpoints = _set_variables(("AWS_ENDPOINT_URL_EC2", "AWS_ENDPOINT_URL"))
    if endpoints:
        yield warn(
            subject,
            f"requests go to {os.environ[endpoints[0]]}, not to Amazon",
            f"unset {endpoints[0]} to use Amazon",
        )


def _set_variables(names: tuple[str, ...]) -> list[str]:
    return [name for name in names if os.environ.get(name)]


def _profile_bundle(auth: AWSCloudAuth) -> Any:
    from botocore.session import Session

    return Session(profile=auth.aws_profile or None).get_config_variable("ca_bundle")
