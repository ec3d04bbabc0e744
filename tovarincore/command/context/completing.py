"""What a shell completes: regions, nodes, types and images, without asking anybody."""

from __future__ import annotations

from collections.abc import Callable, Iterable, Iterator
from typing import TYPE_CHECKING

import click

if TYPE_CHECKING:
    from click.shell_completion import CompletionItem

    from tovarincore.cloud_def import CloudRegion

__all__ = ["complete_contexts", "complete_images", "complete_types", "completing", "keep_words"]

Complete = Callable[[click.Context, click.Parameter, str], "list[CompletionItem]"]

_WORDS = "tovarincore.command.words"
_NODE_NAMES = ("node", "nodes", "names")


def keep_words(context: click.Context, words: tuple[str, ...]) -> None:
    """Keep the arguments that stand before the one that is being completed."""
    context.meta[_WORDS] = words


def completing(names: tuple[str, ...]) -> Complete:
    """Return what completes ``[REGION] NAME ...``.

    :param names: what follows the region
    """

    def complete(context: click.Context, parameter: click.Parameter, incomplete: str) -> list[CompletionItem]:
        words = context.meta.get(_WORDS, ())
        if not words:
            return _items(_regions(context), incomplete)
        wanted = names[min(len(words), len(names)) - 1] if names else ""
        region = _region(words[0])
        if wanted not in _NODE_NAMES or region is None:
            return []
        from tovarincore.command.context.seen import NODES, seen

        return _items(seen(NODES, region.key), incomplete)

    return complete


def complete_types(
    context: click.Context, parameter: click.Parameter, incomplete: str
) -> list[CompletionItem]:
    """Complete an instance type, from the list of those that are known."""
    from tovarincore.cloud_def import CloudInstances

    return _items((known.instance_type for known in CloudInstances.instance_type_list), incomplete)


def complete_images(
    context: click.Context, parameter: click.Parameter, incomplete: str
) -> list[CompletionItem]:
    """Complete an image's name, from the last listings: behind an option without value no region is known."""
    from tovarincore.command.context.seen import IMAGES, seen

    return _items(seen(IMAGES), incomplete)


def complete_contexts(
    context: click.Context, parameter: click.Parameter, incomplete: str
) -> list[CompletionItem]:
    """Complete the name of a context."""
    from tovarincore.command.context.contexts import context_names

    return _items(context_names(), incomplete)


def _region(text: str) -> CloudRegion | None:
    from tovarincore.cloud_def import CloudRegions
    from tovarincore.command.context.regions import prepare_regions

    prepare_regions(text)
    return CloudRegions.find(text)


def _regions(context: click.Context) -> Iterator[str]:
    """Names of the regions that can be used; of all where credentials are about to be stored."""
    from tovarincore.cloud_conf import CloudConfManager
    from tovarincore.cloud_def import CloudRegions

    if context.info_name == "configure":
        yield from (region.name for region in CloudRegions.get_all())
        return
    yield CloudRegions.get_local_container_region().name
    yield from (region.name for region in CloudRegions.get_k8s_regions())
    yield from (region.name for region in CloudConfManager().list_regions() if region.cloud == "AWS")


def _items(names: Iterable[str], incomplete: str) -> list[CompletionItem]:
    from click.shell_completion import CompletionItem

    return [CompletionItem(name) for name in dict.fromkeys(names) if name.startswith(incomplete)]
