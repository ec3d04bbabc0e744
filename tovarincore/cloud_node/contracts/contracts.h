// What the module takes from its siblings: the names it binds at import, and the phrases every room uses with them.
#pragma once

#include "../python/all.h"

namespace cloud_node {

using namespace py;

// Binds every imported name in the module's dictionary, in the order of the import statements. The first failing import
// ends it; what was bound before stays bound, as in a Python module.
void bind_imports();

// OPResult(success=True)
Object success();

// A client for the one ping that tells whether the node's worker is ready: the worker has 2 seconds to answer.
Object probe_client(Handle node);

} // namespace cloud_node
