"""Text from elsewhere, made fit for one line of a terminal."""

__all__ = ["one_line"]

_LONGEST = 400


def one_line(text: object, longest: int = _LONGEST) -> str:
    """Return a text without line breaks or control characters, which a node's name could bring along.

    :param text: what to show
    :param longest: characters to keep
    """
    joined = " ".join(str(text).split())
    shown = "".join(c if c.isprintable() else c.encode("unicode_escape").decode("ascii") for c in joined)
    return shown if len(shown) <= longest else shown[: longest - 3] + "..."
