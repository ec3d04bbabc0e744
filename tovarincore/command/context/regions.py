"""Which regions a sub-command works in, and the names that follow the region on its line."""

from __future__ import annotations

import importlib.util
from collections.abc import Callable, Sequence
from typing import TYPE_CHECKING, Any

import click

from tovarincore.command.context.completing import completing, keep_words
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.errors.failures import CommandFailure, ExitCode

if TYPE_CHECKING:
    from tovarincore.cloud_def import CloudRegion

__all__ = ["all_regions_argument", "find_region", "prepare_regions", "region_and", "regions_argument"]

Decorator = Callable[[Callable[..., Any]], Callable[..., Any]]

_GIVEN = "tovarincore.command.regions"


def find_region(text: str) -> CloudRegion:
    """Return the region of this name (``us-east-1``) or key (``k8s:lab``).

    :raises CommandFailure: there is none; the text suggests the nearest one
    """
    from tovarincore._config_files.names import nearest
    from tovarincore.cloud_def import CloudRegions
    from tovarincore.command.output.text import one_line

    prepare_regions(text)
    region = CloudRegions.find(text)
    if region is None:
        near = nearest(text, [known.name for known in CloudRegions.get_all()])
        remedy = "list the regions with: tovarin-nodes regions"
        if text.startswith("k8s:") and not near:
            # Regions of clusters exist only where a file says so.
            remedy = (
                "write it into the file of the setting [cloud] regions_file, as shown by:"
                " tovarin-nodes help configuration"
            )
        raise CommandFailure(
            f'there is no region "{one_line(text)}"' + (f'; did you mean "{near}"?' if near else ""),
            remedy,
            ExitCode.USAGE,
        )
    return region


def prepare_regions(text: str = "") -> None:
    """Let the search for a region read no more of the SDK's data than it needs.

    :param text: what is searched for
    """
    if text == "local" or importlib.util.find_spec("botocore") is None:
        return
    from tovarincore.command.context.lean_sdk import use_kept_regions

    use_kept_regions()


def region_and(
    *names: str, many: bool = False, none: bool = False, optional: bool = False, profile: bool = True
) -> Decorator:
    """Return the decorator for ``[REGION] NAME ...``: the function gets ``region`` and each name.

    The region comes first, or by ``-r``, or from the setting ``[command] region``.

    :param names: the parameters that follow the region
    :param many: the last name may stand any number of times, and its parameter is a tuple
    :param none: the last name may be left out, where it may stand any number of times
    :param optional: without a region the function gets ``None``; the setting is not asked then
    :param profile: add ``--profile``
    """

    def place(context: click.Context, parameter: click.Parameter, words: tuple[str, ...]) -> None:
        if context.resilient_parsing:
            keep_words(context, words)
            return
        given = context.meta.get(_GIVEN, ())
        if len(given) > 1:
            raise click.UsageError("This command works in one region: give -r once.", context)
        least, most = len(names) - none, None if many else len(names)
        region, rest = _split(given, words, least, most, optional, context)
        if len(rest) < least:
            raise click.UsageError(f"Missing argument '{names[len(rest)].upper()}'.", context)
        if most is not None and len(rest) > most:
            raise click.UsageError(f"Got unexpected extra argument ({' '.join(rest[most:])})", context)
        context.ensure_object(Invocation).region = region
        context.params["region"] = region
        for index, name in enumerate(names):
            last = many and index == len(names) - 1
            context.params[name] = tuple(rest[index:]) if last else rest[index]

    metavar = " ".join(["[REGION]", *(name.upper() for name in names)]) + ("..." if many else "")

    def decorate(function: Callable[..., Any]) -> Callable[..., Any]:
        function = click.argument(
            "words",
            nargs=-1,
            metavar=metavar,
            callback=place,
            expose_value=False,
            shell_complete=completing(names),
        )(function)
        function = _region_option("Region, in place of the argument.")(function)
        return _profile_option(function) if profile else function

    return decorate


def regions_argument(function: Callable[..., Any]) -> Callable[..., Any]:
    """Give a command one region as its argument, several by ``-r``, or all by ``-A``: ``regions``, a list."""
    return _regions(function, lambda context: [_default_region(context)])


def all_regions_argument(function: Callable[..., Any]) -> Callable[..., Any]:
    """Do the same, where a command that is given none works in all regions that can be used."""
    return _regions(function, lambda context: _usable_regions())


def _regions(
    function: Callable[..., Any], without: Callable[[click.Context], list[CloudRegion]]
) -> Callable[..., Any]:
    def place(context: click.Context, parameter: click.Parameter, words: tuple[str, ...]) -> None:
        if context.resilient_parsing:
            keep_words(context, words)
            return
        given = (*words, *context.meta.get(_GIVEN, ()))
        if context.params.pop("all_regions", False):
            if given:
                raise click.UsageError("-A means all regions: name none.", context)
            regions = _usable_regions()
        else:
            regions = [find_region(text) for text in given] or without(context)
        if len(regions) == 1:
            context.ensure_object(Invocation).region = regions[0]
        context.params["regions"] = list(dict.fromkeys(regions))

    function = click.argument(
        "words",
        nargs=-1,
        metavar="[REGION]",
        callback=place,
        expose_value=False,
        shell_complete=completing(()),
    )(function)
    function = click.option(
        "-A", "--all-regions", is_flag=True, is_eager=True, help="All regions that can be used."
    )(function)
    return _profile_option(_region_option("Another region; may be repeated.")(function))


def _region_option(text: str) -> Decorator:
    def keep(context: click.Context, parameter: click.Parameter, value: tuple[str, ...]) -> None:
        context.meta[_GIVEN] = value

    return click.option(
        "-r",
        "--region",
        "region_names",
        metavar="REGION",
        multiple=True,
        is_eager=True,
        expose_value=False,
        callback=keep,
        help=text,
        shell_complete=completing(()),
    )


def _profile_option(function: Callable[..., Any]) -> Callable[..., Any]:
    def keep(context: click.Context, parameter: click.Parameter, value: str | None) -> None:
        context.ensure_object(Invocation).profile = value

    return click.option(
        "--profile",
        "aws_profile",
        metavar="NAME",
        expose_value=False,
        callback=keep,
        help="Amazon: profile of your AWS configuration, in place of the stored credentials.",
    )(function)


def _split(
    given: Sequence[str],
    words: tuple[str, ...],
    least: int,
    most: int | None,
    optional: bool,
    context: click.Context,
) -> tuple[CloudRegion | None, tuple[str, ...]]:
    """Tell the region from the names that follow it."""
    if given:
        return find_region(given[0]), words
    if words and (len(words) > (most or 0) if most is not None else _is_region(words[0])):
        return find_region(words[0]), words[1:]
    if optional:
        return None, words
    if words and not _configured_region():
        # The region was forgotten, or misspelt, or a name was forgotten behind it.
        return find_region(words[0]), words[1:]
    return _default_region(context), words


def _is_region(text: str) -> bool:
    from tovarincore.cloud_def import CloudRegions

    prepare_regions(text)
    return CloudRegions.find(text) is not None


def _configured_region() -> str:
    from tovarincore.core_conf import core_conf_glbl

    return str(core_conf_glbl.command__region)


def _default_region(context: click.Context) -> CloudRegion:
    name = _configured_region()
    if not name:
        raise CommandFailure(
            "no region is given",
            f"name one ({context.command_path} REGION), or set one for all commands:"
            " tovarin-nodes config set command.region REGION",
            ExitCode.USAGE,
        )
    return find_region(name)


def _usable_regions() -> list[CloudRegion]:
    from tovarincore.command.context.access import usable_regions

    return usable_regions()
