"""Credentials of providers."""

from dataclasses import dataclass, field

from tovarincore._transport.masker import Secret

__all__ = ["AWSCloudAuth", "CloudAuth"]


@dataclass
class CloudAuth:
    """Credentials of some provider; each kind of region that needs any has its own class."""


@dataclass
class AWSCloudAuth(CloudAuth):
    """Credentials for Amazon: a named profile of the local Amazon configuration, or keys.

    With neither, the SDK looks for credentials in its own places. The ``repr`` shows the profile alone, and
    the keys are texts of a type whose own ``repr`` is masked.

    :param aws_profile: name of a profile; wins over the keys when it is not empty
    :param aws_access_key_id: id of an access key
    :param aws_secret_access_key: the secret that belongs to it
    :param aws_session_token: token of temporary credentials
    """

    aws_profile: str = ""
    aws_access_key_id: str | None = field(default=None, repr=False)
    aws_secret_access_key: str | None = field(default=None, repr=False)
    aws_session_token: str | None = field(default=None, repr=False)

    def __post_init__(self) -> None:
        for name in ("aws_access_key_id", "aws_secret_access_key", "aws_session_token"):
            value = getattr(self, name)
            if isinstance(value, str):
                setattr(self, name, Secret(value))
