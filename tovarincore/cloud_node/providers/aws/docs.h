// The docstrings of AWSNodeManager where they say more than the provider interface's.
#pragma once

#include "../../registry/docs.h"

namespace cloud_node::aws::docs {

inline constexpr const char* aws_node_manager =
    "The nodes of one Amazon EC2 region.\n\n"
    "Every operation makes a session and an EC2 client of its own, under a lock that is shared by the whole process: "
    "a\n"
    "bare TimeoutError says that it was not had within 3 seconds. Unless said otherwise, what botocore raises\n"
    "(ClientError, ParamValidationError, connection errors) reaches the caller.";
inline constexpr const char* init = "Keeps the region's credentials.\n\n"
                                    ":param region: the region; its name is EC2's region name\n"
                                    ":param auth: the credentials, an AWSCloudAuth\n"
                                    ":param username: the product user whose instances are launched and listed\n"
                                    ":raises AssertionError: auth or username is missing or of another type";
inline constexpr const char* launch_node =
    "Launches one EC2 instance (RunInstances), after making sure of the product's security group and its inbound "
    "rules.\n\n"
    "A dry run creates the security group and its rules as well: EC2 judges only the launch itself.\n\n"
    ":param instance_type_def: the instance type\n"
    ":param instance_config: template, disk (GiB, required), name, uuid, key pair, profile and launch settings\n"
    ":param auth: not used; the manager's own credentials serve\n"
    ":param username: tagged on the instance; the manager lists only instances tagged with its own user\n"
    ":param dry_run: EC2's DryRun; an allowed launch answers with OPResultErrorCode.DRY_RUN_OPERATION\n"
    ":param wait_until_cloud_provider_ready: wait for EC2's instance status check (botocore's waiter and its limits)\n"
    ":param additional_params: not used\n"
    ":param startup_script: not used\n"
    ":return: (AWSCloudNode, OPResult), or (None, error OPResult) with EC2's message\n"
    ":raises AssertionError: no disk size or no instance template\n"
    ":raises botocore.exceptions.ParamValidationError: a value that EC2's own description of RunInstances refuses, "
    "such as\n"
    "    None in a tag";
inline constexpr const char* list_instances =
    "Lists the user's instances in every state (DescribeInstances by the tag tovarin_username).\n\n"
    "One request: instances beyond EC2's first page are not seen.\n\n"
    ":return: (list of AWSCloudNode, OPResult)\n"
    ":raises AssertionError: an instance of a type that CloudInstances.instance_type_list lacks";
inline constexpr const char* start_node = "Starts (StartInstances) or restarts (RebootInstances) an instance.\n\n"
                                          ":param instance_id: EC2's instance id\n"
                                          ":param wait_until_cloud_provider_ready: wait for EC2's instance status "
                                          "check; a failed wait is logged, not raised\n"
                                          ":param reboot: restart instead of start";
inline constexpr const char* stop_node = "Stops an instance, forcibly and without hibernation (StopInstances).\n\n"
                                         ":param instance_id: EC2's instance id";
inline constexpr const char* terminate_node = "Terminates an instance (TerminateInstances).\n\n"
                                              ":param instance_id: EC2's instance id\n"
                                              ":param stop_reason: not used\n"
                                              ":return: OPResult(success=True)";
inline constexpr const char* list_instance_templates =
    "Lists the product's machine images, named TOVARIN_AI_* (DescribeImages), in EC2's order.\n\n"
    ":param is_public: only public images; otherwise every image of that name that the account can see\n"
    ":return: (list of InstanceTemplate, OPResult); creation dates are naive, in UTC";
inline constexpr const char* list_instance_types =
    "Contributes no instance type: Amazon's come from configuration (CloudInstances.instance_type_list).\n\n"
    ":return: ([], OPResult(success=True))";
inline constexpr const char* create_key_pair =
    "Creates an EC2 key pair (CreateKeyPair), tagged with its user.\n\n"
    ":param key_pair_name: its name, unique in the region\n"
    ":param username: the user it is made for; None tags it \"Unknown\"\n"
    ":return: (private key, OPResult), or (None, error OPResult) with EC2's message; a refusal for want of rights "
    "carries\n"
    "    OPResultErrorCode.UNAUTHORIZED_OPERATION. The private key is returned once and kept nowhere.";
inline constexpr const char* delete_key_pair =
    "Deletes an EC2 key pair (DeleteKeyPair); an unknown name is no error.\n\n"
    ":param key_pair_name: its name";

} // namespace cloud_node::aws::docs
