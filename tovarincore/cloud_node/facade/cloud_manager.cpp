// The class CloudManager: its rows in the order of a class body.
#include "facade.h"

namespace cloud_node {

namespace facade {
namespace {

constexpr const char* flush_doc = "\n"
                                  "        :param node_uuid: Node to flush workers\n"
                                  "        :param flush_all: If no node provided and need to flush all nodes\n"
                                  "        :return: IF a node is provided; worker_id's of flushed workers (so you can kill them)\n"
                                  "        ";

constexpr Parameter or_none(const char* name) { return {name, nullptr, Default::none}; }
constexpr Parameter or_false(const char* name) { return {name, nullptr, Default::false_}; }

constexpr Method methods[] = {
    method<init>("__init__", {{"self"}}),
    method<get_node_manager>("get_node_manager", {{"self"}, {"region"}}),
    method<provider_of>("_get_node_manager", {{"self"}, {"region"}, or_none("auth"), or_none("username")}),
    method<get_cached_node_manager>("_get_cached_node_manager", {{"self"}, {"region"}}),
    method<cache_node_manager>("_cache_node_manager", {{"self"}, {"region"}, {"node_manager"}}),
    method<add_to_webs_client_pool>("add_to_webs_client_pool", {{"self"}, {"webs_client"}}),
    method<get_from_webs_client_pool>("get_from_webs_client_pool", {{"self"}, {"node_uuid"}}),
    method<flush_webs_client_pool>("flush_webs_client_pool", {{"self"}, {"node_uuid"}, or_false("flush_all")}, nullptr,
                                   flush_doc),
    method<get_node_list>("get_node_list", {{"self"}, {"region"}}),
    method<set_node>("set_node", {{"self"}, {"node"}}),
    method<get_ready_node_next_in_line>("get_ready_node_next_in_line", {{"self"}, {"region"}}),
    method<find_node_by_instance_id>("find_node_by_instance_id", {{"self"}, {"region"}, {"instance_id"}}),
    method<find_node_by_uuid>("find_node_by_uuid", {{"self"}, {"region"}, {"uuid"}}),
    method<refresh_node>("refresh_node", {{"self"}, {"node"}}),
    method<refresh_node_list>("refresh_node_list", {{"self"}, {"region"}, or_none("auth"), or_none("username")}),
    method<launch_node>("launch_node", {{"self"},
                                        {"region"},
                                        {"auth"},
                                        {"instance_type_def"},
                                        {"instance_config"},
                                        or_none("username"),
                                        or_false("wait_until_cloud_provider_ready"),
                                        or_none("additional_params"),
                                        or_none("startup_script")}),
    method<try_launching_node>("try_launching_node", {{"self"},
                                                      {"region"},
                                                      {"auth"},
                                                      {"instance_type_def"},
                                                      {"instance_config"},
                                                      or_false("wait_until_cloud_provider_ready")}),
    method<list_instances>("list_instances", {{"self"}, {"region"}, or_none("auth"), or_none("username")}),
    method<start_node>("start_node", {{"self"},
                                      {"region"},
                                      {"auth"},
                                      {"instance_id"},
                                      or_false("wait_until_cloud_provider_ready"),
                                      or_false("reboot")}),
    method<stop_node>("stop_node", {{"self"}, {"region"}, {"auth"}, {"instance_id"}}),
    method<terminate_node>("terminate_node", {{"self"}, {"region"}, {"auth"}, {"instance_id"}, or_none("stop_reason")}),
    method<create_key_pair>("create_key_pair", {{"self"}, {"region"}, {"auth"}, {"key_pair_name"}, {"username"}}),
    method<delete_key_pair>("delete_key_pair", {{"self"}, {"region"}, {"auth"}, {"key_pair_name"}}),
    method<list_current_instance_templates>(
        "list_current_instance_templates",
        {{"self"}, {"region"}, or_none("auth"), {"is_public", nullptr, Default::true_}}),
    method<list_instance_types>("list_instance_types", {{"self"}, {"region"}}),
    method<get_default_instance_template>("get_default_instance_template", {{"self"}, {"region"}, {"auth"}, {"plan"}}),
    static_method(method<extract_instance_template>("__extract_instance_template",
                                                    {{"instance_templates"}, {"pay_type"}, {"is_gpu"}})),
};

} // namespace
} // namespace facade

void build_cloud_manager() { build_class({"CloudManager", nullptr, facade::methods}, {}); }

} // namespace cloud_node
