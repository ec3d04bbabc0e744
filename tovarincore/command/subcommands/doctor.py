"""``doctor``: looks at everything that a launch needs, and changes nothing."""

from collections.abc import Iterator
from dataclasses import replace
from typing import Any

import click

from tovarincore.cloud_def import CloudRegion, K8sRegion
from tovarincore.command.context.access import open_region, usable_regions
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.options import NodesCommand
from tovarincore.command.context.regions import region_and
from tovarincore.command.doctor.machine import check_cluster, check_engine, check_settings
from tovarincore.command.doctor.verdicts import Level, Verdict, failed, ok, skipped
from tovarincore.command.doctor.workers import check_token, check_worker_settings
from tovarincore.command.errors.failures import CommandFailure
from tovarincore.command.output.text import printable
from tovarincore.command.output.writer import write
from tovarincore.command.subcommands.launch_options import build_request, launch_options
from tovarincore.command.subcommands.launches import try_launch

__all__ = ["doctor"]

_DRY_RUN_TYPE = "t3.small"
_COLOURS = {Level.OK: "green", Level.WARN: "yellow", Level.FAIL: "red", Level.SKIPPED: "bright_black"}


@click.command(cls=NodesCommand, examples=("doctor", "doctor us-east-1 --launch --type t3.small"))
@region_and(optional=True)
@click.option(
    "--launch",
    "dry_run",
    is_flag=True,
    help="Amazon: also a dry run of what the options below describe; it creates the security group.",
)
@launch_options
@pass_invocation
def doctor(invocation: Invocation, /, region: CloudRegion | None, dry_run: bool, **options: Any) -> None:
    """Look at configuration, credentials, network, engine and cluster; each line is a verdict and the remedy.

    Only reads, unless --launch is given. Without a region it looks at all that can be used: this machine's
    container engine, the Kubernetes regions, and Amazon's with stored credentials.
    """
    verdicts = []
    for verdict in _examine(region, dry_run, options):
        verdicts.append(verdict)
        if not invocation.structured:
            write(_line(verdict))
    problems = sum(verdict.level is Level.FAIL for verdict in verdicts)
    invocation.emit_items(
        "verdicts",
        [
            {
                "subject": verdict.subject,
                "verdict": verdict.level.value,
                "text": verdict.text,
                "remedy": verdict.remedy or None,
            }
            for verdict in verdicts
        ],
    )
    if problems:
        things = "one thing does" if problems == 1 else f"{problems} things do"
        raise CommandFailure(f"{things} not work", "see the remedies of the lines that say fail")


def _examine(region: CloudRegion | None, dry_run: bool, options: dict[str, Any]) -> Iterator[Verdict]:
    verdict = check_settings()
    yield verdict
    if verdict.level is Level.FAIL:
        # Nothing else could be read.
        return
    yield from check_worker_settings()
    try:
        regions = [region] if region is not None else usable_regions(ask_engine=False)
    except Exception as error:
        yield failed("credential store", error)
        return
    for examined in regions:
        yield from _examine_region(examined, needed=region is not None)
        if dry_run:
            yield _dry_run(examined, options)


def _examine_region(region: CloudRegion, needed: bool) -> Iterator[Verdict]:
    if isinstance(region, K8sRegion):
        yield check_cluster(region)
        yield from check_token(region)
    elif region.cloud == "AWS":
        from tovarincore.command.doctor.amazon import check_amazon

        verdicts = list(check_amazon(region))
        yield from verdicts
        if verdicts[-1].level is not Level.SKIPPED:
            yield from check_token(region)
    else:
        verdict = check_engine()
        # Many machines have none, and nobody asked for it.
        optional = verdict.level is Level.FAIL and not needed
        yield replace(verdict, level=Level.WARN) if optional else verdict


def _line(verdict: Verdict) -> str:
    level = click.style(f"{verdict.level.value:<7}", fg=_COLOURS[verdict.level])
    remedy = f" -> {verdict.remedy}" if verdict.remedy else ""
    return f"{level} {printable(f'{verdict.subject}: {verdict.text}{remedy}')}"


def _dry_run(region: CloudRegion, options: dict[str, Any]) -> Verdict:
    subject = f"{region.key} dry run"
    if region.cloud != "AWS":
        return skipped(subject, "this provider has no dry run: it would really launch")
    options = {**options, "type_name": options["type_name"] or _DRY_RUN_TYPE}
    try:
        access = open_region(region)
        request = build_request(access, **options)
        try_launch(access, request)
    except Exception as error:
        return failed(subject, error, region=region)
    return ok(subject, f"EC2 would launch a {request.type_def.instance_type}")
