// The registry of one region: records cross it only as deep copies, in both directions, under one lock.
// The loops pass over records that certainly are not the one: see `having` in python/iteration.h. Their variables stand
// before the lock is taken and so outlive its release, as in Python: a finaliser may take the lock.
#include "registry.h"

namespace cloud_node {

namespace {

// self.__node_list, read again at each mention, as Python does
Object nodes_of(Handle self) { return self.get("_NodeManager__node_list"_s); }

// A deep copy of the first node whose attribute equals the value, else None.
Object find_node(Handle self, Name attribute, Handle value)
{
    Object node;
    return holding(self.get("_NodeManager__node_list_lock"_s), [&] {
        Object nodes = nodes_of(self);
        for (Each rest = each(nodes, having(attribute, value)); rest.next(node);)
            if (node.get(attribute).equals(value))
                return deep_copy(node);
        return none();
    });
}

} // namespace

Object node_manager_init(Handle self, Handle region)
{
    self.set("core_conf"_s, global("core_conf_glbl"_s));
    self.set("logger"_s, global("log_manager_glbl"_s).method("get_logger"_s)());
    self.set("region"_s, region);
    self.set("_NodeManager__node_list"_s, list({}));
    self.set("_NodeManager__node_list_lock"_s, global("threading"_s).method("Lock"_s)());
    return none();
}

Object get_node_list(Handle self)
{
    return holding(self.get("_NodeManager__node_list_lock"_s), [&] { return deep_copy(nodes_of(self)); });
}

Object set_node_list(Handle self, Handle node_list)
{
    return holding(self.get("_NodeManager__node_list_lock"_s), [&] {
        Object copied = deep_copy(node_list);
        collect_before_dropping();
        self.set("_NodeManager__node_list"_s, copied);
        return none();
    });
}

Object set_node(Handle self, Handle node_given)
{
    Object node;
    return holding(self.get("_NodeManager__node_list_lock"_s), [&] {
        node = deep_copy(node_given);
        collect_before_dropping();
        Py_ssize_t count = len(nodes_of(self));
        BetweenTurns between_turns;
        for (Py_ssize_t i = first_like(self, "_NodeManager__node_list"_s, "instance_id"_s, node); i < count; ++i) {
            if (nodes_of(self).item(i).get("instance_id"_s).equals(node.get("instance_id"_s))) {
                checkpoint(); // before the finaliser of the record that is replaced
                nodes_of(self).set_item(i, node);
                return none();
            }
            between_turns();
        }
        between_turns.end();
        nodes_of(self).method("append"_s)({node});
        return none();
    });
}

Object find_node_by_instance_id(Handle self, Handle instance_id)
{
    return find_node(self, "instance_id"_s, instance_id);
}

Object find_node_by_uuid(Handle self, Handle uuid) { return find_node(self, "uuid"_s, uuid); }

Object get_ready_node_next_in_line(Handle self)
{
    Object node;
    return holding(self.get("_NodeManager__node_list_lock"_s), [&] {
        Object nodes = nodes_of(self);
        for (Each rest = each(nodes, having("ready"_s)); rest.next(node);)
            if (node.get("ready"_s).truthy())
                return deep_copy(node);
        return none();
    });
}

Object change_node_state(Handle self, Handle instance_id, Handle node_state, Handle ready)
{
    Object node;
    return holding(self.get("_NodeManager__node_list_lock"_s), [&] {
        Object nodes = nodes_of(self);
        for (Each rest = each(nodes, having("instance_id"_s, instance_id)); rest.next(node);)
            if (node.get("instance_id"_s).equals(instance_id)) {
                node.set("state"_s, node_state);
                node.set("ready"_s, ready);
                break;
            }
        return none();
    });
}

} // namespace cloud_node
