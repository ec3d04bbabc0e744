// The docstrings of CloudManager.
#pragma once

namespace cloud_node::facade::docs {

inline constexpr const char* cloud_manager =
    "All nodes in all regions: Amazon EC2, the local container host, and Kubernetes clusters.\n\n"
    "Picks a provider by the region's kind, builds it on first use and keeps it. Any thread may call any method. Locks "
    "are\n"
    "waited for 3 seconds at most, then a bare TimeoutError is raised; what a provider raises reaches the caller.";
inline constexpr const char* init = "Makes a facade with an empty provider cache and an empty client pool.";
inline constexpr const char* get_node_manager =
    "Gives the region's provider, which is built on first use with stored credentials.\n\n"
    ":param region: the region\n"
    ":raises NotImplementedError: a region kind other than AWS, local or k8s\n"
    ":raises AssertionError: an Amazon region without usable credentials\n"
    ":raises TimeoutError: the cache's lock was not had within 3 seconds";
inline constexpr const char* add_to_webs_client_pool = "Puts a web-socket client at the end of the pool.\n\n"
                                                       ":param webs_client: the client; the pool never closes it";
inline constexpr const char* get_from_webs_client_pool =
    "Takes the first pooled client of a node out of the pool.\n\n"
    ":param node_uuid: the node's uuid\n"
    ":return: the client, which now belongs to the caller alone, or None";
inline constexpr const char* flush_webs_client_pool =
    "\n"
    "        :param node_uuid: Node to flush workers\n"
    "        :param flush_all: If no node provided and need to flush all nodes\n"
    "        :return: IF a node is provided; worker_id's of flushed workers (so you can kill them)\n"
    "        ";
inline constexpr const char* get_node_list =
    "Gives deep copies of the region's known nodes.\n\n:param region: the region";
inline constexpr const char* set_node = "Stores a copy of a node in its region's registry.\n\n:param node: the node";
inline constexpr const char* get_ready_node_next_in_line =
    "Gives a copy of the region's first ready node, or None.\n\n:param region: the region";
inline constexpr const char* find_node_by_instance_id = "Finds a known node by the provider's id.\n\n"
                                                        ":param region: the region\n"
                                                        ":param instance_id: the provider's id\n"
                                                        ":return: a copy, or None";
inline constexpr const char* find_node_by_uuid = "Finds a known node by its uuid.\n\n"
                                                 ":param region: the region\n"
                                                 ":param uuid: the node's uuid\n"
                                                 ":return: a copy, or None";
inline constexpr const char* refresh_node =
    "Pings a node's worker and stores a copy of the node. Raises nothing of its own.\n\n"
    ":param node: the node; a worker that answers makes it ready\n"
    ":return: an OPResult";
inline constexpr const char* refresh_node_list =
    "Replaces the region's registry by the provider's listing, pinging every running node (2 seconds each at most).\n\n"
    ":param region: the region\n"
    ":param auth: credentials, used only when the provider is built by this call\n"
    ":param username: the user name that goes with them\n"
    ":return: an OPResult; a failed listing leaves the registry as it was";
inline constexpr const char* launch_node =
    "Launches one node. Only the provider's operation receives auth; a provider built by this call takes stored "
    "ones.\n\n"
    ":param region: the region\n"
    ":param auth: the caller's credentials\n"
    ":param instance_type_def: the machine size\n"
    ":param instance_config: template, disk (GiB), name, uuid, key pair and launch settings\n"
    ":param username: the product user; give the stored user_name, or the node never appears in a listing\n"
    ":param wait_until_cloud_provider_ready: return only when the provider reports the node ready\n"
    ":param additional_params: provider-specific text (Kubernetes)\n"
    ":param startup_script: provider-specific script (Kubernetes)\n"
    ":return: (node, OPResult), or (None, error OPResult)";
inline constexpr const char* try_launching_node =
    "Asks Amazon EC2 whether a launch would be allowed (a dry run).\n\n"
    "The security group and its rules are created all the same. Providers without dry runs, the local host and "
    "Kubernetes,\n"
    "really launch.\n\n"
    ":param region: the region\n"
    ":param auth: the caller's credentials\n"
    ":param instance_type_def: the machine size\n"
    ":param instance_config: template, disk (GiB), name, uuid, key pair and launch settings\n"
    ":param wait_until_cloud_provider_ready: passed on\n"
    ":return: OPResult(success=True) when the launch would be allowed, else the provider's OPResult";
inline constexpr const char* list_instances =
    "Asks the provider for the nodes it knows, without touching the registry.\n\n"
    ":param region: the region\n"
    ":param auth: credentials, used only when the provider is built by this call\n"
    ":param username: the user name that goes with them\n"
    ":return: (list of nodes, OPResult)";
inline constexpr const char* start_node =
    "Starts or restarts a node, and expects it to be STARTING.\n\n"
    ":param region: the region\n"
    ":param auth: credentials, used only when the provider is built by this call\n"
    ":param instance_id: the provider's id\n"
    ":param wait_until_cloud_provider_ready: return only when the provider reports the node ready\n"
    ":param reboot: restart a running node instead";
inline constexpr const char* stop_node = "Stops a node, and expects it to be STOPPING.\n\n"
                                         ":param region: the region\n"
                                         ":param auth: credentials, used only when the provider is built by this call\n"
                                         ":param instance_id: the provider's id";
inline constexpr const char* terminate_node =
    "Ends a node for good, and on success expects it to be SHUTTING_DOWN.\n\n"
    ":param region: the region\n"
    ":param auth: credentials, used only when the provider is built by this call\n"
    ":param instance_id: the provider's id\n"
    ":param stop_reason: kept by providers that can keep it\n"
    ":return: the provider's OPResult";
inline constexpr const char* create_key_pair =
    "Creates a key pair in an Amazon region.\n\n"
    ":param region: the region\n"
    ":param auth: credentials, used only when the provider is built by this call\n"
    ":param key_pair_name: its name\n"
    ":param username: the user it is made for; None tags it \"Unknown\"\n"
    ":return: (private key, OPResult), or (None, error OPResult)\n"
    ":raises AssertionError: the region's provider has no key pairs";
inline constexpr const char* delete_key_pair =
    "Deletes a key pair in an Amazon region.\n\n"
    ":param region: the region\n"
    ":param auth: credentials, used only when the provider is built by this call\n"
    ":param key_pair_name: its name\n"
    ":raises AssertionError: the region's provider has no key pairs";
inline constexpr const char* list_current_instance_templates =
    "Lists the images that nodes of the region can be launched from.\n\n"
    ":param region: the region\n"
    ":param auth: credentials, used only when the provider is built by this call\n"
    ":param is_public: only images that everybody may use (Amazon EC2 only)\n"
    ":return: (list of InstanceTemplate, OPResult)";
inline constexpr const char* list_instance_types = "Lists the machine sizes that the region's provider contributes.\n\n"
                                                   ":param region: the region\n"
                                                   ":return: (list of CloudInstanceTypeDef, OPResult)";
inline constexpr const char* get_default_instance_template =
    "Gives the first public template of the kind (CPU or GPU) and pay type that a plan asks for.\n\n"
    ":param region: the region\n"
    ":param auth: credentials, used only when the provider is built by this call\n"
    ":param plan: a CpuPlanA, GpuPlanA, CpuPlanB or GpuPlanB; anything else wants nothing\n"
    ":return: an InstanceTemplate, or None";

} // namespace cloud_node::facade::docs
