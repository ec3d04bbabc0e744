// The docstrings of AWSNodeManager, where they say more than those of the provider interface.
#pragma once

namespace cloud_node::aws::docs {

inline constexpr const char* aws_node_manager = R"(The nodes of one Amazon EC2 region.

Every operation makes its own session and EC2 client. One thread at a time makes them, in the whole process: a
TimeoutError without a text says that the lock could not be acquired within 3 seconds. Unless a method says otherwise,
what botocore raises reaches the caller: ClientError, ParamValidationError, connection errors.)";

inline constexpr const char* init = R"(Keep the credentials of the region. Nothing is sent.

:param region: the region; its name is EC2's name of the region
:param auth: the credentials, an AWSCloudAuth
:param username: the product user whose instances are launched and listed
:raises AssertionError: auth or username is missing, or auth is of another type)";

inline constexpr const char* launch_node = R"(Launch one EC2 instance (RunInstances).

The product's security group comes first: it is created if it is missing, and gets the inbound rules that it lacks. A
dry run does that too, because EC2 judges only the launch itself.

:param instance_type_def: the instance type
:param instance_config: template, disk size (GiB, required), name, uuid, key pair, profile and launch settings
:param auth: not used; the manager has its own credentials
:param username: tagged on the instance; the manager lists only the instances tagged with its own user
:param dry_run: EC2's DryRun; an allowed launch is answered with OPResultErrorCode.DRY_RUN_OPERATION
:param wait_until_cloud_provider_ready: wait for EC2's instance status check, at most as long as botocore's waiter does
:param additional_params: not used
:param startup_script: not used
:return: (AWSCloudNode, OPResult), or (None, error OPResult) with EC2's message
:raises AssertionError: there is no disk size, or no instance template
:raises botocore.exceptions.ParamValidationError: a value that EC2's description of RunInstances does not allow, such
    as None in a tag)";

inline constexpr const char* list_instances = R"(List the user's instances in every state (DescribeInstances).

The user's instances are those with the tag tovarin_username. One request is sent: instances beyond EC2's first page
are not seen.

:return: (list of AWSCloudNode, OPResult)
:raises AssertionError: an instance has a type that is missing in CloudInstances.instance_type_list)";

inline constexpr const char* start_node = R"(Start an instance (StartInstances), or restart it (RebootInstances).

:param instance_id: EC2's id of the instance
:param wait_until_cloud_provider_ready: wait for EC2's instance status check; a failed wait is logged, not raised
:param reboot: restart instead of start)";

inline constexpr const char* stop_node = R"(Stop an instance by force, without hibernation (StopInstances).

:param instance_id: EC2's id of the instance)";

inline constexpr const char* terminate_node = R"(Terminate an instance (TerminateInstances).

:param instance_id: EC2's id of the instance
:param stop_reason: not used
:return: OPResult(success=True))";

inline constexpr const char* list_instance_templates = R"(List the product's machine images (DescribeImages).

These are the images whose names begin with ``TOVARIN_AI_``, in EC2's order.

:param is_public: list public images only; otherwise every image of such a name that the account can see
:return: (list of InstanceTemplate, OPResult); creation dates are in UTC, without a time zone)";

inline constexpr const char* list_instance_types = R"(Return no instance type.

Those of Amazon come from configuration: CloudInstances.instance_type_list.

:return: ([], OPResult(success=True)))";

inline constexpr const char* create_key_pair = R"(Create an EC2 key pair, tagged with the user (CreateKeyPair).

:param key_pair_name: its name, unique in the region
:param username: the user it is made for; None is tagged as "Unknown"
:return: (private key, OPResult), or (None, error OPResult) with EC2's message; if rights are missing, it carries
    OPResultErrorCode.UNAUTHORIZED_OPERATION. The private key is returned once and stored nowhere.)";

inline constexpr const char* delete_key_pair = R"(Delete an EC2 key pair (DeleteKeyPair). An unknown name is no error.

:param key_pair_name: its name)";

} // namespace cloud_node::aws::docs
