// The class CloudKeyPairManager: the key-pair interface, which only the Amazon provider fulfils.
#include "docs.h"
#include "registry.h"

namespace cloud_node {

namespace {

Object create_key_pair(Handle, Handle, Handle) { return none(); }
Object delete_key_pair(Handle, Handle) { return none(); }

constexpr Method methods[] = {
    abstract(method<create_key_pair>("create_key_pair",
                                     {{"self"}, {"key_pair_name", "str"}, {"username", "Optional[str]"}},
                                     "Tuple[Optional[str], OPResult]", docs::create_key_pair)),
    abstract(method<delete_key_pair>("delete_key_pair", {{"self"}, {"key_pair_name", "str"}}, nullptr,
                                     docs::delete_key_pair)),
};

} // namespace

void build_cloud_key_pair_manager()
{
    build_class({"CloudKeyPairManager", docs::key_pair_manager, methods}, {global("ABC"_s)});
}

} // namespace cloud_node
