"""The windows above the table: a question, the details of a node, and the keys."""

from collections.abc import Sequence

from textual.app import ComposeResult
from textual.binding import Binding
from textual.containers import Vertical
from textual.screen import ModalScreen
from textual.widgets import Static

__all__ = ["Question", "Sheet"]

_STYLE = """
{name} {{ align: center middle; }}
{name} > Vertical {{
    width: 90%; max-width: 100; height: auto; max-height: 90%;
    border: round $primary; background: $surface; padding: 0 1; overflow-y: auto;
}}
"""


class Question(ModalScreen[bool]):
    """Asks whether something is to be done; every key but ``y`` means no.

    :param lines: what would be done, the question last
    """

    DEFAULT_CSS = _STYLE.format(name="Question")
    BINDINGS = [Binding("y", "answer(True)", "yes"), Binding("n,escape,q,enter", "answer(False)", "no")]

    def __init__(self, lines: Sequence[str]) -> None:
        super().__init__()
        self._lines = lines

    def compose(self) -> ComposeResult:
        """Lay the window out."""
        with Vertical():
            yield Static("\n".join([*self._lines, "", "y: yes   n: no"]), markup=False)

    def action_answer(self, agreed: bool) -> None:
        """Close it."""
        self.dismiss(agreed)


class Sheet(ModalScreen[None]):
    """Names and values, until a key is pressed.

    :param pairs: what it shows
    """

    DEFAULT_CSS = _STYLE.format(name="Sheet")
    BINDINGS = [Binding("escape,enter,q,space", "close", "close")]

    def __init__(self, pairs: Sequence[tuple[str, str]]) -> None:
        super().__init__()
        self._pairs = pairs

    def compose(self) -> ComposeResult:
        """Lay the window out."""
        longest = max(len(name) for name, _ in self._pairs)
        with Vertical():
            lines = [f"{name:<{longest}}  {value}" for name, value in self._pairs]
            yield Static("\n".join([*lines, "", "Esc: close"]), markup=False)

    def action_close(self) -> None:
        """Close it."""
        self.dismiss()
