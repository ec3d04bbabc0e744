"""The list of the regions that this installation knows."""

from tovarincore._cloud_def.region_sources import is_sdk_installed, regions_from_file, regions_from_sdk
from tovarincore._cloud_def.regions import CloudRegion, K8sRegion
from tovarincore._config_files.names import did_you_mean
from tovarincore.core_conf import core_conf_glbl

__all__ = ["CloudRegions"]

_LOCAL_REGION = CloudRegion(name="local", cloud="local", title="This machine")


class CloudRegions:
    """The regions that this installation knows.

    The file of the setting ``[cloud] regions_file`` gives the Kubernetes regions and, if it holds any, the
    Amazon regions; otherwise these come from the endpoint data inside the SDK. The network is never asked.
    """

    @staticmethod
    def get_local_container_region() -> CloudRegion:
        """Return the region of this machine's container engine; always the same object."""
        return _LOCAL_REGION

    @staticmethod
    def get_aws_regions() -> list[CloudRegion]:
        """Return the Amazon regions, in the order of the file or, from the SDK, by name.

        :raises ConfigError: the configuration or the regions file cannot be used, or the SDK is not installed
            and no regions file takes its place
        """
        listed = [region for region in _regions_from_file() if region.cloud == "AWS"]
        return listed or list(core_conf_glbl.derive("regions of the SDK", regions_from_sdk))

    @staticmethod
    def get_k8s_regions() -> list[K8sRegion]:
        """Return the Kubernetes regions, in the order of the file.

        :raises ConfigError: the configuration or the regions file cannot be used
        """
        return [region for region in _regions_from_file() if isinstance(region, K8sRegion)]

    @staticmethod
    def get_all() -> list[CloudRegion]:
        """Return every region: the local one, those of Kubernetes, those of Amazon.

        A machine without the SDK cannot use Amazon's regions: there only those of the file are listed.

        :raises ConfigError: the configuration or the regions file cannot be used
        """
        regions = [_LOCAL_REGION, *CloudRegions.get_k8s_regions()]
        if is_sdk_installed() or any(region.cloud == "AWS" for region in _regions_from_file()):
            regions += CloudRegions.get_aws_regions()
        return regions

    @staticmethod
    def find(name: str) -> CloudRegion | None:
        """Return the region with this name, key (``"k8s:lab"``) or hash key, or ``None``.

        A name that several kinds of region share means the first in the order of :meth:`get_all`.

        :raises ConfigError: the configuration or the regions file cannot be used
        """
        if name in (_LOCAL_REGION.name, _LOCAL_REGION.key):
            return _LOCAL_REGION
        return next(
            (known for known in CloudRegions.get_all() if name in (known.name, known.key, known.hash_key)),
            None,
        )

    @staticmethod
    def get(name: str) -> CloudRegion:
        """Return the region with this name or hash key, as :meth:`find` does, or raise.

        :raises LookupError: there is no such region; the text suggests the nearest name
        :raises ConfigError: the configuration or the regions file cannot be used
        """
        region = CloudRegions.find(name)
        if region is None:
            known = [region.name for region in CloudRegions.get_all()]
            raise LookupError(f'unknown region "{name}"; {did_you_mean(name, known)}')
        return region


def _regions_from_file() -> list[CloudRegion]:
    return core_conf_glbl.derive(
        "regions of the file", lambda: regions_from_file(core_conf_glbl.cloud__regions_file)
    )
