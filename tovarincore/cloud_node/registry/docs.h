// The docstrings of NodeManager and CloudKeyPairManager. A provider shows them too, where it has nothing to add.
#pragma once

namespace cloud_node::docs {

inline constexpr const char* node_manager =
    R"(The nodes of one region: a list under a lock, and the operations that every provider implements.

The list holds copies and hands out copies: changing a record that was given or returned changes nothing here. Any
thread may call any method. An operation on the list waits at most 3 seconds for the lock.)";

inline constexpr const char* node_manager_init = R"(Start with an empty list.

:param region: the region that this manager serves; kept as it is, not copied)";

inline constexpr const char* get_node_list = R"(Return all nodes.

:return: deep copies, in the order of the list
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

inline constexpr const char* set_node_list = R"(Replace the list with a deep copy of another one.

:param node_list: the new nodes, in order
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

inline constexpr const char* set_node = R"(Store a deep copy of a node.

It replaces the first node with the same instance_id. If there is none, it is appended.

:param node: the node to store
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

inline constexpr const char* find_node_by_instance_id = R"(Find a node by the id that the provider gave it.

:param instance_id: the id, compared with ==
:return: a deep copy of the first match, or None
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

inline constexpr const char* find_node_by_uuid = R"(Find a node by its uuid.

:param uuid: the uuid, compared with ==
:return: a deep copy of the first match, or None
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

inline constexpr const char* get_ready_node_next_in_line = R"(Return the first node that is ready.

A node becomes ready when its worker answers a ping. The node is not marked as taken: the next call returns the same
one, as long as the list stays the same.

:return: a deep copy, or None
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

inline constexpr const char* change_node_state = R"(Set the state and the readiness of a stored node.

Only the first node with this id is changed. If there is none, nothing happens.

:param instance_id: the provider's id of the node, compared with ==
:param node_state: the new state
:param ready: whether the worker is ready; a call that leaves this out makes the node not ready
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

inline constexpr const char* refresh_node = R"(Ping the worker of a node and store a copy of the node.

The worker has 2 seconds to answer. If it does, the given record becomes ready, and the worker's system statistics are
written into the stored copy.

:param node: the node to ping
:return: OPResult(success=True), also if the worker does not answer; an error OPResult with the traceback after any
    failure, which is logged at debug level. Nothing is raised.)";

inline constexpr const char* refresh_node_list = R"(Replace the list with what the provider lists now.

Every running node is pinged first, one after the other; each worker has 2 seconds to answer. A node that was known
before keeps its worker_id_list. If the listing fails, the list stays as it was.

:return: the OPResult of the listing, or an error OPResult with the traceback after any other failure, which is logged
    at debug level. Nothing is raised.)";

inline constexpr const char* launch_node = R"(Launch one node.

The node is not added to the list: the next refresh finds it, or set_node stores it.

:param instance_type_def: the machine size
:param instance_config: template, disk size (GiB), name, uuid, key pair and launch settings
:param auth: the caller's credentials
:param username: the product user on whose behalf the node runs
:param dry_run: only ask whether the launch would be allowed; Amazon EC2 alone can do that, the others launch
:param wait_until_cloud_provider_ready: return only when the provider reports that the node is ready
:param additional_params: a text that the provider understands
:param startup_script: a script that the provider understands
:return: (node, OPResult), or (None, error OPResult) with the provider's message)";

inline constexpr const char* list_instances = R"(Ask the provider which nodes there are.

:return: (list of nodes, OPResult); the list is None if the provider could not tell)";

inline constexpr const char* start_node = R"(Start a stopped node, or restart a running one.

:param instance_id: the provider's id of the node
:param wait_until_cloud_provider_ready: return only when the provider reports that the node is ready
:param reboot: restart a running node instead of starting a stopped one)";

inline constexpr const char* stop_node = R"(Stop a node. It can be started again.

:param instance_id: the provider's id of the node)";

inline constexpr const char* terminate_node = R"(End a node for good.

:param instance_id: the provider's id of the node
:param stop_reason: why; kept by providers that have a place for it
:return: an OPResult)";

inline constexpr const char* list_instance_templates = R"(List the images that nodes can be launched from.

:param is_public: list public images only (Amazon EC2 only)
:return: (list of InstanceTemplate, OPResult))";

inline constexpr const char* list_instance_types = R"(List the machine sizes that the provider itself knows.

:return: (list of CloudInstanceTypeDef, OPResult))";

inline constexpr const char* key_pair_manager = "The key-pair operations, for providers that have key pairs.";

inline constexpr const char* create_key_pair = R"(Create a key pair, tagged with the user it is made for.

:param key_pair_name: its name
:param username: the user it is made for; None is tagged as "Unknown"
:return: (private key, OPResult), or (None, error OPResult) if the provider refused. The private key is returned once
    and stored nowhere.)";

inline constexpr const char* delete_key_pair = R"(Delete a key pair.

:param key_pair_name: its name)";

} // namespace cloud_node::docs
