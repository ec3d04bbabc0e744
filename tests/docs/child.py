"""Runs the Python blocks of one page in one process; started by test_samples.py."""

from __future__ import annotations

import ast
import contextlib
import io
import sys
import traceback
from typing import Any

from stage.sdk_once import sdk_read_once


def main() -> None:
    """Read a block a line, write its output and error a line, until the input ends."""
    namespace: dict[str, Any] = {}
    answers = sys.stdout
    for line in sys.stdin:
        block = ast.literal_eval(line)
        if not block["continues"]:
            namespace = {"__name__": "__main__"}
        output, error = io.StringIO(), ""
        with contextlib.redirect_stdout(output):
            try:
                # Empty lines in front let tracebacks name the lines of the page.
                text = "\n" * (block["line"] - 1) + block["text"]
                exec(compile(text, block["file"], "exec", dont_inherit=True), namespace)
            except BaseException:
                error = traceback.format_exc()
        print(repr({"output": output.getvalue(), "error": error}), file=answers, flush=True)


if __name__ == "__main__":
    # The calls of a page make dozens of clients.
    with sdk_read_once():
        main()
