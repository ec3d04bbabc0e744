// One provider per region: chosen by the region's kind, built once, cached for the life of the facade.
#include "facade.h"

namespace cloud_node::facade {

namespace {

// Missing credentials come from the store, both of them together.
Object aws_node_manager(Handle self, Handle region, Handle auth_given, Handle username_given)
{
    Object auth(auth_given);
    Object username(username_given);
    if (auth.is_none() || username.is_none()) {
        Object cloud_conf = self.get("cloud_conf_manager"_s).method("get_cloud_conf"_s)({region});
        if (!cloud_conf.is_none()) {
            auth = cloud_conf.get("cloud_auth"_s);
            username = cloud_conf.get("user_name"_s);
        }
    }
    assert_that([&] { return !username.is_none(); });
    assert_that([&] { return is_instance(auth, global("AWSCloudAuth"_s)); });
    return global("AWSNodeManager"_s)({region, "auth"_k = auth, "username"_k = username});
}

// The region's kind is read again for each comparison, as Python does.
Object new_node_manager(Handle self, Handle region, Handle auth, Handle username)
{
    if (region.get("cloud"_s).equals("AWS"_s))
        return aws_node_manager(self, region, auth, username);
    if (region.get("cloud"_s).equals("local"_s))
        return global("LocalContainerNodeManager"_s)({region});
    if (region.get("cloud"_s).equals("k8s"_s)) {
        assert_that([&] { return is_instance(region, global("K8sRegion"_s)); });
        return global("K8sNodeManager"_s)({region});
    }
    raise(kept_builtin("NotImplementedError"_s)(
        {concat({"Cloud Region "_s, str(region.get("cloud"_s)), " is not supported"_s})}));
}

bool is_cached(Handle self, Handle region)
{
    Object hash_key = region.get("hash_key"_s); // before the cache is read, as Python does
    return self.get("_node_manager_hashset"_s).contains(hash_key);
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
// that stores last stays cached (test_provider_cache.py holds it).
Object _get_node_manager(Handle self, Handle region, Handle auth, Handle username)
{
    Object node_manager = self.method("_get_cached_node_manager"_s)({region});
    if (!node_manager.is_none())
        return node_manager;
    node_manager = new_node_manager(self, region, auth, username);
    self.method("_cache_node_manager"_s)({region, node_manager});
    return node_manager;
}

Object _get_cached_node_manager(Handle self, Handle region)
{
    if (region.is_none())
        return none();
    return holding(self.get("_node_manager_hashset_lock"_s), [&] {
        if (!is_cached(self, region))
            return none();
        return self.get("_node_manager_hashset"_s).item(region.get("hash_key"_s));
    });
}

Object _cache_node_manager(Handle self, Handle region, Handle node_manager)
{
    return holding(self.get("_node_manager_hashset_lock"_s), [&] {
        self.get("_node_manager_hashset"_s).set_item(region.get("hash_key"_s), node_manager);
        return none();
    });
}

} // namespace cloud_node::facade
