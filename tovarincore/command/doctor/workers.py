"""What ``doctor`` looks at of the way to workers: encryption, certificates and tokens."""

import ssl
from collections.abc import Iterator

from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import CloudRegion
from tovarincore.command.doctor.verdicts import Verdict, failed, ok, warn
from tovarincore.command.errors.advice import command_for
from tovarincore.core_conf import core_conf_glbl

__all__ = ["check_token", "check_worker_settings"]

_PLAIN = 'set [worker] scheme = "wss", or reach workers through a tunnel only'


def check_worker_settings() -> Iterator[Verdict]:
    """Look at how workers of all regions are reached."""
    subject = "worker connection"
    found = list(_findings(subject))
    conf = core_conf_glbl
    yield from found or [ok(subject, f"{conf.worker__scheme}, port {conf.worker__port}")]


def check_token(region: CloudRegion) -> Iterator[Verdict]:
    """Look at the token of a region's workers, and at how it would travel.

    :param region: not the local one, whose worker is reached on this machine alone
    """
    subject = f"{region.key} worker token"
    conf = CloudConfManager().get_cloud_conf(region)
    own = conf.worker_token if conf is not None else None
    if not own and not core_conf_glbl.worker__token:
        yield warn(
            subject,
            "workers are asked without a token: whoever reaches one can use it",
            f"give the workers a token, and store it: {command_for(region, 'configure', '--worker-token')}",
        )
    elif own and core_conf_glbl.worker__scheme == "ws":
        yield warn(subject, "the stored token travels over plain ws: it can be read on the way", _PLAIN)
    else:
        yield ok(subject, "stored for the region" if own else "the one of [worker] token")


def _findings(subject: str) -> Iterator[Verdict]:
    conf = core_conf_glbl
    if conf.worker__scheme == "ws" and conf.worker__token:
        yield warn(subject, "the token travels over plain ws: it can be read on the way", _PLAIN)
    if conf.worker__scheme == "wss" and not conf.worker__verify_certificates:
        yield warn(
            subject,
            "certificates of workers are not verified",
            "set [worker] verify_certificates = true and ca_file",
        )
    if conf.worker__ca_file:
        try:
            ssl.create_default_context(cafile=conf.worker__ca_file)
        except OSError as error:
            yield failed(
                subject,
                f"[worker] ca_file cannot be used: {error}",
                "name a readable file of PEM certificates",
            )
