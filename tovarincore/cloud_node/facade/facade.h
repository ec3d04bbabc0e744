// CloudManager: picks and caches one provider per region, routes every node operation to it, selects instance templates
// and keeps the web-socket client pool. One file a subject; cloud_manager.cpp holds the class.
//
// The functions that carry a Python name are the methods of the class, and docs.h says what the public ones do. They
// find their provider through self._get_node_manager and call one another through `self`, so that subclasses and
// patches take effect. Errors of a provider pass through unchanged; nothing is caught and nothing logged here.
#pragma once

#include "../contracts/contracts.h"

namespace cloud_node {

// Builds the class and binds it in the module. After the providers, which it looks up by name.
void build_cloud_manager();

namespace facade {

// selection.cpp
Object init(Handle self);
Object get_node_manager(Handle self, Handle region);

// The region's provider: the cached one, whatever `auth` and `username` are, else a new one, which is cached then.
// NotImplementedError for an unknown kind of region, AssertionError for an Amazon region without credentials. The
// provider is made without a lock: two threads may each make one, and the last to store it wins.
Object _get_node_manager(Handle self, Handle region, Handle auth, Handle username);

// The cached provider under region.hash_key, or None; None for a region that is None, without taking the lock.
// TimeoutError after 3 seconds of waiting for the lock.
Object _get_cached_node_manager(Handle self, Handle region);

// Stores a provider under region.hash_key, over any other. TimeoutError as above. None.
Object _cache_node_manager(Handle self, Handle region, Handle node_manager);

// routing.cpp
Object get_node_list(Handle self, Handle region);
Object set_node(Handle self, Handle node);
Object get_ready_node_next_in_line(Handle self, Handle region);
Object find_node_by_instance_id(Handle self, Handle region, Handle instance_id);
Object find_node_by_uuid(Handle self, Handle region, Handle uuid);
Object refresh_node(Handle self, Handle node);
Object refresh_node_list(Handle self, Handle region, Handle auth, Handle username);
Object list_instances(Handle self, Handle region, Handle auth, Handle username);

// lifecycle.cpp
Object launch_node(Handle self, Handle region, Handle auth, Handle instance_type_def, Handle instance_config,
                   Handle username, Handle wait_until_cloud_provider_ready, Handle additional_params,
                   Handle startup_script);
Object try_launching_node(Handle self, Handle region, Handle auth, Handle instance_type_def, Handle instance_config,
                          Handle wait_until_cloud_provider_ready);
Object start_node(Handle self, Handle region, Handle auth, Handle instance_id, Handle wait_until_cloud_provider_ready,
                  Handle reboot);
Object stop_node(Handle self, Handle region, Handle auth, Handle instance_id);
Object terminate_node(Handle self, Handle region, Handle auth, Handle instance_id, Handle stop_reason);
Object create_key_pair(Handle self, Handle region, Handle auth, Handle key_pair_name, Handle username);
Object delete_key_pair(Handle self, Handle region, Handle auth, Handle key_pair_name);

// templates.cpp
Object list_current_instance_templates(Handle self, Handle region, Handle auth, Handle is_public);
Object list_instance_types(Handle self, Handle region);
Object get_default_instance_template(Handle self, Handle region, Handle auth, Handle plan);

// __extract_instance_template, a static method: the first template of the wanted kind, and then of the wanted pay type,
// or None. AttributeError for a template that lacks what is asked of it.
Object extract_instance_template(Handle instance_templates, Handle pay_type, Handle is_gpu);

// client_pool.cpp
//
// The pool is the list webs_client_pool; taking and flushing put a new list in its place, so that nobody may keep the
// list itself. Each takes webs_client_pool_lock for the whole of its work, and raises TimeoutError when that cannot be
// acquired within 3 seconds. When a client lacks `node`, `node.uuid` or `worker_id`, the error reaches the caller and
// the pool stays as it was.
Object add_to_webs_client_pool(Handle self, Handle webs_client);
Object get_from_webs_client_pool(Handle self, Handle node_uuid);
Object flush_webs_client_pool(Handle self, Handle node_uuid, Handle flush_all);

} // namespace facade
} // namespace cloud_node
