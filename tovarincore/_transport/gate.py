"""The one gate for text from outside that becomes a path, a filter, a label, a key or a name.

Each check returns the text as it is, or raises :class:`RefusedName` with what is allowed.
"""

import re
from typing import NoReturn

__all__ = [
    "RefusedName",
    "check_instance_id",
    "check_key_name",
    "check_namespace",
    "check_node_name",
    "check_region_name",
    "check_user_name",
    "check_uuid",
    "check_version",
]

_SHOWN_CHARACTERS = 80

# EC2 reads these in the value of a filter: a user named "*" would be every user.
_PATTERN_CHARACTERS = "*?\\"

_LABEL_VALUE = r"[A-Za-z0-9](?:[A-Za-z0-9._-]{0,61}[A-Za-z0-9])?"
_DNS_LABEL = r"[a-z0-9](?:[a-z0-9-]{0,61}[a-z0-9])?"
_INSTANCE_ID = r"[A-Za-z0-9][A-Za-z0-9._-]{0,252}"
_IMAGE_TAG = r"[A-Za-z0-9_][A-Za-z0-9._-]{0,127}"
_KEY_NAME = r"[!-~](?:[ -~]{0,253}[!-~])?"


class RefusedName(ValueError):
    """A text cannot be used as the name it was given for; the message says what is allowed.

    :param message: the whole message
    :param allowed: its part behind "allowed are", for messages that must not show the text
    """

    def __init__(self, message: str, allowed: str = "") -> None:
        super().__init__(message)
        self.allowed = allowed


def check_user_name(text: str) -> str:
    """Return the name of a user of the product, which becomes a tag and the value of a filter."""
    if not _is_readable(text, 256, without=_PATTERN_CHARACTERS):
        _refuse(
            text,
            "a user name",
            "1 to 256 printable characters other than * ? \\ (EC2 reads these as patterns, which match other "
            "users), without blanks at the ends",
        )
    return text


def check_uuid(text: str) -> str:
    """Return the product's id of a node, which becomes a tag, a label and part of a pod's name."""
    if not _matches(_LABEL_VALUE, text):
        _refuse(text, "a uuid", "1 to 63 letters, digits and - _ . with a letter or digit at both ends")
    return text


def check_region_name(text: str) -> str:
    """Return the name of a region, which becomes a key of the store and part of a host name."""
    if not _is_readable(text, 128, without=_PATTERN_CHARACTERS + "/:") or text[0] in "-.":
        _refuse(
            text,
            "the name of a region",
            "1 to 128 printable characters other than * ? \\ / : without blanks at the ends, and no - or "
            ". in front",
        )
    return text


def check_namespace(text: str) -> str:
    """Return the name of a Kubernetes namespace, which becomes part of a request's path."""
    if not _matches(_DNS_LABEL, text):
        _refuse(
            text,
            "the name of a namespace",
            "1 to 63 lower-case letters, digits and hyphens with a letter or digit at both ends",
        )
    return text


def check_instance_id(text: str) -> str:
    """Return a provider's id of an instance, container or pod, which becomes part of a request's path."""
    if not _matches(_INSTANCE_ID, text):
        _refuse(text, "an instance id", "1 to 253 letters, digits and - _ . with a letter or digit in front")
    return text


def check_key_name(text: str) -> str:
    """Return the name of a key pair, which becomes the value of a filter and the name of a file."""
    if not _matches(_KEY_NAME, text) or text[0] in "-." or any(sign in text for sign in "*?\\/"):
        _refuse(
            text,
            "the name of a key pair",
            "1 to 255 printable ASCII characters other than * ? \\ / without blanks at the ends, and no - or "
            ". in front",
        )
    return text


def check_version(text: str) -> str:
    """Return a version of the product, which becomes the tag of an image."""
    if not _matches(_IMAGE_TAG, text):
        _refuse(
            text,
            "a version",
            "1 to 128 letters, digits and - _ . with a letter, digit or underscore in front",
        )
    return text


def check_node_name(text: str) -> str:
    """Return the name of a node for people, which becomes a tag or an annotation."""
    if not _is_readable(text, 255, without=_PATTERN_CHARACTERS) or text[0] == "-":
        _refuse(
            text,
            "the name of a node",
            "1 to 255 printable characters other than * ? \\ without blanks at the ends, and no - in front",
        )
    return text


def _matches(pattern: str, text: object) -> bool:
    # Compiled when it is first used, and kept by the module.
    return isinstance(text, str) and re.fullmatch(pattern, text) is not None


def _is_readable(text: object, most: int, without: str) -> bool:
    """Whether a text of letters of any script shows as what it is: no control signs, no hidden ones."""
    return (
        isinstance(text, str)
        and 0 < len(text) <= most
        and text.isprintable()
        and text == text.strip()
        and text not in (".", "..")
        and not any(sign in text for sign in without)
    )


def _refuse(text: object, what: str, allowed: str) -> NoReturn:
    if not isinstance(text, str):
        raise RefusedName(f"a {type(text).__name__} cannot be {what}; allowed are {allowed}", allowed)
    shown = text if len(text) <= _SHOWN_CHARACTERS else text[:_SHOWN_CHARACTERS] + "..."
    raise RefusedName(f"{ascii(shown)} cannot be {what}; allowed are {allowed}", allowed)
