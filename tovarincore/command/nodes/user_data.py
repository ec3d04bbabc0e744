"""How much of EC2's user data a launch takes, told before EC2 refuses it."""

import base64
import json
from typing import Any

from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import CoreDef

__all__ = ["LIMIT_BYTES", "require_fitting_user_data", "user_data_bytes"]

LIMIT_BYTES = 16_384
"""EC2 takes no more, before its own encoding."""


def user_data_bytes(settings: Any) -> int:
    """Return how many bytes of user data a launch with these settings sends.

    :param settings: the launch settings, anything that JSON can hold
    """
    home = CoreDef.NODE_HOME_PATH
    seconds = core_conf_glbl.development_settings__profiler_node_second
    profiler = f"echo '{seconds}' > {home}/.tovarin/profile.requested" if seconds > 0 else ""
    encoded = base64.b64encode(json.dumps(settings).encode("utf-8")).decode("ascii")
    script = f"#!/bin/bash\n\n{profiler}\nsh {home}/.tovarin/prepare_cloud_node.sh {encoded}\n\n"
    return len(script.encode("utf-8"))


def require_fitting_user_data(settings: Any) -> None:
    """Refuse launch settings that are too long for EC2.

    :raises CommandFailure: they are; the text says how much would fit
    """
    size = user_data_bytes(settings)
    if size > LIMIT_BYTES:
        # Four characters of the script carry three bytes of JSON.
        fitting = (LIMIT_BYTES - user_data_bytes(None) + 8) // 4 * 3
        raise CommandFailure(
            f"the launch settings make {size:,} bytes of user data, and EC2 takes {LIMIT_BYTES:,}",
            f"shorten the file of --settings to about {fitting:,} bytes of JSON, and let the node fetch the"
            " rest itself, for example from S3 with the role of its instance profile",
            ExitCode.USAGE,
        )
