"""An HTTP endpoint that answers EC2 requests with the faults a test scripts, action by action."""

from __future__ import annotations

import threading
import urllib.error
import urllib.request
from collections.abc import Mapping
from contextlib import ExitStack
from dataclasses import dataclass, replace
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qsl
from xml.sax.saxutils import escape

from stage.patience import SETUP_SECONDS
from stage.serving import serving


@dataclass(frozen=True)
class Answer:
    """One HTTP answer; `hang_up` closes the connection without one, `delay` waits that many seconds first.

    With `served` the endpoint behind serves the request for real, and gives the answer unless `hang_up`.
    """

    status: int = 200
    body: bytes = b""
    delay: float = 0.0
    hang_up: bool = False
    served: bool = False


@dataclass(frozen=True)
class Request:
    """One EC2 request as it arrived: its action and all its form parameters."""

    action: str
    parameters: Mapping[str, str]


def ec2_error(code: str, message: str, status: int = 400) -> Answer:
    """The error document of EC2's query protocol."""
    text = (
        '<?xml version="1.0" encoding="UTF-8"?>\n'
        f"<Response><Errors><Error><Code>{escape(code)}</Code><Message>{escape(message)}</Message></Error>"
        "</Errors><RequestID>00000000-0000-4000-8000-000000000000</RequestID></Response>"
    )
    return Answer(status, text.encode("utf-8"))


def unauthorized(encoded: str = "VGhlIGVuY29kZWQgcmVhc29u") -> Answer:
    """EC2's refusal for want of rights, with the encoded message that only the account's owner can read."""
    message = "You are not authorized to perform this operation. Encoded authorization failure message: "
    return ec2_error("UnauthorizedOperation", message + encoded, status=403)


def throttled() -> Answer:
    """EC2's answer to too many requests."""
    return ec2_error("RequestLimitExceeded", "Request limit exceeded.", status=503)


def document(action: str, content: str) -> Answer:
    """A successful EC2 answer whose root element is the action's response."""
    return Answer(
        200,
        f'<{action}Response xmlns="http://ec2.amazonaws.com/doc/2016-11-15/">{content}</{action}Response>'.encode(),
    )


HANG_UP = Answer(hang_up=True)
SERVED = Answer(served=True)
LOST = Answer(served=True, hang_up=True)
GARBAGE = Answer(200, b"\x00<<not xml>\xff")


class FaultEndpoint:
    """Context manager: EC2 on a free loopback port, with scripted faults.

    `script(action, *answers)` gives the answers of an action in turn; the last one repeats. Actions
    without a script are passed on to the endpoint `upstream`, so that a fault can strike in the
    middle of a launch that is otherwise served for real. `requests` holds what arrived, in order.
    A launch that the SDK repeats with the same client token gives the same instance, as in EC2.
    """

    def __init__(self, upstream: str) -> None:
        self.url = ""
        self.requests: list[Request] = []
        self._upstream = upstream
        self._answers: dict[str, list[Answer]] = {}
        self._launches: dict[str, Answer] = {}
        self._lock = threading.Lock()
        self._cleanup = ExitStack()
        # Nobody waits any more for the answers that are still delayed then.
        self._ended = threading.Event()

    def script(self, action: str, *answers: Answer) -> None:
        """Answer `action` from now on with these, one after the other."""
        with self._lock:
            self._answers[action] = list(answers)

    def actions(self) -> list[str]:
        """The actions asked for so far, in order."""
        with self._lock:
            return [request.action for request in self.requests]

    def __enter__(self) -> FaultEndpoint:
        endpoint = self

        class Handler(BaseHTTPRequestHandler):
            """Hands each request's form body to the endpoint and writes the answer it gives."""

            def do_POST(self) -> None:
                """Answer one EC2 request."""
                body = self.rfile.read(int(self.headers["Content-Length"]))
                answer = endpoint._answer(body, dict(self.headers))
                endpoint._ended.wait(answer.delay)
                self.close_connection = True
                if answer.hang_up:
                    return
                self.send_response(answer.status)
                self.send_header("Content-Type", "text/xml")
                self.send_header("Content-Length", str(len(answer.body)))
                self.end_headers()
                self.wfile.write(answer.body)

            def log_message(self, format: str, *args: object) -> None:
                """Write nothing."""

        server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        # Joined at the end, so that no test leaves a connection open.
        server.daemon_threads = False
        self.url = f"http://127.0.0.1:{server.server_port}"
        self._cleanup.enter_context(serving(server))
        return self

    def __exit__(self, *exception: object) -> None:
        self._ended.set()
        self._cleanup.close()

    def _answer(self, body: bytes, headers: Mapping[str, str]) -> Answer:
        parameters = dict(parse_qsl(body.decode("ascii"), keep_blank_values=True))
        action = parameters["Action"]
        answer = SERVED
        with self._lock:
            self.requests.append(Request(action, parameters))
            answers = self._answers.get(action, [])
            if answers:
                answer = answers.pop(0) if len(answers) > 1 else answers[0]
        if not answer.served:
            return answer
        # The emulator takes no notice of these tokens.
        token = parameters.get("ClientToken", "")
        result = self._launches.get(token) or self._pass_on(body, headers)
        if token and result.status == 200:
            self._launches[token] = result
        return answer if answer.hang_up else replace(result, delay=answer.delay)

    def _pass_on(self, body: bytes, headers: Mapping[str, str]) -> Answer:
        passed = {
            name: headers[name] for name in ("Authorization", "Content-Type", "X-Amz-Date") if name in headers
        }
        request = urllib.request.Request(self._upstream, data=body, headers=passed, method="POST")
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(request, timeout=SETUP_SECONDS) as response:
                return Answer(response.status, response.read())
        except urllib.error.HTTPError as error:
            with error:
                return Answer(error.code, error.read())
