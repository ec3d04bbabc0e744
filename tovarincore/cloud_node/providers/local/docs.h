// The docstrings of LocalContainerNodeManager, where they say more than those of the provider interface.
#pragma once

namespace cloud_node::local::docs {

inline constexpr const char* local_container_node_manager =
    R"(The local container region: the worker runs as one container on the user's machine.

There is no dry run: launch_node(dry_run=True) launches. Errors of the container engine reach the caller.)";

} // namespace cloud_node::local::docs
