// The class NodeManager: its rows in the order of a class body. The seven provider operations are abstract.
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
    method<node_manager_init>("__init__", {{"self"}, {"region", "CloudRegion"}}, "None"),
    method<get_node_list>("get_node_list", {{"self"}}, "List[CloudNode]"),
    method<set_node_list>("set_node_list", {{"self"}, {"node_list", "List[CloudNode]"}}),
    method<set_node>("set_node", {{"self"}, {"node", "CloudNode"}}),
    method<find_node_by_instance_id>("find_node_by_instance_id", {{"self"}, {"instance_id", "str"}}, "Optional[CloudNode]"),
    method<find_node_by_uuid>("find_node_by_uuid", {{"self"}, {"uuid", "str"}}, "Optional[CloudNode]"),
    method<get_ready_node_next_in_line>("get_ready_node_next_in_line", {{"self"}}, "Optional[CloudNode]"),
    method<change_node_state>(
        "change_node_state",
        {{"self"}, {"instance_id", "str"}, {"node_state", "NodeState"}, {"ready", "bool", Default::false_}}),
    method<refresh_node>("refresh_node", {{"self"}, {"node", "CloudNode"}}, "OPResult"),
    method<refresh_node_list>("refresh_node_list", {{"self"}}, "OPResult"),
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
                                 "Tuple[Optional[CloudNode], OPResult]")),
    abstract(method<list_instances>("list_instances", {{"self"}}, "Tuple[Optional[List[CloudNode]], OPResult]")),
    abstract(method<start_node>("start_node",
                                {{"self"},
                                 {"instance_id", "str"},
                                 {"wait_until_cloud_provider_ready", nullptr, Default::false_},
                                 {"reboot", nullptr, Default::false_}})),
    abstract(method<stop_node>("stop_node", {{"self"}, {"instance_id", "str"}})),
    abstract(method<terminate_node>(
        "terminate_node", {{"self"}, {"instance_id", "str"}, {"stop_reason", "Optional[str]", Default::none}})),
    abstract(method<list_instance_templates>("list_instance_templates", {{"self"}, {"is_public", "bool", Default::true_}},
                                             "Tuple[List[InstanceTemplate], OPResult]")),
    abstract(
        method<list_instance_types>("list_instance_types", {{"self"}}, "Tuple[List[CloudInstanceTypeDef], OPResult]")),
};

} // namespace

void build_node_manager() { build_class({"NodeManager", nullptr, methods}, {global("ABC"_s)}); }

} // namespace cloud_node
