"""Turns what goes wrong below into the one error of this package."""

import json
import ssl
from collections.abc import Iterator
from contextlib import contextmanager

import httpcore2
import httpx2
import msgspec
from lightkube.core.exceptions import ApiError

from tovarincore._k8s_console_client.deadline import Deadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore.core_def import OPResultErrorCode

__all__ = ["translated"]

_CODE_OF_STATUS = {
    401: OPResultErrorCode.UNAUTHENTICATED,
    403: OPResultErrorCode.UNAUTHORIZED_OPERATION,
    404: OPResultErrorCode.NOT_FOUND,
    504: OPResultErrorCode.TIMEOUT,
}


@contextmanager
def translated(deadline: Deadline) -> Iterator[None]:
    """Raise what goes wrong in the body as :class:`KubernetesError`.

    :param deadline: the deadline that the body's requests keep
    """
    try:
        yield
    except httpx2.HTTPStatusError as error:
        raise _refusal(error) from error
    except httpcore2.ConnectTimeout as error:
        exceeded = deadline.exceeded()
        exceeded.outcome_unknown = False
        raise exceeded from error
    except httpcore2.TimeoutException as error:
        raise deadline.exceeded() from error
    except httpcore2.ConnectError as error:
        raise _unreachable(error) from error
    except (httpcore2.NetworkError, httpcore2.RemoteProtocolError) as error:
        raise KubernetesError(
            f"The connection to the API server broke off ({error}). Try again: it may be restarting.",
            OPResultErrorCode.CONNECTION_FAILED,
            outcome_unknown=True,
        ) from error
    except httpcore2.LocalProtocolError:
        # Its text would show the header, and with it the token.
        raise KubernetesError(
            "The credentials cannot be sent: they hold characters that no HTTP header may have.",
            OPResultErrorCode.UNAUTHENTICATED,
        ) from None
    except (msgspec.MsgspecError, json.JSONDecodeError, UnicodeDecodeError) as error:
        raise KubernetesError(
            "The server's answer is not what was asked for. Check that the address in the kubeconfig is that "
            f"of a Kubernetes API server ({type(error).__name__}).",
            OPResultErrorCode.PROTOCOL_ERROR,
            outcome_unknown=True,
        ) from error
    except (httpcore2.UnsupportedProtocol, httpx2.UnsupportedProtocol, httpx2.InvalidURL) as error:
        raise KubernetesError(
            "The server's address in the kubeconfig cannot be used; it has to be like https://host:6443",
            OPResultErrorCode.CONNECTION_FAILED,
        ) from error


def _refusal(error: httpx2.HTTPStatusError) -> KubernetesError:
    status = error.response.status_code
    if isinstance(error, ApiError) and error.status.message:
        message = error.status.message
    else:
        message = f"The Kubernetes API server answered {status} {error.response.reason_phrase}".rstrip()
    code = _CODE_OF_STATUS.get(status)
    if status == 403 and "exceeded quota" in message:
        # The server has no reason of its own for it: a quota is one more admission that says no.
        code = OPResultErrorCode.RESOURCE_EXHAUSTED
    if status == 401:
        message += ": the cluster does not accept the credentials of the kubeconfig; renew them"
    return KubernetesError(message, code, status=status, outcome_unknown=status >= 500)


def _unreachable(error: httpcore2.ConnectError) -> KubernetesError:
    # The library gives the error of the socket as the argument of its own.
    if error.args and isinstance(error.args[0], ssl.SSLError):
        return KubernetesError(
            f"The certificate of the Kubernetes API server cannot be verified, or it refuses ours: {error}. "
            "Give its authority in the kubeconfig as certificate-authority.",
            OPResultErrorCode.CERTIFICATE_INVALID,
        )
    return KubernetesError(
        f"The Kubernetes API server cannot be reached: {error}. Check its address in the kubeconfig.",
        OPResultErrorCode.CONNECTION_FAILED,
    )
