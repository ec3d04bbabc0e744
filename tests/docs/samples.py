"""The samples of a page: its fenced blocks in order, each with the output that the page shows for it."""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PAGES = [ROOT / "README.md", ROOT / "CONTRIBUTING.md", *sorted((ROOT / "docs").glob("*.md"))]
RUNNABLE = ("python", "console", "sh")
# Pages whose blocks are run elsewhere as a whole.
RUN_ELSEWHERE = {"command.md": "python -m tests.command.transcript runs this page and writes it"}

# A mark on the line before a block says why it is not run, or that it continues the one above, as the text
# before it says too; MyST and other renderers do not show it.
_MARK = r"(?:^<!-- (?:not run: (?P<reason>.+?)|(?P<continues>continues the block above)) -->\n)?"
_BLOCK = re.compile(
    _MARK + r"^```(?P<language>\w+)[ ]*\n(?P<text>.*?)^```$",
    re.MULTILINE | re.DOTALL,
)


@dataclass
class Sample:
    """One block.

    :param page: file name of the page
    :param line: number of its first line of text
    :param language: what stands behind the fence
    :param text: the block
    :param shown: the output that the page shows for it, ``None`` when it shows none
    :param reason: why the block is not run; empty when it is
    :param continues: whether a Python block builds on the one above; else it can be copied alone
    """

    page: str
    line: int
    language: str
    text: str
    shown: str | None = None
    reason: str = ""
    continues: bool = False


def samples_of(page: Path) -> list[Sample]:
    """Return the runnable blocks of a page; a ``text`` block right behind one is its output."""
    content = page.read_text(encoding="utf-8")
    samples: list[Sample] = []
    end = 0
    for match in _BLOCK.finditer(content):
        language, text = match["language"], match["text"]
        follows = not content[end : match.start()].strip()
        end = match.end()
        line = content.count("\n", 0, match.start("text")) + 1
        if language == "text" and follows and samples:
            samples[-1].shown = text
        elif language in RUNNABLE:
            reason = match["reason"] or RUN_ELSEWHERE.get(page.name, "")
            samples.append(
                Sample(page.name, line, language, text, reason=reason, continues=bool(match["continues"]))
            )
    return samples


def commands_of(sample: Sample) -> list[tuple[str, str]]:
    """Return the commands of a ``console`` block, the lines behind ``$``, each with its output.

    An ``sh`` block is one command, which shows no output.
    """
    if sample.language == "sh":
        return [(sample.text, "")]
    commands: list[tuple[str, str]] = []
    for line in sample.text.splitlines(keepends=True):
        if line.startswith("$ "):
            commands.append((line[2:].strip(), ""))
        else:
            command, output = commands[-1]
            commands[-1] = (command, output + line)
    return commands


def programs_of(page: Path) -> list[tuple[Sample, str]]:
    """Return the Python programs of a page, each with its first block: a block and those that continue it.

    Empty lines in front of each block keep the page's line numbers.
    """
    programs: list[tuple[Sample, str]] = []
    for sample in samples_of(page):
        if sample.language != "python":
            continue
        if sample.continues:
            first, text = programs.pop()
            filled = text + "\n" * (sample.line - 1 - text.count("\n"))
            programs.append((first, filled + sample.text))
        else:
            programs.append((sample, "\n" * (sample.line - 1) + sample.text))
    return programs
