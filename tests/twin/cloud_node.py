"""`tovarincore.cloud_node` written as plain Python: the tests' oracle, the benchmarks' baseline."""

# It stays one file, since all of it must share one namespace, and it keeps the extension's habits on purpose:
# typing's old names, annotations as text, handlers without a type, imports inside methods.
# ruff: noqa: E722, F401, I001
# mypy: ignore-errors
from datetime import datetime
import logging
import threading
from abc import ABC, abstractmethod
from copy import deepcopy
from typing import List, Optional, Tuple, TYPE_CHECKING, Any, Union

from tovarincore.api_def import PingRequest
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import (
    CloudInstanceTypeDef,
    CloudRegion,
    CloudInstanceConfig,
    CloudInstances,
    CloudAuth,
    AWSCloudAuth,
    CloudNode,
    AWSCloudNode,
    NodeState,
    SecurityGroupRule,
    SecurityGroupRules,
    InstanceTemplate,
    InstanceTemplatePayType,
    CloudRegions,
    K8sRegion,
    CpuPlanA,
    GpuPlanA,
    CpuPlanB,
    GpuPlanB,
)
from tovarincore.container_helper import ContainerHelper
from tovarincore.core_conf import CoreConf, core_conf_glbl, log_manager_glbl
from tovarincore.core_def import OPResult, OPResultErrorCode, CoreDef
from tovarincore.k8s_console_client import K8sConsoleClient
from tovarincore.util import ObjectMetaTextUtil
from tovarincore.webs_client import WebSocketClient

if TYPE_CHECKING:
    from boto3 import Session
    from botocore.client import BaseClient


class NodeManager(ABC):
    def __init__(self, region: "CloudRegion") -> "None":
        self.core_conf = core_conf_glbl
        self.logger = log_manager_glbl.get_logger()
        self.region = region
        self.__node_list = []
        self.__node_list_lock = threading.Lock()

    def get_node_list(self) -> "List[CloudNode]":
        lock = self.__node_list_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            return deepcopy(self.__node_list)
        finally:
            lock.release()

    def set_node_list(self, node_list: "List[CloudNode]"):
        lock = self.__node_list_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            self.__node_list = deepcopy(node_list)
        finally:
            lock.release()

    def set_node(self, node: "CloudNode"):
        lock = self.__node_list_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            node = deepcopy(node)
            for i in range(len(self.__node_list)):
                if self.__node_list[i].instance_id == node.instance_id:
                    self.__node_list[i] = node
                    return
            self.__node_list.append(node)
        finally:
            lock.release()

    def find_node_by_instance_id(self, instance_id: "str") -> "Optional[CloudNode]":
        lock = self.__node_list_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            for node in self.__node_list:
                if node.instance_id == instance_id:
                    return deepcopy(node)
            return None
        finally:
            lock.release()

    def find_node_by_uuid(self, uuid: "str") -> "Optional[CloudNode]":
        lock = self.__node_list_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            for node in self.__node_list:
                if node.uuid == uuid:
                    return deepcopy(node)
            return None
        finally:
            lock.release()

    def get_ready_node_next_in_line(self) -> "Optional[CloudNode]":
        lock = self.__node_list_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            for node in self.__node_list:
                if node.ready:
                    return deepcopy(node)
            return None
        finally:
            lock.release()

    def change_node_state(self, instance_id: "str", node_state: "NodeState", ready: "bool" = False):
        lock = self.__node_list_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            for node in self.__node_list:
                if node.instance_id == instance_id:
                    node.state = node_state
                    node.ready = ready
                    return
        finally:
            lock.release()

    def refresh_node(self, node: "CloudNode") -> "OPResult":
        try:
            updated_node = deepcopy(node)
            webs_client = WebSocketClient(updated_node, client_timeout_sec=2)
            request = PingRequest()
            ping_op_result = webs_client.api_get_op_result(request)
            if ping_op_result.success:
                node.ready = True
                webs_client.refresh_system_stat()
            self.set_node(updated_node)
            return OPResult(success=True)
        except:
            msg = "Error occurred while refreshing Cloud Worker"
            self.logger.debug(msg, exc_info=True)
            return OPResult(error=True, msg=msg, exc_info=True)

    def refresh_node_list(self) -> "OPResult":
        try:
            prev_node_list = self.get_node_list()
            new_node_list, op_result = self.list_instances()
            if new_node_list is None:
                return op_result
            for new_node in new_node_list:
                if new_node.state == NodeState.RUNNING:
                    webs_client = WebSocketClient(new_node, client_timeout_sec=2)
                    ping_op_result = webs_client.api_get_op_result(PingRequest())
                    if ping_op_result.success:
                        new_node.ready = True
                        webs_client.refresh_system_stat()
            for old_node in prev_node_list:
                if len(old_node.worker_id_list) >= 1:
                    for new_node in new_node_list:
                        if new_node.instance_id == old_node.instance_id:
                            new_node.worker_id_list = old_node.worker_id_list.copy()
            self.set_node_list(new_node_list)
            return op_result
        except:
            msg = "Error occurred while refreshing Cloud Worker list"
            self.logger.debug(msg, exc_info=True)
            return OPResult(error=True, msg=msg, exc_info=True)

    @abstractmethod
    def launch_node(
        self,
        instance_type_def: "CloudInstanceTypeDef",
        instance_config: "CloudInstanceConfig",
        auth: "Optional[CloudAuth]" = None,
        username: "Optional[str]" = None,
        dry_run=False,
        wait_until_cloud_provider_ready=False,
        additional_params: "Optional[str]" = None,
        startup_script: "Optional[str]" = None,
    ) -> "Tuple[Optional[CloudNode], OPResult]":
        pass

    @abstractmethod
    def list_instances(self) -> "Tuple[Optional[List[CloudNode]], OPResult]":
        pass

    @abstractmethod
    def start_node(self, instance_id: "str", wait_until_cloud_provider_ready=False, reboot=False):
        pass

    @abstractmethod
    def stop_node(self, instance_id: "str"):
        pass

    @abstractmethod
    def terminate_node(self, instance_id: "str", stop_reason: "Optional[str]" = None):
        pass

    @abstractmethod
    def list_instance_templates(self, is_public: "bool" = True) -> "Tuple[List[InstanceTemplate], OPResult]":
        pass

    @abstractmethod
    def list_instance_types(self) -> "Tuple[List[CloudInstanceTypeDef], OPResult]":
        pass


class CloudKeyPairManager(ABC):
    @abstractmethod
    def create_key_pair(
        self, key_pair_name: "str", username: "Optional[str]"
    ) -> "Tuple[Optional[str], OPResult]":
        pass

    @abstractmethod
    def delete_key_pair(self, key_pair_name: "str"):
        pass


aws_node_manager_client_lock = threading.Lock()


class AWSNodeManager(NodeManager, CloudKeyPairManager):
    tovarin_security_group_name = "tovarin-security-group"

    def __init__(self, region: "CloudRegion", auth: "AWSCloudAuth", username: "str"):
        super().__init__(region)
        assert auth is not None
        assert isinstance(auth, AWSCloudAuth)
        assert username is not None
        self.auth = auth
        self.username = username

    @staticmethod
    def _create_session(auth) -> "'Session'":
        from boto3 import Session

        if auth.aws_profile:
            return Session(profile_name=auth.aws_profile)
        return Session(
            aws_access_key_id=auth.aws_access_key_id,
            aws_secret_access_key=auth.aws_secret_access_key,
            aws_session_token=auth.aws_session_token,
        )

    def _get_client(self) -> "'BaseClient'":
        from botocore.config import Config

        proxies = {}
        verify = not self.core_conf.network__bypass_ssl_verification
        if self.core_conf.proxy_enabled:
            http_proxy, https_proxy = self.core_conf.get_proxy_conf_tuple()
            proxies = {"http": http_proxy, "https": https_proxy}
        config = Config(retries={"max_attempts": 1, "mode": "standard"}, proxies=proxies)
        lock = aws_node_manager_client_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            session = self._create_session(self.auth)
            return session.client("ec2", region_name=self.region.name, config=config, verify=verify)
        finally:
            lock.release()

    def launch_node(
        self,
        instance_type_def: "CloudInstanceTypeDef",
        instance_config: "CloudInstanceConfig",
        auth: "Optional[CloudAuth]" = None,
        username: "Optional[str]" = None,
        dry_run=False,
        wait_until_cloud_provider_ready=False,
        additional_params: "Optional[str]" = None,
        startup_script: "Optional[str]" = None,
    ) -> "Tuple[Optional[CloudNode], OPResult]":
        from botocore.exceptions import ClientError

        try:
            ec2 = self._get_client()
            assert instance_config.disk_size, "No disk size provided"
            security_group_id = self._check_and_get_security_group_id()

            import json
            import base64

            launch_instance_settings_str = base64.b64encode(
                json.dumps(instance_config.launch_instance_settings).encode("utf-8")
            ).decode("utf-8")

            profile_node_second = self.core_conf.development_settings__profiler_node_second
            if profile_node_second > 0:
                self.logger.warning(
                    "Profiler requested! Node will run profiler for "
                    + str(profile_node_second)
                    + " seconds and quit"
                )
                profiler_code = (
                    "echo '"
                    + str(profile_node_second)
                    + "' > "
                    + str(CoreDef.NODE_HOME_PATH)
                    + "/.tovarin/profile.requested"
                )
            else:
                profiler_code = ""

            user_data = (
                "#!/bin/bash\n"
                + "\n"
                + profiler_code
                + "\nsh "
                + str(CoreDef.NODE_HOME_PATH)
                + "/.tovarin/prepare_cloud_node.sh "
                + launch_instance_settings_str
                + "\n\n"
            )

            custom_subnet_id = self.core_conf.network__aws_custom_subnet
            if not custom_subnet_id or len(custom_subnet_id) < 10:
                custom_subnet_id = ""

            assert instance_config.instance_template is not None

            response = ec2.run_instances(
                BlockDeviceMappings=[
                    {
                        "DeviceName": "/dev/sda1",
                        "Ebs": {"VolumeSize": instance_config.disk_size, "VolumeType": "gp3"},
                    }
                ],
                DryRun=dry_run,
                ImageId=instance_config.instance_template.instance_template_id,
                InstanceType=instance_type_def.instance_type,
                KeyName=instance_config.key_pair_name,
                MaxCount=1,
                MinCount=1,
                UserData=user_data,
                SecurityGroupIds=[security_group_id],
                IamInstanceProfile={"Name": instance_config.get_safe_instance_profile_name()},
                SubnetId=custom_subnet_id,
                TagSpecifications=[
                    {
                        "ResourceType": "instance",
                        "Tags": [
                            {"Key": "tovarin_uuid", "Value": instance_config.uuid},
                            {"Key": "Name", "Value": instance_config.name},
                            {"Key": "tovarin_username", "Value": username},
                        ],
                    }
                ],
            )
            self.logger.debug("Start new Cloud Worker response:\n " + str(response))

            instance = response["Instances"][0]
            instance_id = str(instance["InstanceId"])
            dns_address = str(instance["PublicDnsName"])
            if not dns_address or len(dns_address) < 5:
                dns_address = str(instance["PrivateDnsName"])

            node = AWSCloudNode(
                region=self.region,
                instance_id=instance_id,
                instance_type_def=instance_type_def,
                uuid=instance_config.uuid,
                name=instance_config.name if instance_config.name is not None else "?",
                dns_address=dns_address,
                state=NodeState.STARTING,
                key_pair_name=instance_config.key_pair_name,
            )

            if wait_until_cloud_provider_ready:
                self.logger.debug("Waiting until AWS states Cloud Worker is ready")
                waiter = ec2.get_waiter("instance_status_ok")
                waiter.wait(InstanceIds=[instance_id])
                self.logger.debug("AWS stated Cloud Worker is ready")

            return node, OPResult(success=True)
        except ClientError as ex:
            if (
                "Error" in ex.response
                and "Code" in ex.response["Error"]
                and ex.response["Error"]["Code"] == "DryRunOperation"
            ):
                return None, OPResult(error=True, error_code=OPResultErrorCode.DRY_RUN_OPERATION)
            self.logger.error("Exception occurred when tyring to starting Cloud Worker", exc_info=ex)
            return None, OPResult(error=True, msg=ex.response["Error"]["Message"])

    def list_instances(self) -> "Tuple[Optional[List[CloudNode]], OPResult]":
        ec2 = self._get_client()
        filters = [{"Name": "tag:tovarin_username", "Values": [self.username]}]
        response = ec2.describe_instances(Filters=filters)
        instances = []
        for reservation in response["Reservations"]:
            for instance in reservation["Instances"]:
                instance_type = instance["InstanceType"]
                found_instance_type_def = next(
                    (x for x in CloudInstances.instance_type_list if x.instance_type == instance_type), None
                )
                state = instance["State"]["Name"].capitalize()

                name = "-"
                uuid = "-"
                if "Tags" in instance:
                    for item in instance["Tags"]:
                        if item["Key"] == "tovarin_uuid":
                            uuid = item["Value"]
                        elif item["Key"] == "Name":
                            name = item["Value"]

                dns_address = str(instance["PublicDnsName"])
                if not dns_address or len(dns_address) < 5:
                    dns_address = str(instance["PrivateDnsName"])

                instance_profile_name = None
                if "IamInstanceProfile" in instance:
                    instance_profile_name = ObjectMetaTextUtil.get_profile_name_from_arn(
                        str(instance["IamInstanceProfile"]["Arn"])
                    )

                key_pair_name = None
                if "KeyName" in instance:
                    key_pair_name = str(instance["KeyName"])

                assert found_instance_type_def is not None

                instances.append(
                    AWSCloudNode(
                        region=self.region,
                        instance_id=instance["InstanceId"],
                        uuid=uuid,
                        name=name,
                        instance_type_def=found_instance_type_def,
                        dns_address=dns_address,
                        state=NodeState.from_aws_value(state),
                        instance_profile_name=instance_profile_name,
                        key_pair_name=key_pair_name,
                    )
                )
        return instances, OPResult(success=True)

    def start_node(self, instance_id: "str", wait_until_cloud_provider_ready=False, reboot=False):
        ec2 = self._get_client()
        if reboot:
            response = ec2.reboot_instances(InstanceIds=[instance_id], DryRun=False)
        else:
            response = ec2.start_instances(InstanceIds=[instance_id], DryRun=False)
        self.logger.debug(response)
        if wait_until_cloud_provider_ready:
            try:
                self.logger.debug("Waiting until AWS states Cloud Worker is ready")
                waiter = ec2.get_waiter("instance_status_ok")
                waiter.wait(InstanceIds=[instance_id])
                self.logger.debug("AWS stated Cloud Worker is ready")
            except:
                self.logger.error("AWS wait failed.", exc_info=True)

    def stop_node(self, instance_id: "str"):
        ec2 = self._get_client()
        response = ec2.stop_instances(InstanceIds=[instance_id], Hibernate=False, DryRun=False, Force=True)
        self.logger.debug(response)

    def terminate_node(self, instance_id: "str", stop_reason: "Optional[str]" = None):
        ec2 = self._get_client()
        response = ec2.terminate_instances(InstanceIds=[instance_id], DryRun=False)
        self.logger.debug(response)
        return OPResult(success=True)

    def list_instance_templates(self, is_public: "bool" = True) -> "Tuple[List[InstanceTemplate], OPResult]":
        ec2 = self._get_client()
        filters = [{"Name": "name", "Values": ["TOVARIN_AI_*"]}]
        if is_public:
            filters.append({"Name": "is-public", "Values": ["true"]})
        response = ec2.describe_images(Filters=filters)
        result_list = []
        if "Images" in response:
            from dateutil.parser import parse

            for image in response["Images"]:
                creation_date = parse(image["CreationDate"]).replace(tzinfo=None)
                instance_template = InstanceTemplate.create_from(
                    image_template_id=image["ImageId"],
                    image_template_name=image["Name"],
                    creation_date=creation_date,
                    region=self.region,
                )
                if instance_template is not None:
                    result_list.append(instance_template)
        return result_list, OPResult(success=True)

    def list_instance_types(self) -> "Tuple[List[CloudInstanceTypeDef], OPResult]":
        return [], OPResult(success=True)

    def _check_and_get_security_group_id(self):
        security_group_name = self.tovarin_security_group_name
        security_group_id = self._get_security_group_id(security_group_name)
        if not security_group_id:
            self.logger.debug("Security Group does not exist. Creating : " + security_group_name)
            security_group_id = self._create_security_group(security_group_name)
        self._add_not_existing_inbound_rules(security_group_id)
        return security_group_id

    def _get_default_vpc_id(self):
        response = self._get_client().describe_vpcs(Filters=[{"Name": "isDefault", "Values": ["true"]}])
        return str(response["Vpcs"][0]["VpcId"])

    def _get_security_group_id(self, name):
        from botocore.exceptions import ClientError

        try:
            filters = [{"Name": "group-name", "Values": [name]}]
            if self.core_conf.network__aws_custom_vpc and self.core_conf.network__aws_custom_subnet:
                filters.append({"Name": "vpc-id", "Values": [self.core_conf.network__aws_custom_vpc]})
            response = self._get_client().describe_security_groups(Filters=filters)
            if "SecurityGroups" in response and response["SecurityGroups"]:
                return response["SecurityGroups"][0]["GroupId"]
            self.logger.debug("Security Group : " + name + " Not Exists")
            return None
        except ClientError:
            self.logger.debug("Security Group : " + name + " Not Exists", exc_info=True)
            return None

    def _create_security_group(self, name):
        if self.core_conf.network__aws_custom_vpc and self.core_conf.network__aws_custom_subnet:
            vpc_id = self.core_conf.network__aws_custom_vpc
        else:
            vpc_id = self._get_default_vpc_id()
        response = self._get_client().create_security_group(
            Description="Tovarin AI security group", GroupName=name, VpcId=vpc_id
        )
        self.logger.info("Security Group : " + name + " created")
        return response["GroupId"]

    def _list_inbound_security_group_rules(self, security_group_id):
        response = self._get_client().describe_security_group_rules(
            Filters=[{"Name": "group-id", "Values": [security_group_id]}]
        )
        rules = []
        for rule in response["SecurityGroupRules"]:
            if rule["IsEgress"]:
                continue
            rules.append(SecurityGroupRule(rule["FromPort"], rule["ToPort"], rule["IpProtocol"]))
        return rules

    def _add_inbound_security_group_rules(self, security_group_id, rules):
        ip_permissions = []
        for rule in rules:
            ip_permissions.append(
                {
                    "FromPort": rule.from_port,
                    "IpProtocol": rule.ip_protocol,
                    "ToPort": rule.to_port,
                    "IpRanges": [{"CidrIp": "0.0.0.0/0", "Description": rule.description}],
                }
            )
        self._get_client().authorize_security_group_ingress(
            GroupId=security_group_id, IpPermissions=ip_permissions
        )

    def _add_not_existing_inbound_rules(self, security_group_id):
        not_existing_rules = []
        existing_rules = self._list_inbound_security_group_rules(security_group_id)
        for inbound_rule in SecurityGroupRules.inbound_list:
            found = next((rule for rule in existing_rules if rule == inbound_rule), None)
            if not found:
                self.logger.debug(f"Inbound Rule Not Found : {inbound_rule}")
                not_existing_rules.append(inbound_rule)
            else:
                self.logger.debug(f"Inbound Rule Found : {found}")
        if not_existing_rules:
            self._add_inbound_security_group_rules(security_group_id, not_existing_rules)
            self.logger.debug("Added not existing rules")
        else:
            self.logger.debug("All rules exists. Nothing to do")

    def create_key_pair(
        self, key_pair_name: "str", username: "Optional[str]"
    ) -> "Tuple[Optional[str], OPResult]":
        from botocore.exceptions import ClientError

        try:
            ec2 = self._get_client()
            if username is None:
                username = "Unknown"
            response = ec2.create_key_pair(
                KeyName=key_pair_name,
                TagSpecifications=[
                    {
                        "ResourceType": "key-pair",
                        "Tags": [{"Key": "tovarin_username", "Value": username}],
                    }
                ],
            )
            return response["KeyMaterial"], OPResult(success=True)
        except ClientError as ex:
            self.logger.error(
                "Exception occurred when tyring to create key_pair_name: "
                + key_pair_name
                + " username: "
                + username,
                exc_info=True,
            )
            if (
                "Error" in ex.response
                and "Code" in ex.response["Error"]
                and ex.response["Error"]["Code"] == "UnauthorizedOperation"
            ):
                return None, OPResult(
                    error=True,
                    error_code=OPResultErrorCode.UNAUTHORIZED_OPERATION,
                    msg=ex.response["Error"]["Message"],
                )
            return None, OPResult(error=True, msg=ex.response["Error"]["Message"])

    def delete_key_pair(self, key_pair_name: "str"):
        self._get_client().delete_key_pair(KeyName=key_pair_name)


class LocalContainerNodeManager(NodeManager):
    def __init__(self, region: "CloudRegion"):
        super().__init__(region)
        self.container_helper = ContainerHelper()

    def list_instances(self) -> "Tuple[Optional[List[CloudNode]], OPResult]":
        node = self.container_helper.get_existing_node()
        if node is None:
            return [], OPResult(success=True)
        return [node], OPResult(success=True)

    def launch_node(
        self,
        instance_type_def: "CloudInstanceTypeDef",
        instance_config: "CloudInstanceConfig",
        auth: "Optional[CloudAuth]" = None,
        username: "Optional[str]" = None,
        dry_run=False,
        wait_until_cloud_provider_ready=False,
        additional_params: "Optional[str]" = None,
        startup_script: "Optional[str]" = None,
    ) -> "Tuple[Optional[CloudNode], OPResult]":
        assert (
            instance_config
            and instance_config.instance_template
            and instance_config.instance_template.version
        ), "Version must be provided to start a new local container"
        return self.container_helper.run_tvr_container_image(instance_config.instance_template.version)

    def start_node(self, instance_id: "str", reboot=False, wait_until_cloud_provider_ready=False):
        self.container_helper.start_tovarin_container(reboot=reboot)

    def stop_node(self, instance_id: "str"):
        self.container_helper.stop_tovarin_container()

    def terminate_node(self, instance_id: "str", stop_reason: "Optional[str]" = None):
        return self.container_helper.delete_tovarin_container()

    def list_instance_templates(self, is_public: "bool" = True) -> "Tuple[List[InstanceTemplate], OPResult]":
        versions = self.container_helper.list_tvr_container_image_versions()
        if not versions:
            return [], OPResult(success=True)
        instance_templates = []
        region = CloudRegions.get_local_container_region()
        assert region is not None
        for version in versions:
            instance_templates.append(
                InstanceTemplate(
                    instance_template_id=version,
                    name=version,
                    product_pay_type=InstanceTemplatePayType.DEV,
                    created_date=datetime.now(),
                    region=region,
                    version=version,
                )
            )
        return instance_templates, OPResult(success=True)

    def list_instance_types(self) -> "Tuple[List[CloudInstanceTypeDef], OPResult]":
        return [CloudInstances.get_default_local_instance_type()], OPResult(success=True)


class K8sNodeManager(NodeManager):
    def __init__(self, region) -> "None":
        super().__init__(region)
        self.console_client = K8sConsoleClient(region)

    def list_instances(self) -> "Tuple[Optional[List[CloudNode]], OPResult]":
        return self.console_client.get_cloud_nodes()

    def launch_node(
        self,
        instance_type_def: "CloudInstanceTypeDef",
        instance_config: "CloudInstanceConfig",
        auth: "Optional[CloudAuth]" = None,
        username: "Optional[str]" = None,
        dry_run=False,
        wait_until_cloud_provider_ready=False,
        additional_params: "Optional[str]" = None,
        startup_script: "Optional[str]" = None,
    ) -> "Tuple[Optional[CloudNode], OPResult]":
        return self.console_client.launch_node(
            instance_type_def=instance_type_def,
            instance_config=instance_config,
            additional_params=additional_params,
            startup_script=startup_script,
        )

    def start_node(self, instance_id: "str", reboot=False, wait_until_cloud_provider_ready=False):
        pass

    def stop_node(self, instance_id: "str"):
        pass

    def terminate_node(self, instance_id: "str", stop_reason: "Optional[str]" = None):
        return self.console_client.terminate_node(instance_id=instance_id, stop_reason=stop_reason)

    def list_instance_templates(self, is_public: "bool" = True) -> "Tuple[List[InstanceTemplate], OPResult]":
        return self.console_client.list_instance_templates()

    def list_instance_types(self) -> "Tuple[List[CloudInstanceTypeDef], OPResult]":
        return self.console_client.list_instance_types()


class CloudManager:
    def __init__(self):
        self.core_conf = core_conf_glbl
        self.cloud_conf_manager = CloudConfManager()
        self._node_manager_hashset = {}
        self._node_manager_hashset_lock = threading.Lock()
        self.webs_client_pool = []
        self.webs_client_pool_lock = threading.Lock()
        self.logger = logging.getLogger("CloudManager")
        self.is_cloud_vendor_ready = False

    def get_node_manager(self, region):
        return self._get_node_manager(region)

    def _get_node_manager(self, region, auth=None, username=None):
        node_manager = self._get_cached_node_manager(region)
        if node_manager is not None:
            return node_manager
        if region.cloud == "AWS":
            if auth is None or username is None:
                cloud_conf = self.cloud_conf_manager.get_cloud_conf(region)
                if cloud_conf is not None:
                    auth = cloud_conf.cloud_auth
                    username = cloud_conf.user_name
            assert username is not None
            assert isinstance(auth, AWSCloudAuth)
            node_manager = AWSNodeManager(region, auth=auth, username=username)
        elif region.cloud == "local":
            node_manager = LocalContainerNodeManager(region)
        elif region.cloud == "k8s":
            assert isinstance(region, K8sRegion)
            node_manager = K8sNodeManager(region)
        else:
            raise NotImplementedError("Cloud Region " + str(region.cloud) + " is not supported")
        self._cache_node_manager(region, node_manager)
        return node_manager

    def _get_cached_node_manager(self, region):
        if region is None:
            return None
        lock = self._node_manager_hashset_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            if region.hash_key in self._node_manager_hashset:
                return self._node_manager_hashset[region.hash_key]
            return None
        finally:
            lock.release()

    def _cache_node_manager(self, region, node_manager):
        lock = self._node_manager_hashset_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            self._node_manager_hashset[region.hash_key] = node_manager
        finally:
            lock.release()

    def add_to_webs_client_pool(self, webs_client):
        lock = self.webs_client_pool_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            self.webs_client_pool.append(webs_client)
        finally:
            lock.release()

    def get_from_webs_client_pool(self, node_uuid):
        lock = self.webs_client_pool_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            webs_client_to_return = None
            temp_pool = []
            for webs_client in self.webs_client_pool:
                if webs_client_to_return is None and webs_client.node.uuid == node_uuid:
                    webs_client_to_return = webs_client
                else:
                    temp_pool.append(webs_client)
            if webs_client_to_return:
                self.webs_client_pool = temp_pool
        finally:
            lock.release()
        return webs_client_to_return

    def flush_webs_client_pool(self, node_uuid, flush_all=False):
        """
        :param node_uuid: Node to flush workers
        :param flush_all: If no node provided and need to flush all nodes
        :return: IF a node is provided; worker_id's of flushed workers (so you can kill them)
        """
        assert node_uuid is not None or flush_all, (
            "If no node_uuid is provided flush_all=True must be explicitly set"
        )
        lock = self.webs_client_pool_lock
        if not lock.acquire(timeout=3):
            raise TimeoutError()
        try:
            flushed_worker_id_list = []
            if flush_all:
                self.webs_client_pool.clear()
            else:
                temp_pool = []
                for webs_client in self.webs_client_pool:
                    if webs_client.node.uuid == node_uuid:
                        flushed_worker_id_list.append(webs_client.worker_id)
                    else:
                        temp_pool.append(webs_client)
                self.webs_client_pool = temp_pool
        finally:
            lock.release()
        return flushed_worker_id_list

    def get_node_list(self, region):
        return self._get_node_manager(region).get_node_list()

    def set_node(self, node):
        return self._get_node_manager(node.region).set_node(node)

    def get_ready_node_next_in_line(self, region):
        return self._get_node_manager(region).get_ready_node_next_in_line()

    def find_node_by_instance_id(self, region, instance_id):
        return self._get_node_manager(region).find_node_by_instance_id(instance_id)

    def find_node_by_uuid(self, region, uuid):
        return self._get_node_manager(region).find_node_by_uuid(uuid)

    def refresh_node(self, node):
        return self._get_node_manager(node.region).refresh_node(node)

    def refresh_node_list(self, region, auth=None, username=None):
        return self._get_node_manager(region, auth, username).refresh_node_list()

    def launch_node(
        self,
        region,
        auth,
        instance_type_def,
        instance_config,
        username=None,
        wait_until_cloud_provider_ready=False,
        additional_params=None,
        startup_script=None,
    ):
        return self._get_node_manager(region).launch_node(
            auth=auth,
            instance_type_def=instance_type_def,
            instance_config=instance_config,
            username=username,
            wait_until_cloud_provider_ready=wait_until_cloud_provider_ready,
            additional_params=additional_params,
            startup_script=startup_script,
        )

    def try_launching_node(
        self, region, auth, instance_type_def, instance_config, wait_until_cloud_provider_ready=False
    ):
        node_manager = self._get_node_manager(region)
        _, op_result = node_manager.launch_node(
            auth=auth,
            instance_type_def=instance_type_def,
            instance_config=instance_config,
            username="dry_run",
            dry_run=True,
            wait_until_cloud_provider_ready=wait_until_cloud_provider_ready,
        )
        if op_result.error_code == OPResultErrorCode.DRY_RUN_OPERATION:
            return OPResult(success=True)
        return op_result

    def list_instances(self, region, auth=None, username=None):
        return self._get_node_manager(region, auth=auth, username=username).list_instances()

    def start_node(self, region, auth, instance_id, wait_until_cloud_provider_ready=False, reboot=False):
        node_manager = self._get_node_manager(region, auth=auth)
        node_manager.start_node(
            instance_id=instance_id,
            wait_until_cloud_provider_ready=wait_until_cloud_provider_ready,
            reboot=reboot,
        )
        node_manager.change_node_state(instance_id, NodeState.STARTING)

    def stop_node(self, region, auth, instance_id):
        node_manager = self._get_node_manager(region, auth=auth)
        node_manager.stop_node(instance_id=instance_id)
        node_manager.change_node_state(instance_id, NodeState.STOPPING)

    def terminate_node(self, region, auth, instance_id, stop_reason=None):
        node_manager = self._get_node_manager(region, auth=auth)
        op_result = node_manager.terminate_node(instance_id=instance_id, stop_reason=stop_reason)
        if op_result.success:
            node_manager.change_node_state(instance_id, NodeState.SHUTTING_DOWN)
        return op_result

    def create_key_pair(self, region, auth, key_pair_name, username):
        node_manager = self._get_node_manager(region, auth=auth, username=username)
        assert isinstance(node_manager, CloudKeyPairManager), (
            "Creating key pair is only supported for Cloud regions"
        )
        return node_manager.create_key_pair(key_pair_name, username)

    def delete_key_pair(self, region, auth, key_pair_name):
        node_manager = self._get_node_manager(region, auth=auth)
        assert isinstance(node_manager, CloudKeyPairManager), (
            "Deleting key pair is only supported for Cloud regions"
        )
        return node_manager.delete_key_pair(key_pair_name)

    def list_current_instance_templates(self, region, auth=None, is_public=True):
        return self._get_node_manager(region, auth=auth).list_instance_templates(is_public=is_public)

    def list_instance_types(self, region):
        return self._get_node_manager(region).list_instance_types()

    def get_default_instance_template(self, region, auth, plan):
        instance_templates, _ = self.list_current_instance_templates(region, auth, is_public=True)
        if not instance_templates:
            return None
        if isinstance(plan, CpuPlanA):
            is_gpu = False
            pay_type = InstanceTemplatePayType.PLAN_A
        elif isinstance(plan, GpuPlanA):
            is_gpu = True
            pay_type = InstanceTemplatePayType.PLAN_A
        elif isinstance(plan, CpuPlanB):
            is_gpu = False
            pay_type = InstanceTemplatePayType.PLAN_B
        elif isinstance(plan, GpuPlanB):
            is_gpu = True
            pay_type = InstanceTemplatePayType.PLAN_B
        else:
            return None
        return self.__extract_instance_template(instance_templates, pay_type, is_gpu)

    @staticmethod
    def __extract_instance_template(instance_templates, pay_type, is_gpu):
        return next(
            (t for t in instance_templates if t.is_gpu == is_gpu and t.product_pay_type == pay_type), None
        )


cloud_manager_glbl = CloudManager()
