"""Checks single values against the table of settings."""

import ipaddress
import math
import re
from collections.abc import Callable
from typing import Any

from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.names import shown_value
from tovarincore._core_conf.schema import Setting
from tovarincore._transport.masker import Secret

__all__ = ["check_address", "check_value", "from_variable"]

_KIND_NAMES = {bool: "true or false", int: "a whole number", float: "a number", str: "a text"}
# Secret texts have their own type.
_TYPES: dict[tuple[type, bool], tuple[type, ...]] = {
    (bool, False): (bool,),
    (int, False): (int,),
    (float, False): (float,),
    (float, True): (int, float),
    (str, False): (str, Secret),
}
_TRUE = ("true", "1", "yes", "on")
_FALSE = ("false", "0", "no", "off")


def _is_proxy(text: str) -> bool:
    if not text:
        return True
    from urllib.parse import urlsplit

    if not re.fullmatch(r"https?://[^\s/]+/?", text):
        return False
    try:
        url = urlsplit(text)
        return bool(url.hostname) and url.port != 0
    except ValueError:
        return False


_FORMS: dict[str, tuple[Callable[[str], object], str]] = {
    "not_empty": (lambda text: text.strip(), "a text that is not empty"),
    "url_path": (
        lambda text: re.fullmatch(r"/[!-~]*", text),
        "a path that begins with / and holds no blanks",
    ),
    "token": (lambda text: re.fullmatch(r"[!-~]*", text), "printable ASCII characters without blanks"),
    "proxy_url": (_is_proxy, "empty or of the form http://host:port, with a port up to 65535"),
}


def check_value(setting: Setting, value: object, source: str) -> Any:
    """Return the value as the setting's type.

    :param setting: the row of the table
    :param value: what the file or the variable gives
    :param source: file and key, or variable, for the error's text
    :raises ConfigError: wrong type, out of range or not one of the allowed values
    """
    if setting.kind is float and type(value) is int and not setting.keeps_whole:
        value = _as_float(value)
    # Exact types: a bool is an int to isinstance.
    if type(value) not in _TYPES[setting.kind, setting.keeps_whole] or not _fits(setting, value):
        shown = "the value given (not shown)" if setting.secret else shown_value(value)
        raise ConfigError(f"{source}: {shown} is not allowed; allowed is {_allowed_text(setting)}")
    return value


def _as_float(value: int) -> float:
    try:
        return float(value)
    except OverflowError:
        return math.inf


def _fits(setting: Setting, value: Any) -> bool:
    if setting.allowed is not None:
        return value in setting.allowed
    if setting.form:
        return bool(_FORMS[setting.form][0](value))
    if isinstance(value, float) and not math.isfinite(value):
        return False
    if setting.minimum is not None and value < setting.minimum:
        return False
    return setting.maximum is None or value <= setting.maximum


def _allowed_text(setting: Setting) -> str:
    if setting.allowed is not None:
        return "one of " + ", ".join(repr(value) for value in setting.allowed)
    if setting.form:
        return _FORMS[setting.form][1]
    text = _KIND_NAMES[setting.kind]
    if setting.minimum is not None and setting.maximum is not None:
        text += f" from {setting.minimum} to {setting.maximum}"
    elif setting.minimum is not None:
        text += f" of at least {setting.minimum}"
    return text + (f" ({setting.unit})" if setting.unit else "")


def from_variable(setting: Setting, text: str) -> object:
    """Return what the text of an environment variable stands for; the text itself when it stands for nothing.

    Checking is left to :func:`check_value`, which then refuses a text in place of a number.
    """
    if setting.kind is bool:
        folded = text.strip().lower()
        return True if folded in _TRUE else False if folded in _FALSE else text
    for number in () if setting.kind is str else _TYPES[setting.kind, setting.keeps_whole]:
        try:
            return number(text)
        except ValueError:
            continue
    return text


def check_address(value: object, source: str) -> tuple[str, int]:
    """Return host and port of a text such as ``"127.0.0.1:8855"`` or ``"[::1]:8855"``.

    :raises ConfigError: the value is no text of that form, or the port is outside 1 to 65535
    """
    match = (
        re.fullmatch(r"(?:\[([^\[\]\s]+)\]|([^:\[\]\s/@]+)):([0-9]{1,5})", value)
        if isinstance(value, str)
        else None
    )
    if (
        match is None
        or not 1 <= int(match.group(3)) <= 65535
        or (match.group(1) and not _is_ipv6(match.group(1)))
    ):
        raise ConfigError(
            f'{source}: {shown_value(value)} is not allowed; allowed is "host:port" with a port from 1 to'
            f' 65535, an IPv6 address in brackets: "[::1]:8855"'
        )
    return match.group(1) or match.group(2), int(match.group(3))


def _is_ipv6(text: str) -> bool:
    try:
        ipaddress.IPv6Address(text)
    except ValueError:
        return False
    return True
