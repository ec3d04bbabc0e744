"""How far something with many steps has got: a bar on a terminal, else a line for each step."""

from collections.abc import Callable, Iterator
from contextlib import contextmanager

from tovarincore._transport.masker import mask
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.output import progress
from tovarincore.command.output.text import printable
from tovarincore.command.output.writer import error_is_terminal

__all__ = ["steps"]


@contextmanager
def steps(
    invocation: Invocation, doing: str, total: int, say: Callable[[str], None] | None = None
) -> Iterator[Callable[[str], None]]:
    """Give the body a function that tells what was done as one more step.

    :param doing: what is being done
    :param total: number of steps
    :param say: where the lines go; ``None`` means notes
    """
    if invocation.structured:
        yield lambda text: None
        return
    say = say or invocation.note
    if total < 2 or not error_is_terminal():
        yield say
        return
    from rich.console import Console
    from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeElapsedColumn

    progress.clear()
    columns = (TextColumn("{task.description}"), BarColumn(), MofNCompleteColumn(), TimeElapsedColumn())
    with Progress(*columns, console=Console(stderr=True), transient=True) as bar:
        task = bar.add_task(doing, total=total)

        def step(text: str) -> None:
            bar.console.print(printable(mask(text)), markup=False, highlight=False)
            bar.advance(task)

        yield step
