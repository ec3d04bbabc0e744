// The pool of web-socket clients: stored, handed out and forgotten under one lock; never opened, checked or closed
// here. Clients of other nodes pass to the remainder without a turn in the loops: see Candidates in
// python/plain_scan.h.
#include "facade.h"

namespace cloud_node::facade {

Object add_to_webs_client_pool(Handle self, Handle webs_client)
{
    return holding(self, "webs_client_pool_lock"_s, [&] {
        self.get("webs_client_pool"_s).call("append"_s, {webs_client});
        return none();
    });
}

Object get_from_webs_client_pool(Handle self, Handle node_uuid)
{
    return holding(self, "webs_client_pool_lock"_s, [&] {
        Object webs_client_to_return = none();
        Object temp_pool = list({});
        Candidates webs_clients(self.get("webs_client_pool"_s), "node"_s, "uuid"_s, node_uuid, temp_pool);
        for (Object webs_client : webs_clients) {
            if (!webs_client.get("node"_s).get("uuid"_s).equals(node_uuid)) {
                append(temp_pool, webs_client);
                continue;
            }
            webs_client_to_return = webs_client;
            webs_clients.put_rest_aside(); // no comparison any more
        }
        if (webs_client_to_return.truthy())
            self.set("webs_client_pool"_s, temp_pool);
        return webs_client_to_return;
    });
}

Object flush_webs_client_pool(Handle self, Handle node_uuid, Handle flush_all)
{
    assert_that([&] { return !node_uuid.is_none() || flush_all.truthy(); },
                "If no node_uuid is provided flush_all=True must be explicitly set"_s);
    return holding(self, "webs_client_pool_lock"_s, [&] {
        Object flushed_worker_id_list = list({});
        if (flush_all.truthy()) {
            self.get("webs_client_pool"_s).call("clear"_s, {});
            return flushed_worker_id_list;
        }
        Object temp_pool = list({});
        Candidates webs_clients(self.get("webs_client_pool"_s), "node"_s, "uuid"_s, node_uuid, temp_pool);
        for (Object webs_client : webs_clients) {
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
