// K8sNodeManager: the node manager of one Kubernetes region.
#pragma once

#include "../../contracts/contracts.h"

namespace cloud_node {

void build_k8s_node_manager();

} // namespace cloud_node
