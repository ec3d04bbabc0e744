"""Inbound rules of the security group that worker instances get."""

from dataclasses import dataclass, field
from typing import Optional

from tovarincore.core_conf import core_conf_glbl

__all__ = ["SecurityGroupRule", "SecurityGroupRules"]


@dataclass
class SecurityGroupRule:
    """One inbound rule.

    Rules are equal when ports and protocol are: a rule read from EC2 comes without its description.

    :param from_port: first port of the range
    :param to_port: last port of the range
    :param ip_protocol: ``"tcp"``, ``"udp"``, ``"icmp"`` or a protocol number as EC2 writes it
    :param description: shown in the console; EC2 takes up to 255 letters, digits, blanks and
        ``._-:/()#,@[]+=&;{}!$*``
    """

    from_port: int
    to_port: int
    ip_protocol: str
    description: str = field(default="Tovarin AI", compare=False)


class _InboundList:
    """Makes the list when it is first asked for; a test may put a list in its place."""

    def __get__(
        self, instance: Optional["SecurityGroupRules"], owner: type["SecurityGroupRules"]
    ) -> list[SecurityGroupRule]:
        return core_conf_glbl.derive("inbound rules", _inbound_rules)


class SecurityGroupRules:
    """The rules that the product's security group must allow."""

    inbound_list = _InboundList()
    """List of :class:`SecurityGroupRule`: the port that workers listen on (``[worker] port``) and no other,
    since every rule is open to every address. Reading raises ``ConfigError`` when the configuration
    cannot be used."""


def _inbound_rules() -> list[SecurityGroupRule]:
    port = core_conf_glbl.worker__port
    return [SecurityGroupRule(port, port, "tcp", "Tovarin AI worker web-socket")]
