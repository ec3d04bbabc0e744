"""Text from elsewhere, made fit for one line of a terminal."""

from tovarincore._transport.masker import mask

__all__ = ["one_line", "printable"]

_LONGEST = 400


def one_line(text: object, longest: int = _LONGEST) -> str:
    """Return a text without secrets, line breaks or control characters, not longer than it may be.

    :param text: what to show
    :param longest: characters to keep
    """
    # Masked before it is cut: half a secret would no longer be known as one.
    shown = printable(" ".join(mask(text).split()))
    return shown if len(shown) <= longest else shown[: longest - 3] + "..."


def printable(text: str) -> str:
    """Return a text with its control characters spelt out: in a node's name they could steer a terminal."""
    if text.isprintable():
        return text
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode("ascii") for c in text)
