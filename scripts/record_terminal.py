"""Draws a terminal at work as an SVG: `python -m scripts.record_terminal SCENE ...`, or `--all`.

`--all` draws those of the documentation, into it; others go into the current folder, to be looked at. A scene
is a list of commands, run one after the other in the playground, each in a real terminal. The picture shows
the last screen; its lines appear in their order, and about at the times at which they were written.
"""

from __future__ import annotations

import fcntl
import os
import pty
import re
import struct
import subprocess
import sys
import termios
import time
from collections.abc import Callable
from dataclasses import dataclass
from itertools import groupby
from pathlib import Path

import pyte
import tomli_w
from rich.console import Console
from rich.style import Style
from rich.text import Text

from stage.playground import playground
from tovarincore._config_files.toml_file import read_toml

PICTURES = Path(__file__).parent.parent / "docs" / "pictures"
LINES = 90
# Nobody wants to wait as long as the machine did.
LONGEST_PAUSE_SECONDS = 1.2

CONFIGURE = "tovarin-nodes configure us-east-1 --user-name ada --sdk"


def fall_silent() -> None:
    """Let the worker of one node say nothing any more."""
    path = Path(os.environ["TOVARIN_CONF"])
    settings = read_toml(path)
    assert settings is not None
    addresses = settings["worker_addresses"]
    addresses["web-07"] = addresses["silent*"]
    path.write_text(tomli_w.dumps(settings), encoding="utf-8")


@dataclass(frozen=True)
class Scene:
    """Commands that are shown, on a terminal of so many columns, after others that are not.

    What happens unseen between two of them stands between them as a function.
    """

    shown: tuple[str | Callable[[], None], ...]
    columns: int = 96
    before: tuple[str, ...] = ()
    in_docs: bool = False


THREE_NODES = (
    CONFIGURE,
    "tovarin-nodes launch us-east-1 --type t3.small --name trainer-{} --count 2",
    "tovarin-nodes launch us-east-1 --type t3.small --name silent-with-a-long-name",
)
SCENES = {
    "first-node": Scene(
        (
            CONFIGURE,
            "tovarin-nodes launch us-east-1 --type t3.small --name first --wait",
            "tovarin-nodes list us-east-1",
            "tovarin-nodes terminate us-east-1 first --yes",
        ),
        in_docs=True,
    ),
    "fleet": Scene(
        (
            CONFIGURE,
            "tovarin-nodes launch us-east-1 --type t3.small --count 10 --name 'web-{:02}' --wait",
            "tovarin-nodes watch us-east-1 --every 5 --count 2 --columns name,state,worker,address",
            fall_silent,
            "tovarin-nodes watch us-east-1 --every 5 --count 2 --columns name,state,worker,address",
            "tovarin-nodes terminate us-east-1 web-07 --yes",
            "tovarin-nodes terminate us-east-1 --match 'web-*' --yes",
            "tovarin-nodes list us-east-1",
        ),
        in_docs=True,
    ),
    "help": Scene(("tovarin-nodes --help",), 80),
    "page": Scene(("PAGER=cat tovarin-nodes help troubleshooting",), 100),
    **{
        f"list-{columns}": Scene(("tovarin-nodes list us-east-1",), columns, THREE_NODES)
        for columns in (60, 80, 160)
    },
}


class Recording:
    """A screen, and the moment at which each of its lines was first written."""

    def __init__(self, columns: int) -> None:
        self._columns = columns
        self.screen = pyte.Screen(columns, LINES)
        self._stream = pyte.ByteStream(self.screen)
        self._moments: dict[int, float] = {}
        self._clock = 0.0
        self._last: float | None = None

    def feed(self, data: bytes) -> None:
        """Show what a program wrote just now."""
        now = time.monotonic()
        if self._last is not None:
            self._clock += min(now - self._last, LONGEST_PAUSE_SECONDS)
        self._last = now
        self._stream.feed(data)
        for number in self.screen.dirty:
            if self.screen.display[number].strip():
                self._moments.setdefault(number, self._clock)
        self.screen.dirty.clear()

    def run(self, command: str) -> None:
        """Show a prompt and a command, run it, and show what it writes."""
        self.feed(b"\x1b[32m$\x1b[0m " + command.encode() + b"\r\n")
        controller, terminal = pty.openpty()
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", LINES, self._columns, 0, 0))
        environment = {**os.environ, "TERM": "xterm-256color", "COLUMNS": str(self._columns)}
        with subprocess.Popen(
            ["sh", "-c", command], stdin=terminal, stdout=terminal, stderr=terminal, env=environment
        ):
            os.close(terminal)
            while True:
                try:
                    data = os.read(controller, 65536)
                except OSError:  # the last program closed the terminal
                    break
                self.feed(data)
        os.close(controller)

    def svg(self, title: str) -> str:
        """Return the picture."""
        used = max(self._moments, default=0) + 1
        console = Console(record=True, width=self._columns, file=open(os.devnull, "w"))
        for number in range(used):
            console.print(self._line(number), soft_wrap=True)
        picture = console.export_svg(title=title, unique_id="terminal")
        # The picture asks no host for a font: each viewer has a monospaced one.
        picture = re.sub(r"\s*@font-face \{.*?\}|\s*<!--.*?-->", "", picture, flags=re.DOTALL)
        return _with_moments(picture, self._moments)

    def _line(self, number: int) -> Text:
        line = Text()
        row = self.screen.buffer[number]
        cells = (row[column] for column in range(self._columns))
        for (colour, bold, reverse), run in groupby(cells, lambda cell: (cell.fg, cell.bold, cell.reverse)):
            text = "".join(cell.data for cell in run)
            line.append(text, Style(color=_colour(colour), bold=bold, reverse=reverse))
        line.rstrip()
        return line


def _colour(name: str) -> str | None:
    if name == "default":
        return None
    return f"#{name}" if re.fullmatch("[0-9a-f]{6}", name) else name.replace("brown", "yellow")


def _with_moments(picture: str, moments: dict[int, float]) -> str:
    rules = [
        # Dim, not hidden: a viewer that shows the first moment only shows all of it.
        "@keyframes appear { from { opacity: 0.25 } to { opacity: 1 } }",
        "@media (prefers-reduced-motion: no-preference) { .line { animation: appear 0.1s both } }",
    ]

    line = r'clip-path="url\(#terminal-line-(?P<number>\d+)\)"'
    pattern = r'(?P<head><text class="(?P<name>[\w-]+)")[^>]*' + line

    def placed(match: re.Match[str]) -> str:
        moment = moments.get(int(match["number"]), 0.0)
        rest = match[0][len(match["head"]) :]
        return f'<text class="line {match["name"]}" style="animation-delay: {moment:.1f}s"{rest}'

    picture = re.sub(pattern, placed, picture)
    return picture.replace("</style>", "\n".join(["", *rules, "    </style>"]), 1)


def main() -> None:
    """Record the scenes that the command line names."""
    every = sys.argv[1:] == ["--all"]
    names = [name for name, scene in SCENES.items() if scene.in_docs] if every else sys.argv[1:]
    if not names or not set(names) <= set(SCENES):
        raise SystemExit(f"usage: python -m scripts.record_terminal --all | {' | '.join(SCENES)}")
    for name in names:
        scene = SCENES[name]
        recording = Recording(scene.columns)
        with playground():
            for command in scene.before:
                subprocess.run(["sh", "-c", command], check=True, capture_output=True)
            for step in scene.shown:
                if isinstance(step, str):
                    recording.run(step)
                else:
                    step()
        path = (PICTURES if scene.in_docs else Path()) / f"terminal-{name}.svg"
        path.write_text(recording.svg("tovarin-nodes"), encoding="utf-8")
        print(path)


if __name__ == "__main__":
    main()
