"""Tables as text, and a chart of the ratios as SVG."""

from __future__ import annotations

import math
from collections.abc import Callable, Sequence
from html import escape
from pathlib import Path

from benchmarks.measuring import Result
from benchmarks.memory import Growth

Formatter = Callable[[float], str]


def seconds(value: float) -> str:
    """A time with three digits: ``1.23 us``."""
    for unit, scale in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6), ("ns", 1e-9)):
        if value >= scale or unit == "ns":
            return f"{value / scale:.3g} {unit}"
    raise AssertionError(value)


def instructions(value: float) -> str:
    return f"{value:,.0f}"


def bytes_per_node(value: float) -> str:
    return f"{value:,.0f} B/node"


def ratio(value: float) -> str:
    return f"{value:.0f}x" if value >= 20 else f"{value:.1f}x" if value >= 2 else f"{value:.2f}x"


def table(results: Sequence[tuple[Result, Formatter]], judged: bool = True) -> str:
    """A Markdown table; a goal that was missed is marked."""
    lines = ["| operation | twin | ours | ratio | goal |", "|---|---|---|---|---|"]
    for result, form in results:
        missed = " (missed)" if judged and not result.reached else ""
        goal = f"{ratio(result.goal)}{missed}" if judged else ""
        cells = [result.name, form(result.twin), form(result.ours), ratio(result.ratio), goal]
        lines.append(f"| {' | '.join(cells)} |")
    return "\n".join(lines)


def growth_table(lines: Sequence[Growth]) -> str:
    """What one node costs, by the size of the registry."""
    text = [
        "| nodes | get_node_list, per node | find that misses, per node "
        "| peak memory | memory of the result |",
        "|---|---|---|---|---|",
    ]
    for line in lines:
        cells = [
            f"{line.number:,}",
            seconds(line.read_seconds),
            seconds(line.miss_seconds),
            bytes_per_node(line.peak),
            bytes_per_node(line.kept),
        ]
        text.append(f"| {' | '.join(cells)} |")
    return "\n".join(text)


ROW, LEFT, WIDTH = 20, 380, 480


def chart(results: Sequence[Result]) -> str:
    """Bars of the ratios on a logarithmic scale from 1 to 100, with a mark at each goal."""

    def place(value: float) -> float:
        return LEFT + WIDTH * min(1.0, max(0.0, math.log10(value) / 2))

    height = ROW * (len(results) + 3)
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{LEFT + WIDTH + 80}" height="{height}"'
        ' font-family="sans-serif" font-size="12">',
        f'<rect width="{LEFT + WIDTH + 80}" height="{height}" fill="white"/>',
    ]
    for value in (1, 2, 5, 10, 20, 50, 100):
        x = place(value)
        parts.append(f'<line x1="{x:.0f}" y1="24" x2="{x:.0f}" y2="{height - 24}" stroke="#ddd"/>')
        parts.append(f'<text x="{x:.0f}" y="16" text-anchor="middle">{value}x</text>')
    for index, result in enumerate(results):
        y = ROW * (index + 1.5)
        colour = "#3a7d44" if result.reached else "#c0392b"
        end, goal = place(result.ratio), place(result.goal)
        parts.append(f'<text x="{LEFT - 8}" y="{y + 12:.0f}" text-anchor="end">{escape(result.name)}</text>')
        parts.append(
            f'<rect x="{LEFT}" y="{y:.0f}" width="{max(1.0, end - LEFT):.1f}" height="14" fill="{colour}"/>'
        )
        parts.append(
            f'<line x1="{goal:.1f}" y1="{y - 2:.0f}" x2="{goal:.1f}" y2="{y + 16:.0f}" stroke="black"'
            ' stroke-width="2"/>'
        )
        parts.append(f'<text x="{end + 6:.0f}" y="{y + 12:.0f}">{ratio(result.ratio)}</text>')
    parts.append(
        f'<text x="{LEFT}" y="{height - 6}">times as fast as the plain-Python twin; black: goal</text>'
    )
    return "\n".join([*parts, "</svg>", ""])


def put_between_marks(page: Path, name: str, text: str) -> None:
    """Replace the part of a page that stands between the comments of this name."""
    before, start, rest = page.read_text().partition(f"<!-- {name} -->\n")
    _, end, after = rest.partition(f"<!-- end of {name} -->")
    if not start or not end:
        raise SystemExit(f"{page}: the marks <!-- {name} --> and <!-- end of {name} --> are missing")
    page.write_text(f"{before}{start}{text}\n{end}{after}")
