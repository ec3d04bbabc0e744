// Bringing the registry up to date: the provider's listing, and a ping to every running worker.
#include "registry.h"

namespace cloud_node {

namespace {

// The handler of both operations, which catch everything: a debug line with the traceback, and an error result.
Object refresh_failed(Handle self, Name msg)
{
    self.get("logger"_s).method("debug"_s)({msg, "exc_info"_k = true_()});
    return global("OPResult"_s)({"error"_k = true_(), "msg"_k = msg, "exc_info"_k = true_()});
}

bool is_running(Handle node) { return node.get("state"_s).equals(global("NodeState"_s).get("RUNNING"_s)); }

// The variables of a refresh, which live until it returns, as in Python: what they name may have finalisers.
struct Locals {
    Object old_node, ping_op_result, webs_client, new_node; // dropped from the last to the first
};

void probe_running_nodes(Handle new_node_list, Locals& locals)
{
    auto& [old_node, ping_op_result, webs_client, new_node] = locals;
    for (Each rest = each(new_node_list); rest.next(new_node);) {
        if (!is_running(new_node))
            continue;
        webs_client = probe_client(new_node);
        ping_op_result = webs_client.method("api_get_op_result"_s)({global("PingRequest"_s)()});
        if (ping_op_result.get("success"_s).truthy()) {
            new_node.set("ready"_s, true_());
            webs_client.method("refresh_system_stat"_s)();
        }
    }
}

// Only the registry knows which workers run on a node: their list moves on to the fresh record.
void carry_worker_ids_over(Handle prev_node_list, Handle new_node_list, Locals& locals)
{
    auto& [old_node, ping_op_result, webs_client, new_node] = locals;
    for (Each rest = each(prev_node_list); rest.next(old_node);) {
        if (len(old_node.get("worker_id_list"_s)) < 1)
            continue;
        for (Each fresh = each(new_node_list); fresh.next(new_node);)
            if (new_node.get("instance_id"_s).equals(old_node.get("instance_id"_s)))
                new_node.set("worker_id_list"_s, old_node.get("worker_id_list"_s).method("copy"_s)());
    }
}

} // namespace

Object refresh_node(Handle self, Handle node)
{
    try {
        Object updated_node = deep_copy(node);
        Object webs_client = probe_client(updated_node);
        Object request = global("PingRequest"_s)();
        Object ping_op_result = webs_client.method("api_get_op_result"_s)({request});
        if (ping_op_result.get("success"_s).truthy()) {
            // Deliberate: the caller's record learns that the worker is ready, the stored copy keeps its own value
            // (test_refresh.py holds it).
            node.set("ready"_s, true_());
            webs_client.method("refresh_system_stat"_s)();
        }
        self.method("set_node"_s)({updated_node});
        return success();
    } catch (const Raised& raised) {
        ExceptBlock block(raised);
        return refresh_failed(self, "Error occurred while refreshing Cloud Worker"_s);
    }
}

Object refresh_node_list(Handle self)
{
    Locals locals;
    try {
        Object prev_node_list = self.method("get_node_list"_s)();
        auto [new_node_list, op_result] = unpack<2>(self.method("list_instances"_s)());
        if (new_node_list.is_none())
            return op_result;
        probe_running_nodes(new_node_list, locals);
        carry_worker_ids_over(prev_node_list, new_node_list, locals);
        self.method("set_node_list"_s)({new_node_list});
        return op_result;
    } catch (const Raised& raised) {
        ExceptBlock block(raised);
        return refresh_failed(self, "Error occurred while refreshing Cloud Worker list"_s);
    }
}

} // namespace cloud_node
