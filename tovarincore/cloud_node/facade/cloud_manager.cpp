// The class CloudManager: its rows in the order of a class body.
#include "docs.h"
#include "facade.h"

namespace cloud_node {

namespace facade {
namespace {

constexpr Method methods[] = {
    method<init>("__init__"_s, "self", docs::init),
    method<get_node_manager>("get_node_manager"_s, "self, region", docs::get_node_manager),
    method<_get_node_manager>("_get_node_manager"_s, "self, region, auth=None, username=None"),
    method<_get_cached_node_manager>("_get_cached_node_manager"_s, "self, region"),
    method<_cache_node_manager>("_cache_node_manager"_s, "self, region, node_manager"),
    method<add_to_webs_client_pool>("add_to_webs_client_pool"_s, "self, webs_client", docs::add_to_webs_client_pool),
    method<get_from_webs_client_pool>("get_from_webs_client_pool"_s, "self, node_uuid",
                                      docs::get_from_webs_client_pool),
    method<flush_webs_client_pool>("flush_webs_client_pool"_s, "self, node_uuid, flush_all=False",
                                   docs::flush_webs_client_pool),
    method<get_node_list>("get_node_list"_s, "self, region", docs::get_node_list),
    method<set_node>("set_node"_s, "self, node", docs::set_node),
    method<get_ready_node_next_in_line>("get_ready_node_next_in_line"_s, "self, region",
                                        docs::get_ready_node_next_in_line),
    method<find_node_by_instance_id>("find_node_by_instance_id"_s, "self, region, instance_id",
                                     docs::find_node_by_instance_id),
    method<find_node_by_uuid>("find_node_by_uuid"_s, "self, region, uuid", docs::find_node_by_uuid),
    method<refresh_node>("refresh_node"_s, "self, node", docs::refresh_node),
    method<refresh_node_list>("refresh_node_list"_s, "self, region, auth=None, username=None", docs::refresh_node_list),
    method<launch_node>("launch_node"_s,
                        "self, region, auth, instance_type_def, instance_config, username=None, "
                        "wait_until_cloud_provider_ready=False, additional_params=None, startup_script=None",
                        docs::launch_node),
    method<try_launching_node>("try_launching_node"_s,
                               "self, region, auth, instance_type_def, instance_config, "
                               "wait_until_cloud_provider_ready=False",
                               docs::try_launching_node),
    method<list_instances>("list_instances"_s, "self, region, auth=None, username=None", docs::list_instances),
    method<start_node>("start_node"_s,
                       "self, region, auth, instance_id, wait_until_cloud_provider_ready=False, reboot=False",
                       docs::start_node),
    method<stop_node>("stop_node"_s, "self, region, auth, instance_id", docs::stop_node),
    method<terminate_node>("terminate_node"_s, "self, region, auth, instance_id, stop_reason=None",
                           docs::terminate_node),
    method<create_key_pair>("create_key_pair"_s, "self, region, auth, key_pair_name, username", docs::create_key_pair),
    method<delete_key_pair>("delete_key_pair"_s, "self, region, auth, key_pair_name", docs::delete_key_pair),
    method<list_current_instance_templates>("list_current_instance_templates"_s,
                                            "self, region, auth=None, is_public=True",
                                            docs::list_current_instance_templates),
    method<list_instance_types>("list_instance_types"_s, "self, region", docs::list_instance_types),
    method<get_default_instance_template>("get_default_instance_template"_s, "self, region, auth, plan",
                                          docs::get_default_instance_template),
    static_method(
        method<extract_instance_template>("__extract_instance_template"_s, "instance_templates, pay_type, is_gpu")),
};

} // namespace
} // namespace facade

void build_cloud_manager() { build_class({"CloudManager", facade::docs::cloud_manager, facade::methods}, {}); }

} // namespace cloud_node
