// One provider per region: chosen by the region's kind, built once, cached for the life of the facade.
#include "facade.h"

namespace cloud_node::facade {

namespace {

// Missing credentials come from the store, both of them together.
Object aws_provider(Handle self, Handle region, Handle auth_given, Handle username_given, Where where)
{
    Object auth(auth_given);
    Object username(username_given);
    if (auth.is_none() || username.is_none()) {
        Object cloud_conf = self.get("cloud_conf_manager"_s, where).method("get_cloud_conf"_s, where)({region}, where);
        if (!cloud_conf.is_none()) {
            auth = cloud_conf.get("cloud_auth"_s, where);
            username = cloud_conf.get("user_name"_s, where);
        }
    }
    assert_that([&] { return !username.is_none(); }, where);
    assert_that([&] { return is_instance(auth, global("AWSCloudAuth"_s, where), where); }, where);
    return global("AWSNodeManager"_s, where)({region, "auth"_k = auth, "username"_k = username}, where);
}

Object new_provider(Handle self, Handle region, Handle auth, Handle username, Where where)
{
    if (region.get("cloud"_s, where).equals("AWS"_s, where))
        return aws_provider(self, region, auth, username, where);
    if (region.get("cloud"_s, where).equals("local"_s, where))
        return global("LocalContainerNodeManager"_s, where)({region}, where);
    if (region.get("cloud"_s, where).equals("k8s"_s, where)) {
        assert_that([&] { return is_instance(region, global("K8sRegion"_s, where), where); }, where);
        return global("K8sNodeManager"_s, where)({region}, where);
    }
    Object message =
        concat({"Cloud Region "_s, str(region.get("cloud"_s, where), where), " is not supported"_s}, where);
    raise(kept_builtin("NotImplementedError"_s)({message}, where), where);
}

} // namespace

Object init(Handle self)
{
    self.set("core_conf"_s, global("core_conf_glbl"_s));
    self.set("cloud_conf_manager"_s, global("CloudConfManager"_s)());
    self.set("_node_manager_hashset"_s, dict({}));
    self.set("_node_manager_hashset_lock"_s, global("threading"_s).method("Lock"_s)());
    self.set("webs_client_pool"_s, list({}));
    self.set("webs_client_pool_lock"_s, global("threading"_s).method("Lock"_s)());
    self.set("logger"_s, global("logging"_s).method("getLogger"_s)({"CloudManager"_s}));
    self.set("is_cloud_vendor_ready"_s, false_());
    return none();
}

Object get_node_manager(Handle self, Handle region) { return self.method("_get_node_manager"_s)({region}); }

// Deliberate: lookup and store are two steps. Two threads that miss at the same time each build a provider, and the one
// that stores last stays cached (test_selection.py holds it).
Object provider_of(Handle self, Handle region, Handle auth, Handle username)
{
    Object node_manager = self.method("_get_cached_node_manager"_s)({region});
    if (!node_manager.is_none())
        return node_manager;
    node_manager = new_provider(self, region, auth, username, Where::here());
    self.method("_cache_node_manager"_s)({region, node_manager});
    return node_manager;
}

Object get_cached_node_manager(Handle self, Handle region)
{
    if (region.is_none())
        return none();
    return holding(self, "_node_manager_hashset_lock"_s, [&] {
        Object hash_key = region.get("hash_key"_s);
        if (!self.get("_node_manager_hashset"_s).contains(hash_key))
            return none();
        Object cache = self.get("_node_manager_hashset"_s);
        return cache.item(region.get("hash_key"_s));
    });
}

Object cache_node_manager(Handle self, Handle region, Handle node_manager)
{
    return holding(self, "_node_manager_hashset_lock"_s, [&] {
        Object cache = self.get("_node_manager_hashset"_s);
        cache.set_item(region.get("hash_key"_s), node_manager);
        return none();
    });
}

} // namespace cloud_node::facade
