// The docstrings of CloudManager.
#pragma once

namespace cloud_node::facade::docs {

inline constexpr const char* cloud_manager =
    R"(All nodes in all regions: Amazon EC2, the local container host, Kubernetes clusters.

Each region has a provider, which depends on the kind of the region. It is made when it is first needed, and kept. Any
thread may call any method. A method waits at most 3 seconds for a lock, then raises a TimeoutError without a text.
What a provider raises reaches the caller.)";

inline constexpr const char* init = "Start without providers and with an empty pool of clients.";

inline constexpr const char* get_node_manager = R"(Return the provider of a region.

If there is none yet, it is made with stored credentials.

:param region: the region
:return: an AWSNodeManager, a LocalContainerNodeManager or a K8sNodeManager
:raises NotImplementedError: the region's cloud is neither AWS, local nor k8s
:raises AssertionError: an Amazon region for which no credentials are stored
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

inline constexpr const char* add_to_webs_client_pool = R"(Put a web-socket client at the end of the pool.

:param webs_client: the client; the pool never closes it
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

inline constexpr const char* get_from_webs_client_pool = R"(Take the first client of a node out of the pool.

:param node_uuid: the node's uuid
:return: the client, which nobody else gets now, or None
:raises TimeoutError: the lock could not be acquired within 3 seconds; without a text)";

// Callers read this one as it stands.
inline constexpr const char* flush_webs_client_pool = R"(
        :param node_uuid: Node to flush workers
        :param flush_all: If no node provided and need to flush all nodes
        :return: IF a node is provided; worker_id's of flushed workers (so you can kill them)
        )";

inline constexpr const char* get_node_list = R"(Return the known nodes of a region.

:param region: the region
:return: deep copies, in the order of the region's list)";

inline constexpr const char* set_node = R"(Store a copy of a node in the list of its region.

:param node: the node)";

inline constexpr const char* get_ready_node_next_in_line = R"(Return the first known node of a region that is ready.

:param region: the region
:return: a deep copy, or None)";

inline constexpr const char* find_node_by_instance_id = R"(Find a known node by the id that the provider gave it.

:param region: the region
:param instance_id: the provider's id of the node
:return: a deep copy, or None)";

inline constexpr const char* find_node_by_uuid = R"(Find a known node by its uuid.

:param region: the region
:param uuid: the node's uuid
:return: a deep copy, or None)";

inline constexpr const char* refresh_node = R"(Ping the worker of a node and store a copy of the node.

The worker has 2 seconds to answer.

:param node: the node; it becomes ready if the worker answers
:return: an OPResult; success also if the worker does not answer)";

inline constexpr const char* refresh_node_list = R"(Replace the list of a region with what its provider lists now.

Every running node is pinged first, one after the other; each worker has 2 seconds to answer. If the listing fails, the
list stays as it was.

:param region: the region
:param auth: credentials; used only if this call makes the provider
:param username: the user name that goes with them
:return: an OPResult; after a failure it carries the traceback)";

inline constexpr const char* launch_node = R"(Launch one node.

auth is handed to the provider's launch. If this call makes the provider, that uses stored credentials.

:param region: the region
:param auth: the caller's credentials
:param instance_type_def: the machine size
:param instance_config: template, disk size (GiB), name, uuid, key pair and launch settings
:param username: the product user; pass the stored user name, or no listing will show the node
:param wait_until_cloud_provider_ready: return only when the provider reports that the node is ready
:param additional_params: a text that the provider understands (Kubernetes)
:param startup_script: a script that the provider understands (Kubernetes)
:return: (node, OPResult), or (None, error OPResult) with the provider's message)";

inline constexpr const char* try_launching_node = R"(Ask Amazon EC2 whether a launch would be allowed, by a dry run.

The security group and its rules are created anyway. The other providers have no dry run: in a local or a
Kubernetes region this launches a node.

:param region: the region
:param auth: the caller's credentials
:param instance_type_def: the machine size
:param instance_config: template, disk size (GiB), name, uuid, key pair and launch settings
:param wait_until_cloud_provider_ready: handed to the provider
:return: OPResult(success=True) if the launch would be allowed, else the provider's OPResult)";

inline constexpr const char* list_instances = R"(Ask the provider which nodes there are. The list stays as it is.

:param region: the region
:param auth: credentials; used only if this call makes the provider
:param username: the user name that goes with them
:return: (list of nodes, OPResult))";

inline constexpr const char* start_node = R"(Start a stopped node, or restart a running one.

Its state in the list becomes STARTING, and it counts as not ready, whatever the provider did.

:param region: the region
:param auth: credentials; used only if this call makes the provider
:param instance_id: the provider's id of the node
:param wait_until_cloud_provider_ready: return only when the provider reports that the node is ready
:param reboot: restart a running node instead of starting a stopped one)";

inline constexpr const char* stop_node = R"(Stop a node. It can be started again.

Its state in the list becomes STOPPING, and it counts as not ready, whatever the provider did.

:param region: the region
:param auth: credentials; used only if this call makes the provider
:param instance_id: the provider's id of the node)";

inline constexpr const char* terminate_node = R"(End a node for good.

If that succeeds, its state in the list becomes SHUTTING_DOWN, and it counts as not ready.

:param region: the region
:param auth: credentials; used only if this call makes the provider
:param instance_id: the provider's id of the node
:param stop_reason: why; kept by providers that have a place for it
:return: the provider's OPResult)";

inline constexpr const char* create_key_pair = R"(Create a key pair in an Amazon region.

:param region: the region
:param auth: credentials; used only if this call makes the provider
:param key_pair_name: its name
:param username: the user it is made for; None is tagged as "Unknown"
:return: (private key, OPResult), or (None, error OPResult) with EC2's message. The private key is returned once and
    stored nowhere.
:raises AssertionError: the region is no Amazon region)";

inline constexpr const char* delete_key_pair = R"(Delete a key pair in an Amazon region.

:param region: the region
:param auth: credentials; used only if this call makes the provider
:param key_pair_name: its name
:raises AssertionError: the region is no Amazon region)";

inline constexpr const char* list_current_instance_templates = R"(List the images that nodes can be launched from.

:param region: the region
:param auth: credentials; used only if this call makes the provider
:param is_public: list public images only (Amazon EC2 only)
:return: (list of InstanceTemplate, OPResult))";

inline constexpr const char* list_instance_types = R"(List the machine sizes that the region's provider itself knows.

:param region: the region
:return: (list of CloudInstanceTypeDef, OPResult))";

inline constexpr const char* get_default_instance_template = R"(Return the template to launch for a usage plan.

It is the first public template, in the provider's order, of the kind (CPU or GPU) and the pay type of the plan.

:param region: the region
:param auth: credentials; used only if this call makes the provider
:param plan: a CpuPlanA, GpuPlanA, CpuPlanB or GpuPlanB; any other value finds nothing
:return: an InstanceTemplate, or None)";

} // namespace cloud_node::facade::docs
