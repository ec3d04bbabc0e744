// NodeManager, the per-region node list with its lock, and CloudKeyPairManager, the key-pair interface.
#pragma once

#include "../contracts/contracts.h"

namespace cloud_node {

void build_node_manager();
void build_cloud_key_pair_manager();

// registry/node_list.cpp
Object node_manager_init(Handle self, Handle region);
Object get_node_list(Handle self);
Object set_node_list(Handle self, Handle node_list);
Object set_node(Handle self, Handle node);
Object find_node_by_instance_id(Handle self, Handle instance_id);
Object find_node_by_uuid(Handle self, Handle uuid);
Object get_ready_node_next_in_line(Handle self);
Object change_node_state(Handle self, Handle instance_id, Handle node_state, Handle ready);

// registry/refresh.cpp
Object refresh_node(Handle self, Handle node);
Object refresh_node_list(Handle self);

} // namespace cloud_node
