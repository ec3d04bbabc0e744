"""How the API server is verified, and by which certificate this client shows who it is."""

import os
import re
import ssl
import tempfile
import time
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from pathlib import Path

import httpcore2

from tovarincore._k8s_console_client.credentials import Access
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore.core_def import OPResultErrorCode

__all__ = ["tls_context"]

_CERTIFICATE = re.compile("-----BEGIN CERTIFICATE-----.+?-----END CERTIFICATE-----", re.DOTALL)
_FILE_PREFIX = "tovarin-tls-"
_LEFT_BEHIND_SECONDS = 60


def tls_context(access: Access) -> ssl.SSLContext:
    """Return the TLS settings for an API server.

    :raises KubernetesError: the certificates or the key cannot be used
    """
    try:
        context = _server_side(access)
        if access.certificate:
            with _as_file(f"{access.certificate}\n{access.key}") as path:
                # A password that is never asked for: nobody is there to type one.
                context.load_cert_chain(path, password="")
    except (OSError, ValueError) as error:
        raise KubernetesError(
            f"The certificates of the kubeconfig cannot be used: {error}",
            OPResultErrorCode.CERTIFICATE_INVALID,
        ) from error
    return context


def _server_side(access: Access) -> ssl.SSLContext:
    if access.authority:
        # Only the certificates: what people write around them need not be ASCII, which this has to be.
        authority = "\n".join(_CERTIFICATE.findall(access.authority))
        if not authority:
            raise ValueError("the certificate-authority holds no certificate")
        return ssl.create_default_context(cadata=authority)
    if access.verify:
        return httpcore2.default_ssl_context()
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


@contextmanager
def _as_file(text: str) -> Iterator[str]:
    """Give the body a path under which the TLS library reads a text: it reads keys from files alone.

    On Linux the file lies in memory. Elsewhere it is one that only this user can read, and that is removed at
    once; those of processes that were killed in between are removed as well.
    """
    if hasattr(os, "memfd_create") and os.path.isdir("/proc/self/fd"):
        descriptor = os.memfd_create("tovarin-tls", os.MFD_CLOEXEC)
        with open(descriptor, "wb") as file:
            file.write(text.encode("ascii", "replace"))
            file.flush()
            yield f"/proc/self/fd/{descriptor}"
        return
    _sweep()
    descriptor, path = tempfile.mkstemp(prefix=_FILE_PREFIX)
    try:
        with open(descriptor, "wb") as file:
            file.write(text.encode("ascii", "replace"))
        yield path
    finally:
        os.unlink(path)


def _sweep() -> None:
    for path in Path(tempfile.gettempdir()).glob(f"{_FILE_PREFIX}*"):
        with suppress(OSError):
            status = path.lstat()
            if status.st_uid == os.getuid() and time.time() - status.st_mtime > _LEFT_BEHIND_SECONDS:
                path.unlink()
