// Registry operations: each is handed to the region's provider, and its result comes back unchanged.
#include "facade.h"

namespace cloud_node::facade {

Object get_node_list(Handle self, Handle region)
{
    Object node_manager = self.method("_get_node_manager"_s)({region});
    return node_manager.method("get_node_list"_s)();
}

Object set_node(Handle self, Handle node)
{
    Object node_manager = self.method("_get_node_manager"_s)({node.get("region"_s)});
    return node_manager.method("set_node"_s)({node});
}

Object get_ready_node_next_in_line(Handle self, Handle region)
{
    Object node_manager = self.method("_get_node_manager"_s)({region});
    return node_manager.method("get_ready_node_next_in_line"_s)();
}

Object find_node_by_instance_id(Handle self, Handle region, Handle instance_id)
{
    Object node_manager = self.method("_get_node_manager"_s)({region});
    return node_manager.method("find_node_by_instance_id"_s)({instance_id});
}

Object find_node_by_uuid(Handle self, Handle region, Handle uuid)
{
    Object node_manager = self.method("_get_node_manager"_s)({region});
    return node_manager.method("find_node_by_uuid"_s)({uuid});
}

Object refresh_node(Handle self, Handle node)
{
    Object node_manager = self.method("_get_node_manager"_s)({node.get("region"_s)});
    return node_manager.method("refresh_node"_s)({node});
}

Object refresh_node_list(Handle self, Handle region, Handle auth, Handle username)
{
    Object node_manager = self.method("_get_node_manager"_s)({region, auth, username});
    return node_manager.method("refresh_node_list"_s)();
}

Object list_instances(Handle self, Handle region, Handle auth, Handle username)
{
    Object node_manager = self.method("_get_node_manager"_s)({region, "auth"_k = auth, "username"_k = username});
    return node_manager.method("list_instances"_s)();
}

} // namespace cloud_node::facade
