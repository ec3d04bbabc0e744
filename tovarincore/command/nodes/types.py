"""The instance types of a region."""

from tovarincore.cloud_def import CloudInstances, CloudInstanceTypeDef
from tovarincore.command.context.access import Access

__all__ = ["types_of"]


def types_of(access: Access) -> list[CloudInstanceTypeDef]:
    """Return the types of a region; Amazon's come from the list of known types, as its provider gives none.

    :raises CommandFailure: the provider reports a failure
    """
    if access.region.cloud == "AWS":
        return CloudInstances.instance_type_list
    from tovarincore.cloud_node import cloud_manager_glbl
    from tovarincore.command.errors.explain import failure_of

    found, result = cloud_manager_glbl.list_instance_types(access.region)
    if not result.success:
        raise failure_of(result, access.region)
    return found
