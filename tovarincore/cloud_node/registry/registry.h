// NodeManager, the node list of one region under its lock, and CloudKeyPairManager, the key-pair interface.
//
// The functions that carry a Python name are the methods of NodeManager; docs.h says what each does, and
// provider_rows.h has the rows of the operations that every provider implements.
#pragma once

#include "../contracts/contracts.h"

namespace cloud_node {

// Each builds its class and binds it in the module. They are called once, in the order in which a Python module would
// have the classes: NodeManager before the providers, which take it as a base from the module.
void build_node_manager();
void build_cloud_key_pair_manager();

// registry/node_list.cpp
//
// The list is the attribute _NodeManager__node_list, its lock _NodeManager__node_list_lock: programs and tests reach
// both by these names, may replace them, and read them. Each function takes the lock for the whole of its work, raises
// a bare TimeoutError when it cannot be acquired within 3 seconds, and releases it on every path; none calls another
// one while it holds the lock. What goes into the list and what comes out of it is a deep copy, except that
// change_node_state writes into the stored record itself. An error of a copy, of a comparison or of an attribute
// reaches the caller, after the release.
Object node_manager_init(Handle self, Handle region);
Object get_node_list(Handle self);
Object set_node_list(Handle self, Handle node_list);
Object set_node(Handle self, Handle node);
Object find_node_by_instance_id(Handle self, Handle instance_id);
Object find_node_by_uuid(Handle self, Handle uuid);
Object get_ready_node_next_in_line(Handle self);
Object change_node_state(Handle self, Handle instance_id, Handle node_state, Handle ready);

// registry/refresh.cpp
//
// They hold no lock: the workers are pinged without one, and what another thread stores meanwhile is lost
// to the list that a refresh writes at its end. Both catch every error, also KeyboardInterrupt, log it at debug level
// and give an error OPResult.
Object refresh_node(Handle self, Handle node);
Object refresh_node_list(Handle self);

} // namespace cloud_node
