"""The servers that the flow tests share, and the world each test gets on them."""

from stage.ec2_fixtures import ec2, ec2_endpoint, healthy_worker, sdk_data_read_once
from stage.engine_fixtures import engine_server, local

# Named here, pytest finds them in this folder.
__all__ = ["ec2", "ec2_endpoint", "engine_server", "healthy_worker", "local", "sdk_data_read_once"]
