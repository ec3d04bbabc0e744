// The class AWSNodeManager: its rows in the order of a class body.
#include "../../registry/provider_rows.h"
#include "aws.h"
#include "docs.h"

namespace cloud_node {

namespace aws {
namespace {

constexpr Method methods[] = {
    method<init>("__init__"_s, "self, region: CloudRegion, auth: AWSCloudAuth, username: str", docs::init),
    static_method(method<_create_session>("_create_session"_s, "auth -> 'Session'")),
    method<_get_client>("_get_client"_s, "self -> 'BaseClient'"),
    provider_rows::launch_node<launch_node>(docs::launch_node),
    provider_rows::list_instances<list_instances>(docs::list_instances),
    provider_rows::start_node<start_node>(docs::start_node),
    provider_rows::stop_node<stop_node>(docs::stop_node),
    provider_rows::terminate_node<terminate_node>(docs::terminate_node),
    provider_rows::list_instance_templates<list_instance_templates>(docs::list_instance_templates),
    provider_rows::list_instance_types<list_instance_types>(docs::list_instance_types),
    method<_check_and_get_security_group_id>("_check_and_get_security_group_id"_s, "self"),
    method<_get_default_vpc_id>("_get_default_vpc_id"_s, "self"),
    method<_get_security_group_id>("_get_security_group_id"_s, "self, name"),
    method<_create_security_group>("_create_security_group"_s, "self, name"),
    method<_list_inbound_security_group_rules>("_list_inbound_security_group_rules"_s, "self, security_group_id"),
    method<_add_inbound_security_group_rules>("_add_inbound_security_group_rules"_s, "self, security_group_id, rules"),
    method<_add_not_existing_inbound_rules>("_add_not_existing_inbound_rules"_s, "self, security_group_id"),
    provider_rows::create_key_pair<create_key_pair>(docs::create_key_pair),
    provider_rows::delete_key_pair<delete_key_pair>(docs::delete_key_pair),
};

} // namespace
} // namespace aws

void build_aws_node_manager()
{
    Object built = build_class({"AWSNodeManager", aws::docs::aws_node_manager, aws::methods},
                               {global("NodeManager"_s), global("CloudKeyPairManager"_s)},
                               {{"tovarin_security_group_name"_s, "tovarin-security-group"_s}});
    aws::keep_class(built);
}

} // namespace cloud_node
