// CloudManager: picks and caches one provider per region, routes every node operation to it, selects instance templates
// and keeps the web-socket client pool. One file a subject; cloud_manager.cpp holds the class.
#pragma once

#include "../contracts/contracts.h"

namespace cloud_node {

void build_cloud_manager();

namespace facade {

// selection.cpp
Object init(Handle self);
Object get_node_manager(Handle self, Handle region);
Object provider_of(Handle self, Handle region, Handle auth, Handle username); // _get_node_manager
Object get_cached_node_manager(Handle self, Handle region);
Object cache_node_manager(Handle self, Handle region, Handle node_manager);

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
Object extract_instance_template(Handle instance_templates, Handle pay_type, Handle is_gpu);

// client_pool.cpp
Object add_to_webs_client_pool(Handle self, Handle webs_client);
Object get_from_webs_client_pool(Handle self, Handle node_uuid);
Object flush_webs_client_pool(Handle self, Handle node_uuid, Handle flush_all);

} // namespace facade
} // namespace cloud_node
