# Types of the extension module. Results are what the provider operations return; see the docstrings for what they raise.
# The names that the module binds from its siblings are visible on it, as on any Python module.
import logging as logging
import threading as threading
from abc import ABC as ABC, abstractmethod as abstractmethod
from collections.abc import Iterable
from copy import deepcopy as deepcopy
from datetime import datetime as datetime
from typing import (
    TYPE_CHECKING as TYPE_CHECKING,
    Any as Any,
    List as List,
    Optional as Optional,
    Tuple as Tuple,
    Union as Union,
)

from boto3 import Session
from botocore.client import BaseClient

from tovarincore.api_def import PingRequest as PingRequest
from tovarincore.cloud_conf import CloudConfManager as CloudConfManager
from tovarincore.cloud_def import (
    AWSCloudAuth as AWSCloudAuth,
    AWSCloudNode as AWSCloudNode,
    CloudAuth as CloudAuth,
    CloudInstanceConfig as CloudInstanceConfig,
    CloudInstances as CloudInstances,
    CloudInstanceTypeDef as CloudInstanceTypeDef,
    CloudNode as CloudNode,
    CloudRegion as CloudRegion,
    CloudRegions as CloudRegions,
    CpuPlanA as CpuPlanA,
    CpuPlanB as CpuPlanB,
    GpuPlanA as GpuPlanA,
    GpuPlanB as GpuPlanB,
    InstanceTemplate as InstanceTemplate,
    InstanceTemplatePayType as InstanceTemplatePayType,
    K8sRegion as K8sRegion,
    NodeState as NodeState,
    SecurityGroupRule as SecurityGroupRule,
    SecurityGroupRules as SecurityGroupRules,
)
from tovarincore.container_helper import ContainerHelper as ContainerHelper
from tovarincore.core_conf import (
    CoreConf as CoreConf,
    core_conf_glbl as core_conf_glbl,
    log_manager_glbl as log_manager_glbl,
)
from tovarincore.core_def import (
    CoreDef as CoreDef,
    OPResult as OPResult,
    OPResultErrorCode as OPResultErrorCode,
)
from tovarincore.k8s_console_client import K8sConsoleClient as K8sConsoleClient
from tovarincore.util import ObjectMetaTextUtil as ObjectMetaTextUtil
from tovarincore.webs_client import WebSocketClient as WebSocketClient

_Launched = tuple[CloudNode | None, OPResult]
_Listed = tuple[list[CloudNode] | None, OPResult]
_Templates = tuple[list[InstanceTemplate], OPResult]
_Types = tuple[list[CloudInstanceTypeDef], OPResult]

class NodeManager(ABC):
    core_conf: CoreConf
    logger: logging.Logger
    region: CloudRegion
    # Written `self.__node_list` inside of the class. Read and change the list only while holding the lock.
    _NodeManager__node_list: list[CloudNode]
    _NodeManager__node_list_lock: threading.Lock
    def __init__(self, region: CloudRegion) -> None: ...
    def get_node_list(self) -> list[CloudNode]: ...
    def set_node_list(self, node_list: list[CloudNode]) -> None: ...
    def set_node(self, node: CloudNode) -> None: ...
    def find_node_by_instance_id(self, instance_id: str) -> CloudNode | None: ...
    def find_node_by_uuid(self, uuid: str) -> CloudNode | None: ...
    def get_ready_node_next_in_line(self) -> CloudNode | None: ...
    def change_node_state(self, instance_id: str, node_state: NodeState, ready: bool = False) -> None: ...
    def refresh_node(self, node: CloudNode) -> OPResult: ...
    def refresh_node_list(self) -> OPResult: ...
    @abstractmethod
    def launch_node(
        self,
        instance_type_def: CloudInstanceTypeDef,
        instance_config: CloudInstanceConfig,
        auth: CloudAuth | None = None,
        username: str | None = None,
        dry_run: bool = False,
        wait_until_cloud_provider_ready: bool = False,
        additional_params: str | None = None,
        startup_script: str | None = None,
    ) -> _Launched: ...
    @abstractmethod
    def list_instances(self) -> _Listed: ...
    @abstractmethod
    def start_node(
        self, instance_id: str, wait_until_cloud_provider_ready: bool = False, reboot: bool = False
    ) -> None: ...
    @abstractmethod
    def stop_node(self, instance_id: str) -> None: ...
    @abstractmethod
    def terminate_node(self, instance_id: str, stop_reason: str | None = None) -> OPResult: ...
    @abstractmethod
    def list_instance_templates(self, is_public: bool = True) -> _Templates: ...
    @abstractmethod
    def list_instance_types(self) -> _Types: ...

class CloudKeyPairManager(ABC):
    @abstractmethod
    def create_key_pair(self, key_pair_name: str, username: str | None) -> tuple[str | None, OPResult]: ...
    @abstractmethod
    def delete_key_pair(self, key_pair_name: str) -> None: ...

aws_node_manager_client_lock: threading.Lock

class AWSNodeManager(NodeManager, CloudKeyPairManager):
    tovarin_security_group_name: str
    auth: AWSCloudAuth
    username: str
    def __init__(self, region: CloudRegion, auth: AWSCloudAuth, username: str) -> None: ...
    @staticmethod
    def _create_session(auth: AWSCloudAuth) -> Session: ...
    def _get_client(self) -> BaseClient: ...
    def launch_node(
        self,
        instance_type_def: CloudInstanceTypeDef,
        instance_config: CloudInstanceConfig,
        auth: CloudAuth | None = None,
        username: str | None = None,
        dry_run: bool = False,
        wait_until_cloud_provider_ready: bool = False,
        additional_params: str | None = None,
        startup_script: str | None = None,
    ) -> _Launched: ...
    def list_instances(self) -> _Listed: ...
    def start_node(
        self, instance_id: str, wait_until_cloud_provider_ready: bool = False, reboot: bool = False
    ) -> None: ...
    def stop_node(self, instance_id: str) -> None: ...
    def terminate_node(self, instance_id: str, stop_reason: str | None = None) -> OPResult: ...
    def list_instance_templates(self, is_public: bool = True) -> _Templates: ...
    def list_instance_types(self) -> _Types: ...
    def _check_and_get_security_group_id(self) -> str: ...
    def _get_default_vpc_id(self) -> str: ...
    def _get_security_group_id(self, name: str) -> str | None: ...
    def _create_security_group(self, name: str) -> str: ...
    def _list_inbound_security_group_rules(self, security_group_id: str) -> list[SecurityGroupRule]: ...
    def _add_inbound_security_group_rules(
        self, security_group_id: str, rules: list[SecurityGroupRule]
    ) -> None: ...
    def _add_not_existing_inbound_rules(self, security_group_id: str) -> None: ...
    def create_key_pair(self, key_pair_name: str, username: str | None) -> tuple[str | None, OPResult]: ...
    def delete_key_pair(self, key_pair_name: str) -> None: ...

class LocalContainerNodeManager(NodeManager):
    container_helper: ContainerHelper
    def __init__(self, region: CloudRegion) -> None: ...
    def list_instances(self) -> _Listed: ...
    def launch_node(
        self,
        instance_type_def: CloudInstanceTypeDef,
        instance_config: CloudInstanceConfig,
        auth: CloudAuth | None = None,
        username: str | None = None,
        dry_run: bool = False,
        wait_until_cloud_provider_ready: bool = False,
        additional_params: str | None = None,
        startup_script: str | None = None,
    ) -> _Launched: ...
    # Here `reboot` stands before `wait_until_cloud_provider_ready`: pass both by keyword.
    def start_node(  # type: ignore[override]
        self, instance_id: str, reboot: bool = False, wait_until_cloud_provider_ready: bool = False
    ) -> None: ...
    def stop_node(self, instance_id: str) -> None: ...
    def terminate_node(self, instance_id: str, stop_reason: str | None = None) -> OPResult: ...
    def list_instance_templates(self, is_public: bool = True) -> _Templates: ...
    def list_instance_types(self) -> _Types: ...

class K8sNodeManager(NodeManager):
    console_client: K8sConsoleClient
    def __init__(self, region: K8sRegion) -> None: ...
    def list_instances(self) -> _Listed: ...
    def launch_node(
        self,
        instance_type_def: CloudInstanceTypeDef,
        instance_config: CloudInstanceConfig,
        auth: CloudAuth | None = None,
        username: str | None = None,
        dry_run: bool = False,
        wait_until_cloud_provider_ready: bool = False,
        additional_params: str | None = None,
        startup_script: str | None = None,
    ) -> _Launched: ...
    # Here `reboot` stands before `wait_until_cloud_provider_ready`: pass both by keyword.
    def start_node(  # type: ignore[override]
        self, instance_id: str, reboot: bool = False, wait_until_cloud_provider_ready: bool = False
    ) -> None: ...
    def stop_node(self, instance_id: str) -> None: ...
    def terminate_node(self, instance_id: str, stop_reason: str | None = None) -> OPResult: ...
    def list_instance_templates(self, is_public: bool = True) -> _Templates: ...
    def list_instance_types(self) -> _Types: ...

class CloudManager:
    core_conf: CoreConf
    cloud_conf_manager: CloudConfManager
    # The providers by their regions' hash_key, under the lock.
    _node_manager_hashset: dict[str, NodeManager]
    _node_manager_hashset_lock: threading.Lock
    webs_client_pool: list[WebSocketClient]
    webs_client_pool_lock: threading.Lock
    logger: logging.Logger
    is_cloud_vendor_ready: bool
    def __init__(self) -> None: ...
    def get_node_manager(self, region: CloudRegion) -> NodeManager: ...
    def _get_node_manager(
        self, region: CloudRegion, auth: CloudAuth | None = None, username: str | None = None
    ) -> NodeManager: ...
    def _get_cached_node_manager(self, region: CloudRegion | None) -> NodeManager | None: ...
    def _cache_node_manager(self, region: CloudRegion, node_manager: NodeManager) -> None: ...
    def add_to_webs_client_pool(self, webs_client: WebSocketClient) -> None: ...
    def get_from_webs_client_pool(self, node_uuid: str) -> WebSocketClient | None: ...
    def flush_webs_client_pool(self, node_uuid: str | None, flush_all: bool = False) -> list[str | None]: ...
    def get_node_list(self, region: CloudRegion) -> list[CloudNode]: ...
    def set_node(self, node: CloudNode) -> None: ...
    def get_ready_node_next_in_line(self, region: CloudRegion) -> CloudNode | None: ...
    def find_node_by_instance_id(self, region: CloudRegion, instance_id: str) -> CloudNode | None: ...
    def find_node_by_uuid(self, region: CloudRegion, uuid: str) -> CloudNode | None: ...
    def refresh_node(self, node: CloudNode) -> OPResult: ...
    def refresh_node_list(
        self, region: CloudRegion, auth: CloudAuth | None = None, username: str | None = None
    ) -> OPResult: ...
    def launch_node(
        self,
        region: CloudRegion,
        auth: CloudAuth | None,
        instance_type_def: CloudInstanceTypeDef,
        instance_config: CloudInstanceConfig,
        username: str | None = None,
        wait_until_cloud_provider_ready: bool = False,
        additional_params: str | None = None,
        startup_script: str | None = None,
    ) -> _Launched: ...
    def try_launching_node(
        self,
        region: CloudRegion,
        auth: CloudAuth | None,
        instance_type_def: CloudInstanceTypeDef,
        instance_config: CloudInstanceConfig,
        wait_until_cloud_provider_ready: bool = False,
    ) -> OPResult: ...
    def list_instances(
        self, region: CloudRegion, auth: CloudAuth | None = None, username: str | None = None
    ) -> _Listed: ...
    def start_node(
        self,
        region: CloudRegion,
        auth: CloudAuth | None,
        instance_id: str,
        wait_until_cloud_provider_ready: bool = False,
        reboot: bool = False,
    ) -> None: ...
    def stop_node(self, region: CloudRegion, auth: CloudAuth | None, instance_id: str) -> None: ...
    def terminate_node(
        self, region: CloudRegion, auth: CloudAuth | None, instance_id: str, stop_reason: str | None = None
    ) -> OPResult: ...
    def create_key_pair(
        self, region: CloudRegion, auth: CloudAuth | None, key_pair_name: str, username: str | None
    ) -> tuple[str | None, OPResult]: ...
    def delete_key_pair(self, region: CloudRegion, auth: CloudAuth | None, key_pair_name: str) -> None: ...
    def list_current_instance_templates(
        self, region: CloudRegion, auth: CloudAuth | None = None, is_public: bool = True
    ) -> _Templates: ...
    def list_instance_types(self, region: CloudRegion) -> _Types: ...
    def get_default_instance_template(
        self, region: CloudRegion, auth: CloudAuth | None, plan: object
    ) -> InstanceTemplate | None: ...
    @staticmethod
    def _CloudManager__extract_instance_template(
        instance_templates: Iterable[InstanceTemplate], pay_type: InstanceTemplatePayType, is_gpu: bool
    ) -> InstanceTemplate | None: ...

cloud_manager_glbl: CloudManager
