"""What ``doctor`` looks at on this machine: settings, credential store, container engine, clusters."""

from tovarincore.cloud_def import CloudInstances, K8sRegion
from tovarincore.command.doctor.verdicts import Verdict, failed, ok, warn
from tovarincore.command.errors.explain import failure_of
from tovarincore.container_helper import ContainerHelper
from tovarincore.core_conf import core_conf_glbl
from tovarincore.fleet.ledger import Ledger
from tovarincore.k8s_console_client import K8sConsoleClient

__all__ = ["check_cluster", "check_engine", "check_settings"]


def check_settings() -> Verdict:
    """Read the configuration, the list of types and the ledger."""
    try:
        path = core_conf_glbl.path
        types = CloudInstances.instance_type_list
        sized = sum(bool(known.cpu_count) for known in types)
        date = CloudInstances.get_data_date()
        ledger = Ledger()
        launches = len(ledger.entries())
    except Exception as error:
        return failed("configuration", error)
    read = str(path) if path.exists() else f"defaults ({path} does not exist)"
    sizes = f"{sized} with sizes" + (f" of {date:%Y-%m-%d}" if date else "")
    launched = f"{launches} launches in {ledger.path.name}"
    return ok("configuration", f"{read}; {len(types)} types, {sizes}; {launched}")


def check_engine() -> Verdict:
    """Ask the container engine for images and for the worker."""
    subject = "local engine"
    helper = ContainerHelper()
    image = core_conf_glbl.container__image
    try:
        versions = helper.list_tvr_container_image_versions()
        node = helper.get_existing_node()
    except Exception as error:
        return failed(subject, error)
    if not versions:
        return warn(subject, f"it answers, but has no image {image}", f"pull or build {image}:VERSION")
    state = "no worker" if node is None else f"worker {node.state.value.lower()}"
    return ok(subject, f"versions of {image}: {', '.join(versions)}; {state}")


def check_cluster(region: K8sRegion) -> Verdict:
    """Ask the cluster for nodes and for its catalogue."""
    subject = f"{region.key} cluster"
    client = K8sConsoleClient(region)
    nodes, listed = client.get_cloud_nodes()
    templates, catalogued = client.list_instance_templates()
    types, typed = client.list_instance_types()
    for result in (listed, catalogued, typed):
        if not result.success:
            return failed(subject, failure_of(result, region))
    return ok(
        subject,
        f"namespace {region.namespace}: {len(nodes or [])} nodes, {len(templates)} images,"
        f" {len(types)} types",
    )
