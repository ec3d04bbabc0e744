"""Where the configuration files lie."""

import os
from pathlib import Path

from tovarincore._config_files.errors import ConfigError

__all__ = ["configured_path"]


def configured_path(variable: str, file_name: str) -> Path:
    """Return the path that an environment variable names, else the user's own file.

    :param variable: environment variable that holds a path; unset and empty mean the same
    :param file_name: name of the file in the platform's configuration directory of the product
    :raises ConfigError: the path begins with the home directory of nobody
    """
    named = os.environ.get(variable, "")
    try:
        if named:
            return Path(named).expanduser() if named.startswith("~") else Path(named)
        from platformdirs import user_config_dir

        return Path(user_config_dir("tovarin", appauthor=False)) / file_name
    except (RuntimeError, KeyError) as error:
        raise ConfigError(f"{variable}: there is no home directory; set it to the path of a file") from error
