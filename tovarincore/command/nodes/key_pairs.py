"""Whether a key pair is there, and whose it is."""

from dataclasses import dataclass

from tovarincore.command.context.access import Access
from tovarincore.command.context.ec2_client import open_client
from tovarincore.command.context.sdk import TAG_USER_NAME, tags_of

__all__ = ["KeyPair", "find_key_pair"]

_NOT_FOUND = "InvalidKeyPair.NotFound"


@dataclass(frozen=True)
class KeyPair:
    """What EC2 says of a key pair.

    :param exists: there is one of that name
    :param user_name: the user it is tagged with; empty when it is not tagged
    """

    exists: bool
    user_name: str = ""


def find_key_pair(access: Access, name: str) -> KeyPair | None:
    """Look for a key pair by its exact name.

    :return: ``None`` when the right to look is missing, which creating and deleting do not need
    :raises Exception: whatever the SDK raises, other than EC2's refusals
    """
    from botocore.exceptions import ClientError

    try:
        (found,) = open_client(access).describe_key_pairs(KeyNames=[name])["KeyPairs"]
    except ClientError as error:
        return KeyPair(exists=False) if error.response["Error"]["Code"] == _NOT_FOUND else None
    return KeyPair(exists=True, user_name=tags_of(found).get(TAG_USER_NAME, ""))
