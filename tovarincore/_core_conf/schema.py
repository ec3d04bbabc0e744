"""The table of settings: what may stand in the configuration file, checked and documented from here."""

from dataclasses import dataclass
from typing import Any

__all__ = ["SETTINGS", "SETTINGS_BY_NAME", "WORKER_ADDRESSES", "Setting"]

WORKER_ADDRESSES = "worker_addresses"
"""The one section whose keys the user chooses."""


@dataclass(frozen=True)
class Setting:
    """One setting: a row of the table.

    ``kind`` is ``bool``, ``int``, ``float`` (a whole number becomes one, unless it ``keeps_whole``), ``str``
    or, for the section whose keys the user chooses, ``dict``. ``allowed`` lists the only values, ``minimum``
    and ``maximum`` are inclusive, ``form`` names a check of ``_core_conf.values`` for texts. The value of a
    ``secret`` setting is never shown.
    """

    section: str
    key: str
    kind: type
    default: Any
    doc: str
    unit: str = ""
    allowed: tuple[Any, ...] | None = None
    minimum: float | None = None
    maximum: float | None = None
    form: str = ""
    secret: bool = False
    keeps_whole: bool = False

    @property
    def name(self) -> str:
        """The attribute of the configuration object: section and key, joined by two underscores."""
        return f"{self.section}__{self.key}"

    @property
    def variable(self) -> str:
        """The environment variable that overrides the file."""
        return f"TOVARIN_{self.name.upper()}"


# fmt: off
SETTINGS: tuple[Setting, ...] = (
    Setting("network", "aws_custom_vpc", str, "",
            "VPC of the security group; used only if aws_custom_subnet is set too, else the default VPC."),
    Setting("network", "aws_custom_subnet", str, "",
            "Subnet to launch into; a text of fewer than ten characters counts as unset."),
    Setting("network", "bypass_ssl_verification", bool, False,
            "Do not verify the certificates of Amazon's endpoints."),

    Setting("proxy", "enabled", bool, False, "Reach Amazon through the proxies below."),
    Setting("proxy", "http", str, "", "Proxy for http; empty means the one for https.",
            form="proxy_url", secret=True),
    Setting("proxy", "https", str, "", "Proxy for https; empty means the one for http.",
            form="proxy_url", secret=True),

    Setting("development_settings", "profiler_node_second", float, 0.0,
            "Let launched nodes run a profiler for this long and then quit; 0 or less means no profiler.",
            unit="seconds", keeps_whole=True),

    Setting("logging", "level", str, "WARNING", "Level of the logger tovarincore.",
            allowed=("DEBUG", "INFO", "WARNING", "ERROR", "CRITICAL")),
    Setting("logging", "handler", str, "none",
            "Where log lines go: none leaves it to the application, stderr writes them to standard error.",
            allowed=("none", "stderr")),
    Setting("logging", "let_sdk_debug_logs_show_secrets", bool, False,
            "Let the libraries underneath log at DEBUG, which shows private keys, credentials and tokens."),

    Setting("worker", "scheme", str, "ws", "Plain or encrypted connection to workers.",
            allowed=("ws", "wss")),
    Setting("worker", "port", int, 8855, "Port that a worker listens on; opened in the security group.",
            minimum=1, maximum=65535),
    Setting("worker", "path", str, "/", "Path of the worker's web-socket.", form="url_path"),
    Setting("worker", "token", str, "",
            "Bearer token for workers of regions whose stored credentials name none; empty sends none.",
            form="token", secret=True),
    Setting("worker", "ca_file", str, "",
            "Certificates (PEM file) that workers are verified against; empty means the system's."),
    Setting("worker", "verify_certificates", bool, True, "Verify the certificates of workers (wss)."),
    Setting("worker", "use_proxy", bool, False, "Reach workers through the configured proxies."),
    Setting("worker", "max_message_bytes", int, 1048576, "Longest message accepted from a worker.",
            unit="bytes", minimum=1024, maximum=1073741824),
    Setting("worker", "max_nesting", int, 32, "Deepest nesting of objects and lists accepted from a worker.",
            minimum=1, maximum=200),

    Setting(WORKER_ADDRESSES, "*", dict, {},
            "Node name, uuid, address or shell pattern = \"host:port\" to connect to instead (tunnels, "
            "port-forwards). Exact keys come first, then patterns in the order of the file."),

    Setting("container", "engine_url", str, "",
            "Address of the container engine; empty means the engine's own variables and socket."),
    Setting("container", "image", str, "tovarin-worker",
            "Image repository of the worker; versions are its tags.", form="not_empty"),
    Setting("container", "name", str, "tovarin-worker", "Name of the one local container.", form="not_empty"),
    Setting("container", "published_port", int, 8855,
            "Loopback port of this machine that leads to the worker.", minimum=1, maximum=65535),
    Setting("container", "worker_port", int, 8855, "Port of the worker inside the container.",
            minimum=1, maximum=65535),
    Setting("container", "memory_mib", int, 2048, "Memory limit of the container.", unit="MiB", minimum=16),
    Setting("container", "cpu_count", float, 1.0, "Processor limit of the container.", unit="processors",
            minimum=0.01, maximum=4096),
    Setting("container", "operation_seconds", float, 10.0, "Longest time for one operation on the engine.",
            unit="seconds", minimum=0.1, maximum=3600),

    Setting("kubernetes", "operation_seconds", float, 10.0, "Longest time for one call of the API server.",
            unit="seconds", minimum=0.1, maximum=3600),
    Setting("kubernetes", "page_size", int, 500, "Objects asked for at once when listing.",
            minimum=1, maximum=10000),
    Setting("kubernetes", "termination_grace_seconds", int, 30,
            "Time that a terminated worker has for its farewell.", unit="seconds", minimum=0, maximum=3600),
    Setting("kubernetes", "worker_port", int, 8855, "Port of the worker inside its pod.",
            minimum=1, maximum=65535),

    Setting("cloud", "regions_file", str, "", "TOML file with the regions; empty means Amazon's own list."),
    Setting("cloud", "instance_types_file", str, "",
            "TOML file with instance types that extend or replace those shipped with the product."),
    Setting("cloud", "image_owners", str, "",
            "Accounts whose images the command uses, ids or words such as self, separated by commas; empty "
            "means everybody's."),

    Setting("command", "context", str, "",
            "Named context whose credentials and ledger tovarin-nodes uses; empty means none."),
    Setting("command", "region", str, "", "Region that tovarin-nodes works in when none is given."),
    Setting("command", "profile", str, "",
            "Profile of the AWS configuration that tovarin-nodes uses in place of the stored credentials."),
)
# fmt: on

SETTINGS_BY_NAME: dict[str, Setting] = {row.name: row for row in SETTINGS if row.section != WORKER_ADDRESSES}
