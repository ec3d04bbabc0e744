// The class AWSNodeManager: its rows in the order of a class body.
#include "aws.h"
#include "docs.h"

namespace cloud_node {

namespace aws {
namespace {

constexpr Method methods[] = {
    method<init>("__init__", {{"self"}, {"region", "CloudRegion"}, {"auth", "AWSCloudAuth"}, {"username", "str"}},
                 nullptr, docs::init),
    static_method(method<create_session>("_create_session", {{"auth"}}, "'Session'")),
    method<get_client>("_get_client", {{"self"}}, "'BaseClient'"),
    method<launch_node>("launch_node",
                        {{"self"},
                         {"instance_type_def", "CloudInstanceTypeDef"},
                         {"instance_config", "CloudInstanceConfig"},
                         {"auth", "Optional[CloudAuth]", Default::none},
                         {"username", "Optional[str]", Default::none},
                         {"dry_run", nullptr, Default::false_},
                         {"wait_until_cloud_provider_ready", nullptr, Default::false_},
                         {"additional_params", "Optional[str]", Default::none},
                         {"startup_script", "Optional[str]", Default::none}},
                        "Tuple[Optional[CloudNode], OPResult]", docs::launch_node),
    method<list_instances>("list_instances", {{"self"}}, "Tuple[Optional[List[CloudNode]], OPResult]",
                           docs::list_instances),
    method<start_node>("start_node",
                       {{"self"},
                        {"instance_id", "str"},
                        {"wait_until_cloud_provider_ready", nullptr, Default::false_},
                        {"reboot", nullptr, Default::false_}},
                       nullptr, docs::start_node),
    method<stop_node>("stop_node", {{"self"}, {"instance_id", "str"}}, nullptr, docs::stop_node),
    method<terminate_node>("terminate_node",
                           {{"self"}, {"instance_id", "str"}, {"stop_reason", "Optional[str]", Default::none}}, nullptr,
                           docs::terminate_node),
    method<list_instance_templates>("list_instance_templates", {{"self"}, {"is_public", "bool", Default::true_}},
                                    "Tuple[List[InstanceTemplate], OPResult]", docs::list_instance_templates),
    method<list_instance_types>("list_instance_types", {{"self"}}, "Tuple[List[CloudInstanceTypeDef], OPResult]",
                                docs::list_instance_types),
    method<check_and_get_security_group_id>("_check_and_get_security_group_id", {{"self"}}),
    method<get_default_vpc_id>("_get_default_vpc_id", {{"self"}}),
    method<get_security_group_id>("_get_security_group_id", {{"self"}, {"name"}}),
    method<create_security_group>("_create_security_group", {{"self"}, {"name"}}),
    method<list_inbound_security_group_rules>("_list_inbound_security_group_rules", {{"self"}, {"security_group_id"}}),
    method<add_inbound_security_group_rules>("_add_inbound_security_group_rules",
                                             {{"self"}, {"security_group_id"}, {"rules"}}),
    method<add_not_existing_inbound_rules>("_add_not_existing_inbound_rules", {{"self"}, {"security_group_id"}}),
    method<create_key_pair>("create_key_pair", {{"self"}, {"key_pair_name", "str"}, {"username", "Optional[str]"}},
                            "Tuple[Optional[str], OPResult]", docs::create_key_pair),
    method<delete_key_pair>("delete_key_pair", {{"self"}, {"key_pair_name", "str"}}, nullptr, docs::delete_key_pair),
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
