// AWSNodeManager: the node manager of one Amazon EC2 region. One file a subject; aws_node_manager.cpp holds the class.
#pragma once

#include "../../contracts/contracts.h"

namespace cloud_node {

void build_aws_node_manager();

namespace aws {

// client.cpp
Object init(Handle self, Handle region, Handle auth, Handle username);
Object create_session(Handle auth);
Object get_client(Handle self);
void keep_class(Handle built); // for super().__init__

// instances.cpp
Object list_instances(Handle self);
Object start_node(Handle self, Handle instance_id, Handle wait_until_cloud_provider_ready, Handle reboot);
Object stop_node(Handle self, Handle instance_id);
Object terminate_node(Handle self, Handle instance_id, Handle stop_reason);
Object dns_address_of(Handle instance, Where where = Where::here()); // the public name, else the private one
void wait_until_instance_status_ok(Handle self, Handle ec2, Handle instance_id, Where where = Where::here());

// launch.cpp
Object launch_node(Handle self, Handle instance_type_def, Handle instance_config, Handle auth, Handle username,
                   Handle dry_run, Handle wait_until_cloud_provider_ready, Handle additional_params,
                   Handle startup_script);

// security_group.cpp
Object check_and_get_security_group_id(Handle self);
Object get_default_vpc_id(Handle self);
Object get_security_group_id(Handle self, Handle name);
Object create_security_group(Handle self, Handle name);
Object list_inbound_security_group_rules(Handle self, Handle security_group_id);
Object add_inbound_security_group_rules(Handle self, Handle security_group_id, Handle rules);
Object add_not_existing_inbound_rules(Handle self, Handle security_group_id);

// templates.cpp
Object list_instance_templates(Handle self, Handle is_public);
Object list_instance_types(Handle self);

// key_pairs.cpp
Object create_key_pair(Handle self, Handle key_pair_name, Handle username);
Object delete_key_pair(Handle self, Handle key_pair_name);

// ex.response["Error"]["Code"] == code, where each step may be missing
bool has_error_code(Handle client_error, Name code, Where where = Where::here());

// ex.response["Error"]["Message"]; a KeyError where EC2 gave none is meant to reach the caller
Object error_message(Handle client_error, Where where = Where::here());

// (None, OPResult(error=True, msg=<EC2's message>))
Object refused(Handle client_error, Where where = Where::here());

// {"Name": name, "Values": [value]}
Object filter(Name name, Handle value, Where where = Where::here());

} // namespace aws
} // namespace cloud_node
