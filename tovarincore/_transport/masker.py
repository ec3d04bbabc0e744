"""The one masker: no text of a library or a peer is shown or logged before its secrets are taken out."""

import threading
import weakref
from collections import OrderedDict
from collections.abc import Iterator
from typing import Any

__all__ = ["Secret", "SecretBytes", "know_secret", "mask", "mask_start"]

# A shorter text would be found inside of ordinary words, as would a longer one of letters alone.
_LEAST_CHARACTERS, _LEAST_LETTERS = 4, 8
_LEAST_LINE_CHARACTERS = 8
_SCHEMES = ("http://", "https://", "tcp://", "unix://")
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
        if type(value) is cls:
            return value
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
        return "'***'"

    def __copy__(self) -> "Secret":
        return self

    def __deepcopy__(self, memo: Any) -> "Secret":
        return self

    def __reduce__(self) -> tuple[Any, ...]:
        return Secret, (str.__str__(self),)


class SecretBytes(bytes):
    """Bytes that hold secrets somewhere, such as a file's: their ``repr`` shows nothing of them."""

    def __repr__(self) -> str:
        return f"<{len(self)} bytes, not shown>"


def know_secret(value: str) -> Secret:
    """Let :func:`mask` know a secret for longer than its holder lives: the last 256 of these are remembered.

    :param value: a token, a password, a key
    :return: the same text, of the type whose ``repr`` is masked
    """
    secret = Secret(value)
    with _remembered_lock:
        _remembered[secret] = secret
        _remembered.move_to_end(secret)
        if len(_remembered) > _REMEMBERED:
            _remembered.popitem(last=False)
    return secret


def mask(text: object) -> str:
    """Return a text with ``***`` in place of every secret.

    Secrets are those that are known, also in the forms in which they travel (URL-quoted, as a Basic login, in
    a JSON or HTML text, line by line), and what looks like one: logins in URLs, authorization headers, bearer
    tokens, PEM blocks, Amazon's keys, and values beside words such as ``password=``.

    :param text: any text, or an object whose text is meant, such as an exception
    """
    # Imported here: its patterns take longer to compile than the rest of the package to import.
    from tovarincore._transport.secret_patterns import MASK, mask_what_looks_secret

    masked = str(text)
    for form in _known_forms(masked):
        masked = masked.replace(form, MASK)
    return mask_what_looks_secret(masked)


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
    import html
    import json
    import re
    from urllib.parse import quote, quote_plus

    for part in _parts(value):
        if len(part) < (_LEAST_LETTERS if part.isalpha() else _LEAST_CHARACTERS):
            continue
        yield part
        yield quote(part, safe="", errors="replace")
        yield quote_plus(part, errors="replace")
        as_json = json.dumps(part)[1:-1]
        yield as_json
        # Some programs escape slashes in JSON, and write the figures of a URL in small letters.
        yield as_json.replace("/", "\\/")
        yield re.sub("%..", lambda match: match[0].lower(), quote(part, safe="", errors="replace"))
        yield ascii(part)[1:-1]
        yield html.escape(part)
        yield base64.b64encode(part.encode("utf-8", "replace")).decode("ascii").rstrip("=")
        yield base64.urlsafe_b64encode(part.encode("utf-8", "replace")).decode("ascii").rstrip("=")


def _parts(value: str) -> Iterator[str]:
    """The secret itself, its lines, and the login and password inside a URL; without a login it has none."""
    if "@" not in value and value.startswith(_SCHEMES):
        return
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
