// The class NodeManager: its rows in the order of a class body. The seven provider operations are abstract.
#include "docs.h"
#include "registry.h"

namespace cloud_node {

namespace {

Object launch_node(Handle, Handle, Handle, Handle, Handle, Handle, Handle, Handle, Handle) { return none(); }
Object list_instances(Handle) { return none(); }
Object start_node(Handle, Handle, Handle, Handle) { return none(); }
Object stop_node(Handle, Handle) { return none(); }
Object terminate_node(Handle, Handle, Handle) { return none(); }
Object list_instance_templates(Handle, Handle) { return none(); }
Object list_instance_types(Handle) { return none(); }

constexpr Method methods[] = {
    method<node_manager_init>("__init__", {{"self"}, {"region", "CloudRegion"}}, "None", docs::node_manager_init),
    method<get_node_list>("get_node_list", {{"self"}}, "List[CloudNode]", docs::get_node_list),
    method<set_node_list>("set_node_list", {{"self"}, {"node_list", "List[CloudNode]"}}, nullptr, docs::set_node_list),
    method<set_node>("set_node", {{"self"}, {"node", "CloudNode"}}, nullptr, docs::set_node),
    method<find_node_by_instance_id>("find_node_by_instance_id", {{"self"}, {"instance_id", "str"}},
                                     "Optional[CloudNode]", docs::find_node_by_instance_id),
    method<find_node_by_uuid>("find_node_by_uuid", {{"self"}, {"uuid", "str"}}, "Optional[CloudNode]",
                              docs::find_node_by_uuid),
    method<get_ready_node_next_in_line>("get_ready_node_next_in_line", {{"self"}}, "Optional[CloudNode]",
                                        docs::get_ready_node_next_in_line),
    method<change_node_state>(
        "change_node_state",
        {{"self"}, {"instance_id", "str"}, {"node_state", "NodeState"}, {"ready", "bool", Default::false_}}, nullptr,
        docs::change_node_state),
    method<refresh_node>("refresh_node", {{"self"}, {"node", "CloudNode"}}, "OPResult", docs::refresh_node),
    method<refresh_node_list>("refresh_node_list", {{"self"}}, "OPResult", docs::refresh_node_list),
    abstract(method<launch_node>("launch_node",
                                 {{"self"},
                                  {"instance_type_def", "CloudInstanceTypeDef"},
                                  {"instance_config", "CloudInstanceConfig"},
                                  {"auth", "Optional[CloudAuth]", Default::none},
                                  {"username", "Optional[str]", Default::none},
                                  {"dry_run", nullptr, Default::false_},
                                  {"wait_until_cloud_provider_ready", nullptr, Default::false_},
                                  {"additional_params", "Optional[str]", Default::none},
                                  {"startup_script", "Optional[str]", Default::none}},
                                 "Tuple[Optional[CloudNode], OPResult]", docs::launch_node)),
    abstract(method<list_instances>("list_instances", {{"self"}}, "Tuple[Optional[List[CloudNode]], OPResult]",
                                    docs::list_instances)),
    abstract(method<start_node>("start_node",
                                {{"self"},
                                 {"instance_id", "str"},
                                 {"wait_until_cloud_provider_ready", nullptr, Default::false_},
                                 {"reboot", nullptr, Default::false_}},
                                nullptr, docs::start_node)),
    abstract(method<stop_node>("stop_node", {{"self"}, {"instance_id", "str"}}, nullptr, docs::stop_node)),
    abstract(method<terminate_node>("terminate_node",
                                    {{"self"}, {"instance_id", "str"}, {"stop_reason", "Optional[str]", Default::none}},
                                    nullptr, docs::terminate_node)),
    abstract(method<list_instance_templates>("list_instance_templates",
                                             {{"self"}, {"is_public", "bool", Default::true_}},
                                             "Tuple[List[InstanceTemplate], OPResult]", docs::list_instance_templates)),
    abstract(method<list_instance_types>("list_instance_types", {{"self"}},
                                         "Tuple[List[CloudInstanceTypeDef], OPResult]", docs::list_instance_types)),
};

} // namespace

void build_node_manager() { build_class({"NodeManager", docs::node_manager, methods}, {global("ABC"_s)}); }

} // namespace cloud_node
