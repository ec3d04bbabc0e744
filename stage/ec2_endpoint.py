"""An EC2 endpoint on loopback, inside this process: the moto server, with what a launch needs put into it."""

from __future__ import annotations

import functools
import urllib.request
from collections.abc import Sequence
from contextlib import ExitStack
from typing import Any
from unittest.mock import patch

import boto3
from botocore.config import Config
from werkzeug.serving import make_server

from stage.patience import SETUP_SECONDS
from stage.ports import HOST
from stage.sdk_once import sdk_read_once
from stage.serving import serving
from stage.settings import environment

REGION_NAME = "us-east-1"
KEY_PAIR_NAME = "tovarin-key"
INSTANCE_PROFILE_NAME = "tovarin-node-profile"
# Accepted by the endpoint whatever they are; the SDK refuses to send a request without any.
ACCESS_KEY_ID = "demo-access-key-id"
SECRET_ACCESS_KEY = "demo-secret-access-key"


def ports_text(from_port: int, to_port: int) -> str:
    """A range of ports as a person writes it."""
    return str(from_port) if from_port == to_port else f"{from_port}-{to_port}"


def _backend(service: str, region: str = REGION_NAME) -> Any:
    """What the emulator holds: set-ups change it without a request, which takes ten times as long."""
    from moto.backends import get_backend
    from moto.core.models import DEFAULT_ACCOUNT_ID

    # Of no type: the names of services are overloads, as literals.
    backends_of: Any = get_backend
    return backends_of(service)[DEFAULT_ACCOUNT_ID][region]


class Ec2Endpoint:
    """Context manager that runs an EC2 (and IAM) endpoint on a free loopback port.

    It refuses unknown images, key pairs and instance types and describes instances without a public
    name as EC2 does, which the emulator does not do by itself. It starts empty. One at a time: all
    endpoints of a process share the emulator's one account.
    """

    def __init__(self) -> None:
        self.url = ""
        self._clients: dict[str, Any] = {}
        self._cleanup = ExitStack()

    def __enter__(self) -> Ec2Endpoint:
        # Imported here: the emulator takes a noticeable part of a second that other demos need not wait for.
        # Its import stumbles over a profile that the user names, and makes a session for each
        # partition of EC2.
        with environment({}), sdk_read_once():
            from moto import backends, settings
            from moto.core import responses, utils
            from moto.ec2.models.instances import Instance
            from moto.moto_server.werkzeug_app import (
                DomainDispatcherApplication,
                MotoRequestHandler,
                create_backend_app,
            )

        class QuietRequestHandler(MotoRequestHandler):
            """The emulator's handler without its line per request on standard error."""

            def log_request(self, code: int | str = "-", size: int | str = "-") -> None:
                """Write nothing."""

        # The emulator reads these from the environment when it is first imported, which may have been
        # long ago; its code looks at the module's attributes.
        settings.ENABLE_AMI_VALIDATION = True
        settings.ENABLE_KEYPAIR_VALIDATION = True
        settings.EC2_ENABLE_INSTANCE_TYPE_VALIDATION = True
        # More than a thousand images of others, which each reset would make again.
        settings.ec2_load_default_amis = lambda: False
        # EC2 sends an empty name for an instance without a public one; the emulator sends none at all.
        find_name = vars(Instance)["public_dns_name"].fget
        self._cleanup.enter_context(
            patch.object(Instance, "public_dns_name", property(lambda instance: find_name(instance) or ""))
        )
        # The emulator works these out for each request, which takes a quarter of its time.
        services = list(backends.list_of_moto_modules())
        actions_of = functools.cache(utils.method_names_from_class)
        for owner, name, quick in (
            (backends, "list_of_moto_modules", lambda: services),
            (responses, "method_names_from_class", actions_of),
        ):
            self._cleanup.enter_context(patch.object(owner, name, quick))
        server = make_server(
            HOST,
            0,
            DomainDispatcherApplication(create_backend_app),
            threaded=True,
            request_handler=QuietRequestHandler,
        )
        self.url = f"http://{HOST}:{server.server_port}"
        self._cleanup.enter_context(serving(server))
        self.reset()
        return self

    def __exit__(self, *exception: object) -> None:
        for client in self._clients.values():
            client.close()
        self._clients.clear()
        self._cleanup.close()

    def reset(self) -> None:
        """Forget every instance, image, key pair, profile and security group."""
        request = urllib.request.Request(self.url + "/moto-api/reset", data=b"", method="POST")
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        opener.open(request, timeout=SETUP_SECONDS).close()

    def client(self, service: str = "ec2") -> Any:
        """A client of this endpoint that does not pass through the code under demonstration."""
        if service not in self._clients:
            with environment({}):
                # Of no type: the session's own are overloads for the names of all services, as literals.
                session: Any = boto3.Session(ACCESS_KEY_ID, SECRET_ACCESS_KEY, region_name=REGION_NAME)
                self._clients[service] = session.client(
                    service, endpoint_url=self.url, config=Config(proxies={})
                )
        return self._clients[service]

    def register_image(self, name: str, public: bool = True) -> str:
        """Register a machine image, public or private, and return its id."""
        backend = _backend("ec2")
        image = backend.register_image(name, "")
        # Images are private until their launch permission is changed.
        if public:
            backend.modify_image_attribute(image.id, [{"Group": "all"}], [])
        return str(image.id)

    def prepare_account(self, image_names: Sequence[str]) -> None:
        """Register public images; make the key pair and the instance profile that launches ask for."""
        for name in image_names:
            self.register_image(name)
        # Of the kind that is quickly made: an RSA key takes longer than many a test.
        _backend("ec2").create_key_pair(KEY_PAIR_NAME, "ed25519", {})
        _backend("iam", "aws").create_instance_profile(INSTANCE_PROFILE_NAME, "/", [])

    def security_group(self, name: str) -> tuple[str, list[dict[str, str]]]:
        """The id of a security group and its inbound rules, as rows for a table."""
        ec2 = self.client()
        groups = ec2.describe_security_groups(Filters=[{"Name": "group-name", "Values": [name]}])
        group_id = str(groups["SecurityGroups"][0]["GroupId"])
        rules = ec2.describe_security_group_rules(Filters=[{"Name": "group-id", "Values": [group_id]}])
        return group_id, [
            {
                "ports": ports_text(rule["FromPort"], rule["ToPort"]),
                "protocol": rule["IpProtocol"],
                "source": rule["CidrIpv4"],
                "description": rule.get("Description", ""),
            }
            for rule in rules["SecurityGroupRules"]
            if not rule["IsEgress"]
        ]
