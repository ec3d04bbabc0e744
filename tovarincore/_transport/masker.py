"""The one masker: no text of a library or a peer is shown or logged before its secrets are taken out."""

import re
import threading
import weakref
from collections import OrderedDict
from collections.abc import Iterator
from typing import Any

__all__ = ["Secret", "know_secret", "mask", "mask_start"]

_MASK = "***"

# A shorter text would be found inside of ordinary words.
_LEAST_CHARACTERS = 4
_LEAST_LINE_CHARACTERS = 8
_REMEMBERED = 256
_LONGEST_SECRET = 4096

# By identity: two equal secrets die at different times. Secrets that nothing else holds are forgotten.
_living: dict[int, "weakref.ref[Secret]"] = {}
_remembered: OrderedDict[str, "Secret"] = OrderedDict()
_remembered_lock = threading.Lock()


class Secret(str):
    """A text that is never shown: its ``repr`` is masked, and :func:`mask` knows it while it lives.

    In everything else it is the text: it compares, hashes, encodes, formats, copies and pickles as such.
    """

    __slots__ = ("__weakref__", "_forms")
    _forms: tuple[str, ...]

    def __new__(cls, value: str = "") -> "Secret":
        secret = super().__new__(cls, value)
        key, living = id(secret), _living
        living[key] = weakref.ref(secret, lambda _: living.pop(key, None))
        return secret

    @property
    def forms(self) -> tuple[str, ...]:
        """The texts by which :func:`mask` recognises the secret, made when they are first asked for."""
        try:
            return self._forms
        except AttributeError:
            self._forms = tuple(set(_forms(str.__str__(self))))
            return self._forms

    def __repr__(self) -> str:
        return f"'{_MASK}'"

    def __copy__(self) -> "Secret":
        return self

    def __deepcopy__(self, memo: Any) -> "Secret":
        return self

    def __reduce__(self) -> tuple[Any, ...]:
        return Secret, (str.__str__(self),)


def know_secret(value: str) -> Secret:
    """Let :func:`mask` know a secret for longer than its holder lives: the last 256 of these are remembered.

    :param value: a token, a password, a key
    :return: the same text, of the type whose ``repr`` is masked
    """
    secret = value if isinstance(value, Secret) else Secret(value)
    with _remembered_lock:
        _remembered[secret] = secret
        _remembered.move_to_end(secret)
        if len(_remembered) > _REMEMBERED:
            _remembered.popitem(last=False)
    return secret


def mask(text: object) -> str:
    """Return a text with ``***`` in place of every secret.

    Secrets are those that are known, also in the forms in which they travel (URL-quoted, as a Basic login, in
    a JSON text, line by line), and what looks like one: logins in URLs, authorization headers, bearer tokens,
    PEM blocks, Amazon's keys, and values beside words such as ``password=``.

    :param text: any text, or an object whose text is meant, such as an exception
    """
    masked = str(text)
    for form in _known_forms(masked):
        masked = masked.replace(form, _MASK)
    for pattern, replacement in _LOOKS_SECRET:
        masked = pattern.sub(replacement, masked)
    return masked


def mask_start(text: object, characters: int) -> str:
    """Return the start of a text, masked; for texts whose length a peer chooses.

    :param characters: how much is returned at most, besides the ``...`` of a text that is cut
    """
    whole = str(text)
    looked_at = whole[: characters + 2 * _LONGEST_SECRET]
    masked = mask(looked_at)
    if len(whole) > len(looked_at):
        # The cut may have gone through a secret, whose first half nothing would recognise.
        masked = masked[: max(0, len(masked) - _LONGEST_SECRET)]
        return masked[:characters] + "..."
    return masked if len(masked) <= characters else masked[:characters] + "..."


def _known_forms(text: str) -> list[str]:
    """The forms of known secrets that stand in a text, the longest first."""
    found = {
        form
        for reference in list(_living.values())
        if (secret := reference()) is not None
        for form in secret.forms
        if form in text
    }
    return sorted(found, key=len, reverse=True)


def _forms(value: str) -> Iterator[str]:
    import base64
    import json
    from urllib.parse import quote, quote_plus

    for part in _parts(value):
        if len(part) < _LEAST_CHARACTERS:
            continue
        yield part
        yield quote(part, safe="", errors="replace")
        yield quote_plus(part, errors="replace")
        yield json.dumps(part)[1:-1]
        yield ascii(part)[1:-1]
        yield base64.b64encode(part.encode("utf-8", "replace")).decode("ascii").rstrip("=")


def _parts(value: str) -> Iterator[str]:
    """The secret itself, its lines, and the login and password inside of a URL."""
    yield value
    stripped = value.strip()
    yield stripped
    lines = stripped.splitlines()
    if len(lines) > 1:
        yield from (line.strip() for line in lines if len(line.strip()) >= _LEAST_LINE_CHARACTERS)
    if "://" in value and "@" in value:
        from urllib.parse import unquote

        login = value.partition("://")[2].rpartition("@")[0]
        for text in (login, unquote(login)):
            yield text
            yield text.partition(":")[2]


def _login_or_text(match: "re.Match[str]") -> str:
    import base64

    try:
        login = base64.b64decode(match[2] + "===")
    except ValueError:
        return match[0]
    return f"{match[1]}{_MASK}" if b":" in login else match[0]


_LOOKS_SECRET: tuple[tuple["re.Pattern[str]", Any], ...] = (
    (re.compile(r"-----BEGIN [^-\n]*-----.*?(?:-----END [^-\n]*-----|\Z)", re.DOTALL), _MASK),
    # Up to the last @ before a blank, a quote or the next URL: a password may hold @ and / as they are.
    (re.compile(r"://(?:(?!://)[^\s\"<>])*@"), f"://{_MASK}@"),
    # A header's line, an item of a dictionary, or a pair of a list of headers.
    (
        re.compile(r"(authorization(?:\s*[:=]|[\"']\s*[:=,])\s*(?:b?[\"'])?)[^\"'\r\n]+", re.IGNORECASE),
        rf"\g<1>{_MASK}",
    ),
    (
        re.compile(r"\b(bearer\s+)(?!(?:tokens?|auth\w*)(?:[\s.,;:)]|$))[^\s\"',;*]{4,}", re.IGNORECASE),
        rf"\g<1>{_MASK}",
    ),
    (re.compile(r"\b(basic\s+)([A-Za-z0-9+/_-]{4,})={0,2}", re.IGNORECASE), _login_or_text),
    (re.compile(r"(?<![A-Za-z0-9_-])eyJ[A-Za-z0-9_-]{5,}\.[A-Za-z0-9_-]{5,}(?:\.[A-Za-z0-9_-]*)?"), _MASK),
    # Ids of access keys, and secret keys: forty characters that are neither a word nor a hexadecimal digest.
    (re.compile(r"\b(?:AKIA|ASIA)[A-Z0-9]{12,}\b"), _MASK),
    (
        re.compile(
            r"(?<![A-Za-z0-9+/=_-])(?=[^\s]{0,39}[A-Z])(?=[^\s]{0,39}[a-z])(?=[^\s]{0,39}[0-9])"
            r"[A-Za-z0-9+/]{40}(?![A-Za-z0-9+/=_-])"
        ),
        _MASK,
    ),
    (
        re.compile(
            r"((?:passw(?:or)?d|secret(?:_?access_?key)?|token|api_?key|private_?key|key_?material|"
            r"x-amz-(?:credential|signature))"
            r"[\"']?\s*[=:]\s*(?:b?[\"'])?)(?!\*\*\*)[^\s\"',;&<>]{8,}",
            re.IGNORECASE,
        ),
        rf"\g<1>{_MASK}",
    ),
)
