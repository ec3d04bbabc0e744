"""An environment to try things in: an emulated EC2, workers, and settings that are nobody's."""

from __future__ import annotations

import os
import sys
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from stage.ec2_endpoint import ACCESS_KEY_ID, SECRET_ACCESS_KEY, Ec2Endpoint
from stage.ports import HOST
from stage.settings import settings_of
from tovarincore.testing.reference_worker import ReferenceWorker

__all__ = ["playground"]

IMAGE_NAMES = [f"TOVARIN_AI_{kind}_{plan}_1.4.0" for kind in ("CPU", "GPU") for plan in ("PLAN_A", "PLAN_B")]


@contextmanager
def playground() -> Iterator[Ec2Endpoint]:
    """Run the body, and the programs that it starts, in the playground's environment."""
    with (
        Ec2Endpoint() as endpoint,
        ReferenceWorker() as worker,
        ReferenceWorker(answer=False) as silent,
        tempfile.TemporaryDirectory(prefix="tovarin-playground-") as folder,
    ):
        endpoint.prepare_account(IMAGE_NAMES)
        addresses = {"silent*": f"{HOST}:{silent.port}", "*": f"{HOST}:{worker.port}"}
        variables = {
            "AWS_ENDPOINT_URL_EC2": endpoint.url,
            "AWS_ACCESS_KEY_ID": ACCESS_KEY_ID,
            "AWS_SECRET_ACCESS_KEY": SECRET_ACCESS_KEY,
            # The command of this very environment, whatever else is installed.
            "PATH": os.pathsep.join([os.path.dirname(sys.executable), os.environ.get("PATH", os.defpath)]),
        }
        with settings_of(Path(folder), {"worker_addresses": addresses}, **variables):
            yield endpoint
