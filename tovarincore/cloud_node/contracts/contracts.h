// What the module takes from its siblings: the names it binds at import, and the phrases every room uses with them.
#pragma once

#include "../python/all.h"

namespace cloud_node {

using namespace py;

// Binds every imported name in the module's dictionary, in order.
void bind_imports();

// OPResult(success=True)
Object success(Where where = Where::here());

// WebSocketClient(node, client_timeout_sec=2): the longest a readiness probe may take, in seconds
Object probe_client(Handle node, Where where = Where::here());

} // namespace cloud_node
