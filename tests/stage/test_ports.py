"""Tests of the ports that servers on the stage get."""

from __future__ import annotations

import socket

from stage.ports import HOST, free_port, refusing_port


def test_a_free_port_can_be_listened_on() -> None:
    """Nobody has it, and it is none that the system gives to another program's connection."""
    with socket.create_server((HOST, free_port())) as server:
        assert server.getsockname()[1] < 32768


def test_a_refusing_port_answers_nobody() -> None:
    """A connection is refused at once while the port is held."""
    with refusing_port() as port, socket.socket() as caller:
        assert caller.connect_ex((HOST, port)) != 0
