// LocalContainerNodeManager: the node manager of the one local container region.
#pragma once

#include "../../contracts/contracts.h"

namespace cloud_node {

void build_local_container_node_manager();

} // namespace cloud_node
