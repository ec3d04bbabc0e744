"""What looks like a secret, whoever holds it; loaded when the first text is masked."""

import base64
import functools
import re
from collections.abc import Callable

__all__ = ["MASK", "mask_what_looks_secret"]

MASK = "***"

# Each when a text first needs it: compiling all takes longer than most programs mask.
_compiled = functools.lru_cache(maxsize=None)(re.compile)
_Replacement = str | Callable[["re.Match[str]"], str]


def mask_what_looks_secret(text: str) -> str:
    """Return a text with ``***`` in place of what looks like a secret."""
    folded = text.lower()
    for needles, pattern, replacement in _PATTERNS:
        if any(needle in folded for needle in needles):
            text = _compiled(*pattern).sub(replacement, text)
    return text


def _login_or_text(match: "re.Match[str]") -> str:
    try:
        login = base64.b64decode(match[2] + "===")
    except ValueError:
        return match[0]
    return f"{match[1]}{MASK}" if b":" in login else match[0]


# Each with words, in small letters, of which one stands in every text that the pattern could fit: a message
# is masked in the time of a few searches.
_PATTERNS: tuple[tuple[tuple[str, ...], tuple[str, int], _Replacement], ...] = (
    (
        ("-----begin ",),
        (r"-----BEGIN [^-\n]*-----.*?(?:-----END [^-\n]*-----|\Z)", re.DOTALL),
        MASK,
    ),
    # Up to the last @ before a blank, a quote or the next URL: a password may hold @ and / as they are.
    (("://",), (r"://(?:(?!://)[^\s\"<>])*@", 0), f"://{MASK}@"),
    # A header's line, an item of a dictionary, or a pair of a list of headers.
    (
        ("authorization",),
        (r"(authorization(?:\s*[:=]|[\"']\s*[:=,])\s*(?:b?[\"'])?)[^\"'\r\n]+", re.IGNORECASE),
        rf"\g<1>{MASK}",
    ),
    (
        ("bearer",),
        (r"\b(bearer\s+)(?!(?:tokens?|auth\w*)(?:[\s.,;:)]|$))[^\s\"',;*]{4,}", re.IGNORECASE),
        rf"\g<1>{MASK}",
    ),
    (
        ("basic",),
        (r"\b(basic\s+)([A-Za-z0-9+/_-]{4,})={0,2}", re.IGNORECASE),
        _login_or_text,
    ),
    (
        ("eyj",),
        (r"(?<![A-Za-z0-9_-])eyJ[A-Za-z0-9_-]{5,}\.[A-Za-z0-9_-]{5,}(?:\.[A-Za-z0-9_-]*)?", 0),
        MASK,
    ),
    (("akia", "asia"), (r"\b(?:AKIA|ASIA)[A-Z0-9]{12,}\b", 0), MASK),
    (
        ("passw", "secret", "token", "key", "x-amz-"),
        (
            r"((?:passw(?:or)?d|secret(?:_?access_?key)?|token|api_?key|private_?key|key_?material|"
            r"x-amz-(?:credential|signature))"
            r"[\"']?\s*[=:>]\s*(?:b?[\"'])?)(?!\*\*\*)[^\s\"',;&<>]{8,}",
            re.IGNORECASE,
        ),
        rf"\g<1>{MASK}",
    ),
    # Amazon's secret keys: forty characters that are neither a word nor a hexadecimal digest.
    (
        ("",),
        (
            r"(?<![A-Za-z0-9+/=_-])(?=[^\s]{0,39}[A-Z])(?=[^\s]{0,39}[a-z])(?=[^\s]{0,39}[0-9])"
            r"[A-Za-z0-9+/]{40}(?![A-Za-z0-9+/=_-])",
            0,
        ),
        MASK,
    ),
)
