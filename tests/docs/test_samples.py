"""Every sample of the README and the documentation runs, page by page, and prints what the page shows."""

from __future__ import annotations

import ast
import contextlib
import doctest
import os
import subprocess
import sys
import textwrap
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

from stage.playground import playground
from tests.docs.samples import PAGES, ROOT, Sample, commands_of, programs_of, samples_of

SAMPLES = {page: samples_of(page) for page in PAGES if page.exists()}
LEFT_OUT = [sample for samples in SAMPLES.values() for sample in samples if sample.reason]
PATIENCE_SECONDS = 120
# One process for all Python blocks of a page: the nodes that one block launched, the next one lists.
CHILD = Path(__file__).with_name("child.py")


class Reader:
    """Follows a page in the playground: Python blocks share one process, commands one configuration."""

    def __init__(self, folder: Path, cache: Path) -> None:
        self.folder = folder
        self.variables = {
            **os.environ,
            "COLUMNS": "120",
            "PYTHONPATH": str(ROOT),
            "HOME": str(folder),
            "XDG_CACHE_HOME": str(cache),
        }
        self.python = subprocess.Popen(
            [sys.executable, "-W", "error", str(CHILD)],
            cwd=folder,
            env=self.variables,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )

    def run(self, sample: Sample) -> None:
        """Run a sample; fails when it fails, or prints something else than the page shows."""
        if sample.language == "python":
            self._run_python(sample)
        else:
            for command, shown in commands_of(sample):
                self._run_command(sample, command, shown)

    def close(self) -> None:
        """End the interpreter."""
        with self.python:
            assert self.python.stdin is not None
            self.python.stdin.close()

    def _run_python(self, sample: Sample) -> None:
        assert self.python.stdin is not None and self.python.stdout is not None
        request = {
            "file": sample.page,
            "line": sample.line,
            "text": sample.text,
            "continues": sample.continues,
        }
        self.python.stdin.write(repr(request) + "\n")
        self.python.stdin.flush()
        answer: dict[str, Any] = ast.literal_eval(self.python.stdout.readline() or "{}")
        assert answer, f"{sample.page}:{sample.line}: the interpreter ended"
        assert not answer["error"], f"{sample.page}:{sample.line}:\n{answer['error']}"
        if sample.shown is not None:
            compare(sample, sample.shown, answer["output"])

    def _run_command(self, sample: Sample, command: str, shown: str) -> None:
        done = subprocess.run(
            ["sh", "-c", command],
            cwd=self.folder,
            env=self.variables,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=PATIENCE_SECONDS,
            check=False,
        )
        assert done.returncode == 0, f"{sample.page}:{sample.line}: $ {command}\n{done.stdout}"
        if shown:
            compare(sample, shown, done.stdout)


def compare(sample: Sample, shown: str, printed: str) -> None:
    """Fail unless a page shows what was printed; ``...`` stands for anything."""
    flags = doctest.ELLIPSIS | doctest.NORMALIZE_WHITESPACE
    if not doctest.OutputChecker().check_output(shown, printed, flags):
        shown, printed = (textwrap.indent(text, "    ") for text in (shown, printed))
        pytest.fail(f"{sample.page}:{sample.line} shows\n{shown}\nbut it prints\n{printed}")


@pytest.fixture
def reader(tmp_path: Path, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Reader]:
    """A reader at the beginning of a page, in its own playground; pages share what the command caches."""
    cache = tmp_path_factory.getbasetemp() / "cache"
    with playground(), contextlib.closing(Reader(tmp_path, cache)) as following:
        yield following


@pytest.mark.parametrize(
    "page",
    [page for page, samples in SAMPLES.items() if any(not sample.reason for sample in samples)],
    ids=lambda page: page.name,
)
def test_every_sample_of_a_page_runs(page: Path, reader: Reader) -> None:
    """The page's samples run in order and print what it shows."""
    for sample in SAMPLES[page]:
        if not sample.reason:
            reader.run(sample)


def test_the_samples_pass_a_strict_type_check(tmp_path: Path) -> None:
    """Each Python program of the README and the docs, copied alone, passes mypy --strict."""
    for page in SAMPLES:
        for sample, text in programs_of(page):
            (tmp_path / f"{page.stem.replace('-', '_')}_{sample.line}.py").write_text(text, encoding="utf-8")
    done = subprocess.run(
        [
            sys.executable,
            "-m",
            "mypy",
            "--strict",
            "--config-file",
            str(ROOT / "pyproject.toml"),
            str(tmp_path),
        ],
        cwd=ROOT,
        capture_output=True,
        text=True,
        check=False,
    )
    assert done.returncode == 0, done.stdout + done.stderr


@pytest.mark.parametrize("sample", LEFT_OUT, ids=lambda sample: f"{sample.page}:{sample.line}")
def test_a_sample_that_cannot_run_says_why(sample: Sample) -> None:
    """Shows each sample that is not run in the list of tests, with the reason that stands beside it."""
    pytest.skip(sample.reason)


def test_an_output_that_differs_is_found() -> None:
    """A page that shows another output than the sample prints fails."""
    sample = Sample("page.md", 1, "python", "print(2)", "3\n")
    with pytest.raises(pytest.fail.Exception, match="page.md:1 shows"):
        compare(sample, "3\n", "2\n")


def test_a_sample_that_fails_is_found(reader: Reader) -> None:
    """Errors of Python blocks and of commands fail the page, with its line."""
    with pytest.raises(AssertionError, match="page.md:7"):
        reader.run(Sample("page.md", 7, "python", "1 / 0"))
    with pytest.raises(AssertionError, match="page.md:9"):
        reader.run(Sample("page.md", 9, "console", "$ exit 3\n"))
