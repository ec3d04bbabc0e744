"""The reference of settings, one table for each section, made from the settings' own descriptions.

`make docs` puts it into the page on configuration; `python docs/settings_tables.py` prints it.
"""

from itertools import groupby
from pathlib import Path

from tovarincore.core_conf import Setting, describe_settings

_KINDS = {bool: "true or false", int: "whole number", float: "number", str: "text", dict: "texts"}


def settings_tables() -> str:
    """Return the tables in Markdown, in the order of the settings."""
    parts = []
    for section, settings in groupby(describe_settings(), key=lambda setting: setting.section):
        parts.append(f"### `[{section}]`\n\n| key | default | value | meaning |\n|---|---|---|---|\n")
        parts.extend(_row(setting) for setting in settings)
        parts.append("\n")
    return "".join(parts)


def write_settings_tables(path: Path) -> None:
    """Write the tables into a file, whose folder is made if need be."""
    path.parent.mkdir(exist_ok=True)
    path.write_text(settings_tables(), encoding="utf-8")


def _row(setting: Setting) -> str:
    return f"| `{setting.key}` | {_default(setting)} | {_value(setting)} | {_cell(setting.doc)} |\n"


def _default(setting: Setting) -> str:
    if setting.default in ("", {}):
        return "empty"
    if isinstance(setting.default, bool):
        return f"`{str(setting.default).lower()}`"
    return f"`{setting.default}`"


def _value(setting: Setting) -> str:
    if setting.allowed is not None:
        return ", ".join(f"`{value}`" for value in setting.allowed)
    text = _KINDS[setting.kind]
    if setting.unit:
        text += f" of {setting.unit}"
    if setting.minimum is not None and setting.maximum is not None:
        text += f", {setting.minimum} to {setting.maximum}"
    elif setting.minimum is not None:
        text += f", at least {setting.minimum}"
    return f"{text}; secret" if setting.secret else text


def _cell(text: str) -> str:
    return text.replace("|", "\\|")


if __name__ == "__main__":
    print(settings_tables())
