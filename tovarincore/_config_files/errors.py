"""The one exception of everything that is configured."""

__all__ = ["ConfigError"]


class ConfigError(Exception):
    """A configuration file or environment variable cannot be used.

    The text names the file or variable and the key, and says what is allowed. It never holds the value of
    a secret setting.
    """
