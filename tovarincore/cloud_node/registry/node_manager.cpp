// The class NodeManager: its rows in the order of a class body. The seven provider operations are abstract.
#include "provider_rows.h"
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
    method<node_manager_init>("__init__"_s, "self, region: CloudRegion -> None", docs::node_manager_init),
    method<get_node_list>("get_node_list"_s, "self -> List[CloudNode]", docs::get_node_list),
    method<set_node_list>("set_node_list"_s, "self, node_list: List[CloudNode]", docs::set_node_list),
    method<set_node>("set_node"_s, "self, node: CloudNode", docs::set_node),
    method<find_node_by_instance_id>("find_node_by_instance_id"_s, "self, instance_id: str -> Optional[CloudNode]",
                                     docs::find_node_by_instance_id),
    method<find_node_by_uuid>("find_node_by_uuid"_s, "self, uuid: str -> Optional[CloudNode]", docs::find_node_by_uuid),
    method<get_ready_node_next_in_line>("get_ready_node_next_in_line"_s, "self -> Optional[CloudNode]",
                                        docs::get_ready_node_next_in_line),
    method<change_node_state>("change_node_state"_s,
                              "self, instance_id: str, node_state: NodeState, ready: bool = False",
                              docs::change_node_state),
    method<refresh_node>("refresh_node"_s, "self, node: CloudNode -> OPResult", docs::refresh_node),
    method<refresh_node_list>("refresh_node_list"_s, "self -> OPResult", docs::refresh_node_list),
    abstract(provider_rows::launch_node<launch_node>()),
    abstract(provider_rows::list_instances<list_instances>()),
    abstract(provider_rows::start_node<start_node>()),
    abstract(provider_rows::stop_node<stop_node>()),
    abstract(provider_rows::terminate_node<terminate_node>()),
    abstract(provider_rows::list_instance_templates<list_instance_templates>()),
    abstract(provider_rows::list_instance_types<list_instance_types>()),
};

} // namespace

void build_node_manager() { build_class({"NodeManager", docs::node_manager, methods}, {global("ABC"_s)}); }

} // namespace cloud_node
