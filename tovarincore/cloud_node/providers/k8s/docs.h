// The docstrings of K8sNodeManager, where they say more than those of the provider interface.
#pragma once

namespace cloud_node::k8s::docs {

inline constexpr const char* k8s_node_manager = R"(The nodes of one Kubernetes region: each is a pod.

A pod can neither be started nor stopped: start_node and stop_node do nothing. There is no dry run:
launch_node(dry_run=True) launches.)";

} // namespace cloud_node::k8s::docs
