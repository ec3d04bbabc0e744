// The pool of web-socket clients: stored, handed out and forgotten under one lock; never opened, checked or closed
// here. Clients that certainly belong to another node reach temp_pool without a turn in the loops: see `having` in
// python/iteration.h.
#include "facade.h"

namespace cloud_node::facade {

Object add_to_webs_client_pool(Handle self, Handle webs_client)
{
    return holding(self.get("webs_client_pool_lock"_s), [&] {
        self.get("webs_client_pool"_s).method("append"_s)({webs_client});
        return none();
    });
}

// The locals of the two functions below stand before the lock is taken, so that they are dropped after the release, as
// in Python: the finaliser of a client may use the pool.

Object get_from_webs_client_pool(Handle self, Handle node_uuid)
{
    Object webs_client_to_return, temp_pool, webs_client;
    return holding(self.get("webs_client_pool_lock"_s), [&] {
        webs_client_to_return = none();
        temp_pool = list({});
        Object pool = self.get("webs_client_pool"_s);
        for (Each rest = each(pool, having("node"_s, "uuid"_s, node_uuid), temp_pool); rest.next(webs_client);)
            if (webs_client_to_return.is_none() && webs_client.get("node"_s).get("uuid"_s).equals(node_uuid))
                webs_client_to_return = webs_client;
            else
                append(temp_pool, webs_client);
        if (webs_client_to_return.truthy())
            self.set("webs_client_pool"_s, temp_pool);
        return webs_client_to_return;
    });
}

Object flush_webs_client_pool(Handle self, Handle node_uuid, Handle flush_all)
{
    assert_that([&] { return !node_uuid.is_none() || flush_all.truthy(); },
                "If no node_uuid is provided flush_all=True must be explicitly set"_s);
    Object flushed_worker_id_list, temp_pool, webs_client;
    return holding(self.get("webs_client_pool_lock"_s), [&] {
        flushed_worker_id_list = list({});
        if (flush_all.truthy()) {
            self.get("webs_client_pool"_s).method("clear"_s)();
            return flushed_worker_id_list;
        }
        temp_pool = list({});
        Object pool = self.get("webs_client_pool"_s);
        for (Each rest = each(pool, having("node"_s, "uuid"_s, node_uuid), temp_pool); rest.next(webs_client);) {
            if (webs_client.get("node"_s).get("uuid"_s).equals(node_uuid))
                append(flushed_worker_id_list, webs_client.get("worker_id"_s));
            else
                append(temp_pool, webs_client);
        }
        self.set("webs_client_pool"_s, temp_pool);
        return flushed_worker_id_list;
    });
}

} // namespace cloud_node::facade
