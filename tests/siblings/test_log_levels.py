"""The package's logger, and the secrets of the libraries underneath."""

import io
import logging
from collections.abc import Iterator
from pathlib import Path

import pytest

from tovarincore._transport.masker import Secret
from tovarincore.core_conf import ConfigError, LogManager, core_conf_glbl

MARKER = "s3cr3t-m4rk3r"
HELD = [
    "boto3",
    "botocore",
    "docker",
    "httpcore",
    "httpcore2",
    "httpx2",
    "lightkube",
    "urllib3",
    "websockets",
]


@pytest.fixture
def log_manager() -> Iterator[LogManager]:
    """A log manager that has touched nothing yet; afterwards the loggers are as they were."""
    loggers = [logging.getLogger(name) for name in ("tovarincore", "botocore.parsers", *HELD)]
    before = [(logger.level, list(logger.handlers)) for logger in loggers]
    for logger in loggers:
        logger.setLevel(logging.NOTSET)
        logger.handlers.clear()
    yield LogManager(core_conf_glbl)
    for logger, (level, handlers) in zip(loggers, before, strict=True):
        logger.setLevel(level)
        logger.handlers[:] = handlers


@pytest.fixture
def root_at_debug() -> Iterator[io.StringIO]:
    """An application that writes every line of every logger."""
    stream = io.StringIO()
    handler = logging.StreamHandler(stream)
    level = logging.root.level
    logging.root.addHandler(handler)
    logging.root.setLevel(logging.DEBUG)
    yield stream
    logging.root.setLevel(level)
    logging.root.removeHandler(handler)


def test_it_is_the_standard_logger_of_the_package(log_manager: LogManager) -> None:
    """At the level of the settings, and every call gives the same one."""
    logger = log_manager.get_logger()
    assert logger is logging.getLogger("tovarincore")
    assert logger is log_manager.get_logger()
    assert logger.level == logging.WARNING


def test_it_writes_nothing_by_itself(log_manager: LogManager, capfd: pytest.CaptureFixture[str]) -> None:
    """Not even through logging's handler of last resort."""
    root_handlers = logging.root.handlers[:]
    logging.root.handlers.clear()
    try:
        log_manager.get_logger().error("a line")
    finally:
        logging.root.handlers[:] = root_handlers
    assert capfd.readouterr() == ("", "")


def test_the_setting_gives_it_one_handler(
    log_manager: LogManager, conf_file: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    """However often the logger is asked for, a line is written once."""
    conf_file.write_text('[logging]\nhandler = "stderr"\nlevel = "INFO"\n')
    for _ in range(3):
        logger = log_manager.get_logger()
    logger.info("a line")
    assert capsys.readouterr().err.count("INFO tovarincore: a line") == 1


def test_reload_changes_level_and_handler(log_manager: LogManager, conf_file: Path) -> None:
    """What the settings gave before is taken back."""
    conf_file.write_text('[logging]\nhandler = "stderr"\nlevel = "INFO"\n')
    log_manager.get_logger()
    conf_file.write_text("")
    core_conf_glbl.reload()
    logger = log_manager.get_logger()
    assert logger.level == logging.WARNING
    assert [type(handler) for handler in logger.handlers] == [logging.NullHandler]


def test_a_level_of_the_application_stays(log_manager: LogManager) -> None:
    """Who sets the level in the program knows better than a file."""
    logging.getLogger("tovarincore").setLevel(logging.DEBUG)
    assert log_manager.get_logger().level == logging.DEBUG


def test_a_broken_configuration_is_named(log_manager: LogManager, conf_file: Path) -> None:
    """Node managers ask for their logger when they are made: the text must say what to correct."""
    conf_file.write_text('[logging]\nlevel = "LOUD"\n')
    with pytest.raises(ConfigError, match=r"core\.toml: \[logging\] level: 'LOUD' is not allowed"):
        log_manager.get_logger()


@pytest.mark.parametrize("name", [*HELD, "botocore.parsers"])
def test_libraries_do_not_log_secrets_at_debug(
    log_manager: LogManager, root_at_debug: io.StringIO, name: str
) -> None:
    """Although the application asks for every line, also when a library's own logger was set to DEBUG."""
    logging.getLogger(name).setLevel(logging.DEBUG)
    log_manager.get_logger()
    logging.getLogger(name).debug("body: %s", MARKER)
    logging.getLogger(name).info("a harmless line")
    assert MARKER not in root_at_debug.getvalue()
    assert "a harmless line" in root_at_debug.getvalue()


def test_the_setting_with_the_warning_in_its_name_lifts_the_hold(
    log_manager: LogManager, root_at_debug: io.StringIO, conf_file: Path
) -> None:
    """Also after the loggers were held, and then they are as the application had them."""
    log_manager.get_logger()
    conf_file.write_text("[logging]\nlet_sdk_debug_logs_show_secrets = true\n")
    core_conf_glbl.reload()
    log_manager.get_logger()
    logging.getLogger("botocore.parsers").debug("body: %s", MARKER)
    assert MARKER in root_at_debug.getvalue()
    assert logging.getLogger("botocore").level == logging.NOTSET


def test_a_logger_set_to_debug_later_is_held_again(
    log_manager: LogManager, root_at_debug: io.StringIO
) -> None:
    """The next node manager that is made sees to it."""
    log_manager.get_logger()
    logging.getLogger("botocore").setLevel(logging.DEBUG)
    log_manager.get_logger()
    logging.getLogger("botocore").debug(MARKER)
    assert MARKER not in root_at_debug.getvalue()


def test_holding_makes_no_library_more_talkative(log_manager: LogManager) -> None:
    """Under an application that shows warnings only, a held library shows warnings only."""
    level = logging.root.level
    logging.root.setLevel(logging.WARNING)
    try:
        log_manager.get_logger()
        assert not logging.getLogger("botocore").isEnabledFor(logging.INFO)
        logging.getLogger("urllib3").setLevel(logging.ERROR)
        log_manager.get_logger()
        assert logging.getLogger("urllib3").level == logging.ERROR
    finally:
        logging.root.setLevel(level)


def test_secrets_are_taken_out_of_the_packages_own_lines(
    log_manager: LogManager, root_at_debug: io.StringIO
) -> None:
    """In the message, its arguments and the traceback, whoever wrote the text of the exception."""
    secret = Secret(MARKER)
    logger = log_manager.get_logger()
    logger.setLevel(logging.DEBUG)
    for each in (logger, logging.getLogger("CloudManager")):
        try:
            raise ValueError(f"the peer said {secret}")
        except ValueError:
            each.error("tried %s", str(secret), exc_info=True)
    text = root_at_debug.getvalue()
    assert MARKER not in text
    assert text.count("tried ***\nTraceback") == 2
    assert text.count("ValueError: the peer said ***\n") == 2


def test_a_line_without_secrets_keeps_its_parts(
    log_manager: LogManager, caplog: pytest.LogCaptureFixture
) -> None:
    """Handlers of the application may look at arguments and exception."""
    try:
        raise KeyError("x")
    except KeyError as error:
        log_manager.get_logger().error("tried %s", "it", exc_info=True)
        assert caplog.records[-1].args == ("it",)
        assert caplog.records[-1].exc_info is not None and caplog.records[-1].exc_info[1] is error
