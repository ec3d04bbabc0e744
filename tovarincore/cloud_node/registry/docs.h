// The docstrings of the node registry and of the provider operations, which the providers repeat or sharpen.
#pragma once

namespace cloud_node::docs {

inline constexpr const char* node_manager =
    "The nodes of one region: a list under a lock, and the operations that every provider implements.\n\n"
    "Records cross the registry only as deep copies, in both directions. Any thread may call any method. A registry\n"
    "operation waits at most 3 seconds for the lock and then raises a bare TimeoutError.";
inline constexpr const char* node_manager_init = "Sets the region's registry up, empty.\n\n"
                                                 ":param region: the region served; kept as given, not copied";
inline constexpr const char* get_node_list = "Gives a deep copy of all nodes, in registry order.\n\n"
                                             ":raises TimeoutError: the lock was not had within 3 seconds";
inline constexpr const char* set_node_list = "Replaces the registry by a deep copy of the given list.\n\n"
                                             ":param node_list: the new nodes, in order\n"
                                             ":raises TimeoutError: the lock was not had within 3 seconds";
inline constexpr const char* set_node =
    "Stores a deep copy of a node: in the place of the first with its instance_id, else at the end.\n\n"
    ":param node: the node to store\n"
    ":raises TimeoutError: the lock was not had within 3 seconds";
inline constexpr const char* find_node_by_instance_id = "Finds a node by the provider's id.\n\n"
                                                        ":param instance_id: compared with ==\n"
                                                        ":return: a deep copy of the first match, or None\n"
                                                        ":raises TimeoutError: the lock was not had within 3 seconds";
inline constexpr const char* find_node_by_uuid = "Finds a node by its uuid.\n\n"
                                                 ":param uuid: compared with ==\n"
                                                 ":return: a deep copy of the first match, or None\n"
                                                 ":raises TimeoutError: the lock was not had within 3 seconds";
inline constexpr const char* get_ready_node_next_in_line =
    "Gives the first node, in registry order, whose worker answered its last ping.\n\n"
    "Nothing is marked as taken: the next call gives the same node while the list stays as it is.\n\n"
    ":return: a deep copy, or None\n"
    ":raises TimeoutError: the lock was not had within 3 seconds";
inline constexpr const char* change_node_state =
    "Writes a state, and a readiness, into the first stored node with the given id; no match is no error.\n\n"
    ":param instance_id: compared with ==\n"
    ":param node_state: the new state\n"
    ":param ready: the new readiness; left out, the node counts as not ready\n"
    ":raises TimeoutError: the lock was not had within 3 seconds";
inline constexpr const char* refresh_node =
    "Pings a node's worker (2 seconds at most) and stores a copy of the node.\n\n"
    "A worker that answers makes the given record ready, and its system statistics go into the stored copy.\n\n"
    ":param node: the node to probe\n"
    ":return: OPResult(success=True), also when the worker does not answer; an error OPResult with a traceback when\n"
    "    anything failed. Nothing is raised.";
inline constexpr const char* refresh_node_list =
    "Replaces the registry by the provider's listing, after pinging every running node (2 seconds each at most).\n\n"
    "Each node keeps the worker_id_list that the registry had for it. A failed listing leaves the registry as it "
    "was.\n\n"
    ":return: the OPResult of the listing, or an error OPResult with a traceback. Nothing is raised.";
inline constexpr const char* launch_node =
    "Starts one node.\n\n"
    ":param instance_type_def: the machine size\n"
    ":param instance_config: template, disk (GiB), name, uuid, key pair and launch settings\n"
    ":param auth: the caller's credentials\n"
    ":param username: the product user on whose behalf the node runs\n"
    ":param dry_run: ask whether the launch would be allowed, without launching (Amazon EC2 only)\n"
    ":param wait_until_cloud_provider_ready: return only when the provider reports the node ready\n"
    ":param additional_params: provider-specific text\n"
    ":param startup_script: provider-specific script\n"
    ":return: (node, OPResult), or (None, error OPResult) with the provider's message. The node enters the registry "
    "with\n"
    "    the next refresh, or through set_node.";
inline constexpr const char* list_instances = "Asks the provider for the nodes it knows.\n\n"
                                              ":return: (list of nodes, OPResult); None as list: there is no listing";
inline constexpr const char* start_node =
    "Starts a stopped node, or restarts one.\n\n"
    ":param instance_id: the provider's id of the node\n"
    ":param wait_until_cloud_provider_ready: return only when the provider reports the node ready\n"
    ":param reboot: restart a running node instead";
inline constexpr const char* stop_node = "Stops a node; it can be started again.\n\n"
                                         ":param instance_id: the provider's id of the node";
inline constexpr const char* terminate_node = "Ends a node for good.\n\n"
                                              ":param instance_id: the provider's id of the node\n"
                                              ":param stop_reason: kept by providers that can keep it\n"
                                              ":return: an OPResult";
inline constexpr const char* list_instance_templates =
    "Lists the images that nodes can be launched from.\n\n"
    ":param is_public: only images that everybody may use (Amazon EC2 only)\n"
    ":return: (list of InstanceTemplate, OPResult)";
inline constexpr const char* list_instance_types = "Lists the machine sizes that the provider itself contributes.\n\n"
                                                   ":return: (list of CloudInstanceTypeDef, OPResult)";

inline constexpr const char* local_container_node_manager =
    "The one local container region: the worker as a single container on the user's own machine.\n\n"
    "There is no dry run: a launch with dry_run=True really launches. Errors of the container engine reach the caller.";
inline constexpr const char* k8s_node_manager = "The nodes of one Kubernetes region: each a pod.\n\n"
                                                "A pod can be neither started nor stopped: start_node and stop_node do "
                                                "nothing. There is no dry run: a launch with\n"
                                                "dry_run=True really launches.";

inline constexpr const char* key_pair_manager = "The key-pair operations of providers that have key pairs.";
inline constexpr const char* create_key_pair = "Creates a key pair, tagged with its user.\n\n"
                                               ":param key_pair_name: its name\n"
                                               ":param username: the user it is made for; None tags it \"Unknown\"\n"
                                               ":return: (private key, OPResult); (None, error OPResult) when the "
                                               "provider refused. The private key is returned once\n"
                                               "    and kept nowhere.";
inline constexpr const char* delete_key_pair = "Deletes a key pair by name.\n\n"
                                               ":param key_pair_name: its name";

} // namespace cloud_node::docs
