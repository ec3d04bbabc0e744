"""Where the configuration files lie."""

import os
from pathlib import Path

__all__ = ["configured_path"]


def configured_path(variable: str, file_name: str) -> Path:
    """Return the path that an environment variable names, else the user's own file.

    :param variable: environment variable that holds a path; unset and empty mean the same
    :param file_name: name of the file in the platform's configuration directory of the product
    """
    named = os.environ.get(variable, "")
    if named:
        return Path(named).expanduser()
    from platformdirs import user_config_dir

    return Path(user_config_dir("tovarin", appauthor=False)) / file_name
