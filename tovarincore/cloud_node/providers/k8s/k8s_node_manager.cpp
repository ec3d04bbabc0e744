// A thin adapter: each operation is one call on the console client, whose result is returned as it comes back.
#include "../../registry/provider_rows.h"
#include "docs.h"
#include "k8s.h"

namespace cloud_node {

namespace {

ClassCell own_class;

Object init(Handle self, Handle region)
{
    super_of(own_class, self).method("__init__"_s)({region});
    self.set("console_client"_s, global("K8sConsoleClient"_s)({region}));
    return none();
}

Object list_instances(Handle self) { return self.get("console_client"_s).method("get_cloud_nodes"_s)(); }

Object launch_node(Handle self, Handle instance_type_def, Handle instance_config, Handle, Handle, Handle, Handle,
                   Handle additional_params, Handle startup_script)
{
    return self.get("console_client"_s)
        .method("launch_node"_s)({"instance_type_def"_k = instance_type_def, "instance_config"_k = instance_config,
                                  "additional_params"_k = additional_params, "startup_script"_k = startup_script});
}

// A Kubernetes node can be neither started nor stopped; asking for it is no error.
Object start_node(Handle, Handle, Handle, Handle) { return none(); }
Object stop_node(Handle, Handle) { return none(); }

Object terminate_node(Handle self, Handle instance_id, Handle stop_reason)
{
    return self.get("console_client"_s)
        .method("terminate_node"_s)({"instance_id"_k = instance_id, "stop_reason"_k = stop_reason});
}

Object list_instance_templates(Handle self, Handle)
{
    return self.get("console_client"_s).method("list_instance_templates"_s)();
}

Object list_instance_types(Handle self) { return self.get("console_client"_s).method("list_instance_types"_s)(); }

constexpr Method methods[] = {
    method<init>("__init__"_s, "self, region -> None", docs::node_manager_init),
    provider_rows::list_instances<list_instances>(),
    provider_rows::launch_node<launch_node>(),
    provider_rows::start_node_reboot_first<start_node>(),
    provider_rows::stop_node<stop_node>(),
    provider_rows::terminate_node<terminate_node>(),
    provider_rows::list_instance_templates<list_instance_templates>(),
    provider_rows::list_instance_types<list_instance_types>(),
};

} // namespace

void build_k8s_node_manager()
{
    own_class.keep(build_class({"K8sNodeManager", k8s::docs::k8s_node_manager, methods}, {global("NodeManager"_s)}));
}

} // namespace cloud_node
