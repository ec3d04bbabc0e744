// The class CloudManager: its rows in the order of a class body.
#include "docs.h"
#include "facade.h"

namespace cloud_node {

namespace facade {
namespace {

constexpr Parameter or_none(const char* name) { return {name, nullptr, Default::none}; }
constexpr Parameter or_false(const char* name) { return {name, nullptr, Default::false_}; }

constexpr Method methods[] = {
    method<init>("__init__"_s, {{"self"}}, nullptr, docs::init),
    method<get_node_manager>("get_node_manager"_s, {{"self"}, {"region"}}, nullptr, docs::get_node_manager),
    method<_get_node_manager>("_get_node_manager"_s, {{"self"}, {"region"}, or_none("auth"), or_none("username")}),
    method<_get_cached_node_manager>("_get_cached_node_manager"_s, {{"self"}, {"region"}}),
    method<_cache_node_manager>("_cache_node_manager"_s, {{"self"}, {"region"}, {"node_manager"}}),
    method<add_to_webs_client_pool>("add_to_webs_client_pool"_s, {{"self"}, {"webs_client"}}, nullptr,
                                    docs::add_to_webs_client_pool),
    method<get_from_webs_client_pool>("get_from_webs_client_pool"_s, {{"self"}, {"node_uuid"}}, nullptr,
                                      docs::get_from_webs_client_pool),
    method<flush_webs_client_pool>("flush_webs_client_pool"_s, {{"self"}, {"node_uuid"}, or_false("flush_all")},
                                   nullptr, docs::flush_webs_client_pool),
    method<get_node_list>("get_node_list"_s, {{"self"}, {"region"}}, nullptr, docs::get_node_list),
    method<set_node>("set_node"_s, {{"self"}, {"node"}}, nullptr, docs::set_node),
    method<get_ready_node_next_in_line>("get_ready_node_next_in_line"_s, {{"self"}, {"region"}}, nullptr,
                                        docs::get_ready_node_next_in_line),
    method<find_node_by_instance_id>("find_node_by_instance_id"_s, {{"self"}, {"region"}, {"instance_id"}}, nullptr,
                                     docs::find_node_by_instance_id),
    method<find_node_by_uuid>("find_node_by_uuid"_s, {{"self"}, {"region"}, {"uuid"}}, nullptr,
                              docs::find_node_by_uuid),
    method<refresh_node>("refresh_node"_s, {{"self"}, {"node"}}, nullptr, docs::refresh_node),
    method<refresh_node_list>("refresh_node_list"_s, {{"self"}, {"region"}, or_none("auth"), or_none("username")},
                              nullptr, docs::refresh_node_list),
    method<launch_node>("launch_node"_s,
                        {{"self"},
                         {"region"},
                         {"auth"},
                         {"instance_type_def"},
                         {"instance_config"},
                         or_none("username"),
                         or_false("wait_until_cloud_provider_ready"),
                         or_none("additional_params"),
                         or_none("startup_script")},
                        nullptr, docs::launch_node),
    method<try_launching_node>("try_launching_node"_s,
                               {{"self"},
                                {"region"},
                                {"auth"},
                                {"instance_type_def"},
                                {"instance_config"},
                                or_false("wait_until_cloud_provider_ready")},
                               nullptr, docs::try_launching_node),
    method<list_instances>("list_instances"_s, {{"self"}, {"region"}, or_none("auth"), or_none("username")}, nullptr,
                           docs::list_instances),
    method<start_node>("start_node"_s,
                       {{"self"},
                        {"region"},
                        {"auth"},
                        {"instance_id"},
                        or_false("wait_until_cloud_provider_ready"),
                        or_false("reboot")},
                       nullptr, docs::start_node),
    method<stop_node>("stop_node"_s, {{"self"}, {"region"}, {"auth"}, {"instance_id"}}, nullptr, docs::stop_node),
    method<terminate_node>("terminate_node"_s,
                           {{"self"}, {"region"}, {"auth"}, {"instance_id"}, or_none("stop_reason")}, nullptr,
                           docs::terminate_node),
    method<create_key_pair>("create_key_pair"_s, {{"self"}, {"region"}, {"auth"}, {"key_pair_name"}, {"username"}},
                            nullptr, docs::create_key_pair),
    method<delete_key_pair>("delete_key_pair"_s, {{"self"}, {"region"}, {"auth"}, {"key_pair_name"}}, nullptr,
                            docs::delete_key_pair),
    method<list_current_instance_templates>(
        "list_current_instance_templates"_s,
        {{"self"}, {"region"}, or_none("auth"), {"is_public", nullptr, Default::true_}}, nullptr,
        docs::list_current_instance_templates),
    method<list_instance_types>("list_instance_types"_s, {{"self"}, {"region"}}, nullptr, docs::list_instance_types),
    method<get_default_instance_template>("get_default_instance_template"_s, {{"self"}, {"region"}, {"auth"}, {"plan"}},
                                          nullptr, docs::get_default_instance_template),
    static_method(method<extract_instance_template>("__extract_instance_template"_s,
                                                    {{"instance_templates"}, {"pay_type"}, {"is_gpu"}})),
};

} // namespace
} // namespace facade

void build_cloud_manager() { build_class({"CloudManager", facade::docs::cloud_manager, facade::methods}, {}); }

} // namespace cloud_node
