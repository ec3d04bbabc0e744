"""Turns what goes wrong below into the one error of this package."""

import ssl

import httpcore2
import msgspec

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._transport.failure import Failure
from tovarincore.core_def import OPResultErrorCode

__all__ = ["failure_of", "refusal_of", "unreadable"]

_CODE_OF_STATUS = {
    401: OPResultErrorCode.UNAUTHENTICATED,
    403: OPResultErrorCode.UNAUTHORIZED_OPERATION,
    404: OPResultErrorCode.NOT_FOUND,
    410: OPResultErrorCode.EXPIRED,
    429: OPResultErrorCode.THROTTLED,
    503: OPResultErrorCode.UNAVAILABLE,
    504: OPResultErrorCode.TIMEOUT,
}


class _Status(msgspec.Struct):
    message: str | None = None


_STATUS = msgspec.json.Decoder(_Status)


def failure_of(error: Exception, *, outcome_unknown: bool) -> KubernetesError:
    """Return the error for what went wrong while a request was sent and its answer was read.

    :param outcome_unknown: parts of the request have been sent
    """
    text, code = _told(error)
    return KubernetesError(text, code, outcome_unknown=outcome_unknown)


def refusal_of(status: int, body: bytes) -> KubernetesError:
    """Return the error for an answer other than success, in the API server's words where it gave any."""
    try:
        message = _STATUS.decode(body).message
    except (msgspec.MsgspecError, UnicodeDecodeError, RecursionError):
        message = None
    text = message or f"The Kubernetes API server answered with status {status}"
    code = _CODE_OF_STATUS.get(status)
    if status == 403 and "exceeded quota" in text:
        # The server has no separate reason for it: a quota is one more admission that says no.
        code = OPResultErrorCode.RESOURCE_EXHAUSTED
    if status == 401:
        text += ": the cluster does not accept the credentials of the kubeconfig; renew them"
    return KubernetesError(text, code, status=status, outcome_unknown=status >= 500)


def unreadable(error: Exception) -> KubernetesError:
    """Return the error for an answer that is not what was asked for."""
    return KubernetesError(
        "The server's answer is not what was asked for. Check that the address in the kubeconfig is that of "
        f"a Kubernetes API server ({type(error).__name__}).",
        OPResultErrorCode.PROTOCOL_ERROR,
        outcome_unknown=True,
    )


def _told(error: Exception) -> tuple[str, OPResultErrorCode | None]:
    if isinstance(error, Failure):
        if error.error_code is OPResultErrorCode.PROTOCOL_ERROR:
            return f"The Kubernetes API server's answer cannot be used: {error}.", error.error_code
        if error.error_code is OPResultErrorCode.CONNECTION_FAILED:
            return f"The Kubernetes API server cannot be reached: {error}.", error.error_code
        return str(error), error.error_code
    if isinstance(error, ssl.SSLError):
        return (
            f"The certificate of the Kubernetes API server cannot be verified, or it refuses ours: {error}. "
            "Give its authority in the kubeconfig as certificate-authority.",
            OPResultErrorCode.CERTIFICATE_INVALID,
        )
    if isinstance(error, httpcore2.ProxyError):
        return (
            f"The proxy of the kubeconfig opens no way to the API server ({error}). Check proxy-url.",
            OPResultErrorCode.CONNECTION_FAILED,
        )
    if isinstance(error, httpcore2.LocalProtocolError | UnicodeError):
        # Its text would show the header, and with it the token.
        return (
            "The request cannot be sent: the kubeconfig holds characters that no HTTP header may have.",
            OPResultErrorCode.UNAUTHENTICATED,
        )
    if isinstance(error, httpcore2.NetworkError | httpcore2.RemoteProtocolError | OSError):
        return (
            f"The connection to the API server broke off ({error}). Try again: it may be restarting.",
            OPResultErrorCode.CONNECTION_FAILED,
        )
    raise error
