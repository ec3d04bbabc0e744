// AWSNodeManager: the node manager of one Amazon EC2 region. One file a subject; aws_node_manager.cpp holds the class.
//
// The functions that carry a Python name are the methods of the class, and docs.h says what the public ones do. Each
// that sends a request makes a new client through _get_client. What the SDK raises reaches the caller, unless a
// line here or in docs.h says otherwise.
#pragma once

#include "../../contracts/contracts.h"

namespace cloud_node {

void build_aws_node_manager();

namespace aws {

// client.cpp
Object init(Handle self, Handle region, Handle auth, Handle username);
void keep_class(Handle built); // the class object for super().__init__, once it is built

// A new boto3 Session: of the profile that `auth` names, else of its three keys.
Object _create_session(Handle auth);

// A new EC2 client for the region, with the proxies and the certificate check that the settings ask for. Sessions and
// clients are made by one thread at a time in the whole process: a bare TimeoutError after 3 seconds of waiting.
Object _get_client(Handle self);

// instances.cpp
Object list_instances(Handle self);
Object start_node(Handle self, Handle instance_id, Handle wait_until_cloud_provider_ready, Handle reboot);
Object stop_node(Handle self, Handle instance_id);
Object terminate_node(Handle self, Handle instance_id, Handle stop_reason);

// The public DNS name of an instance in EC2's answer; the private one where that has fewer than 5 characters.
Object dns_address_of(Handle instance);

// Blocks until EC2's status check of the instance has passed. Raises what the SDK's waiter raises when it gives up.
void wait_until_instance_status_ok(Handle self, Handle ec2, Handle instance_id);

// launch.cpp
Object launch_node(Handle self, Handle instance_type_def, Handle instance_config, Handle auth, Handle username,
                   Handle dry_run, Handle wait_until_cloud_provider_ready, Handle additional_params,
                   Handle startup_script);

// security_group.cpp

// The id of the product's security group. Makes the group where it is missing, and adds the inbound rules it lacks,
// also to a group that was found: one that lost rules is whole again after the next launch.
Object _check_and_get_security_group_id(Handle self);

// The id of the region's default VPC, a text. IndexError where the account has none.
Object _get_default_vpc_id(Handle self);

// The id of the first group of this name, in the custom VPC where one is set, else in any; None where there is none,
// and where EC2 answers with a ClientError, which is only logged.
Object _get_security_group_id(Handle self, Handle name);

// Makes the group in the custom VPC, else in the default one, and gives its id.
Object _create_security_group(Handle self, Handle name);

// The group's inbound rules as a list of SecurityGroupRule, without descriptions. One request, no paging.
Object _list_inbound_security_group_rules(Handle self, Handle security_group_id);

// Opens the ports of all rules to every IPv4 address, in one request. None.
Object _add_inbound_security_group_rules(Handle self, Handle security_group_id, Handle rules);

// Adds what SecurityGroupRules.inbound_list has and the group has not. None.
Object _add_not_existing_inbound_rules(Handle self, Handle security_group_id);

// templates.cpp
Object list_instance_templates(Handle self, Handle is_public);
Object list_instance_types(Handle self);

// key_pairs.cpp
Object create_key_pair(Handle self, Handle key_pair_name, Handle username);
Object delete_key_pair(Handle self, Handle key_pair_name);

// What the requests and the handlers of EC2's errors share; in client.cpp.

// ex.response["Error"]["Code"] == code, where each step may be missing
bool has_error_code(Handle client_error, Name code);

// ex.response["Error"]["Message"]; a KeyError where EC2 gave none is meant to reach the caller
Object error_message(Handle client_error);

// (None, OPResult(error=True, msg=<EC2's message>))
Object refused(Handle client_error);

// {"Name": name, "Values": [value]}
Object filter(Name name, Handle value);

// {"Key": key, "Value": value}
Object tag(Name key, Handle value);

} // namespace aws
} // namespace cloud_node
