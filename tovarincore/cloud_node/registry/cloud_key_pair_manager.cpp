// The class CloudKeyPairManager: the key-pair interface, which only the Amazon provider fulfils.
#include "provider_rows.h"
#include "registry.h"

namespace cloud_node {

namespace {

Object create_key_pair(Handle, Handle, Handle) { return none(); }
Object delete_key_pair(Handle, Handle) { return none(); }

constexpr Method methods[] = {
    abstract(provider_rows::create_key_pair<create_key_pair>()),
    abstract(provider_rows::delete_key_pair<delete_key_pair>()),
};

} // namespace

void build_cloud_key_pair_manager()
{
    build_class({"CloudKeyPairManager", docs::key_pair_manager, methods}, {global("ABC"_s)});
}

} // namespace cloud_node
