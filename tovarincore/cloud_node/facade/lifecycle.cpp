// Launch, start, stop, terminate, key pairs. After a start, a stop or a successful terminate the registry is told the
// state to expect; which of `auth` and `username` reaches the provider's construction differs per operation, on purpose
// (test_routing.py holds each).
#include "facade.h"

namespace cloud_node::facade {

namespace {

void expect_state(Handle node_manager, Handle instance_id, Name state)
{
    node_manager.method("change_node_state"_s)({instance_id, global("NodeState"_s).get(state)});
}

} // namespace

Object launch_node(Handle self, Handle region, Handle auth, Handle instance_type_def, Handle instance_config,
                   Handle username, Handle wait_until_cloud_provider_ready, Handle additional_params,
                   Handle startup_script)
{
    Object node_manager = self.method("_get_node_manager"_s)({region});
    return node_manager.method("launch_node"_s)(
        {"auth"_k = auth, "instance_type_def"_k = instance_type_def, "instance_config"_k = instance_config,
         "username"_k = username, "wait_until_cloud_provider_ready"_k = wait_until_cloud_provider_ready,
         "additional_params"_k = additional_params, "startup_script"_k = startup_script});
}

Object try_launching_node(Handle self, Handle region, Handle auth, Handle instance_type_def, Handle instance_config,
                          Handle wait_until_cloud_provider_ready)
{
    Object node_manager = self.method("_get_node_manager"_s)({region});
    Object launched = node_manager.method("launch_node"_s)(
        {"auth"_k = auth, "instance_type_def"_k = instance_type_def, "instance_config"_k = instance_config,
         "username"_k = "dry_run"_s, "dry_run"_k = true_(),
         "wait_until_cloud_provider_ready"_k = wait_until_cloud_provider_ready});
    auto [node, op_result] = unpack<2>(launched);
    if (op_result.get("error_code"_s).equals(global("OPResultErrorCode"_s).get("DRY_RUN_OPERATION"_s)))
        return success();
    return op_result;
}

Object start_node(Handle self, Handle region, Handle auth, Handle instance_id, Handle wait_until_cloud_provider_ready,
                  Handle reboot)
{
    Object node_manager = self.method("_get_node_manager"_s)({region, "auth"_k = auth});
    node_manager.method("start_node"_s)({"instance_id"_k = instance_id,
                                         "wait_until_cloud_provider_ready"_k = wait_until_cloud_provider_ready,
                                         "reboot"_k = reboot});
    expect_state(node_manager, instance_id, "STARTING"_s);
    return none();
}

Object stop_node(Handle self, Handle region, Handle auth, Handle instance_id)
{
    Object node_manager = self.method("_get_node_manager"_s)({region, "auth"_k = auth});
    node_manager.method("stop_node"_s)({"instance_id"_k = instance_id});
    expect_state(node_manager, instance_id, "STOPPING"_s);
    return none();
}

Object terminate_node(Handle self, Handle region, Handle auth, Handle instance_id, Handle stop_reason)
{
    Object node_manager = self.method("_get_node_manager"_s)({region, "auth"_k = auth});
    Object op_result =
        node_manager.method("terminate_node"_s)({"instance_id"_k = instance_id, "stop_reason"_k = stop_reason});
    if (op_result.get("success"_s).truthy())
        expect_state(node_manager, instance_id, "SHUTTING_DOWN"_s);
    return op_result;
}

Object create_key_pair(Handle self, Handle region, Handle auth, Handle key_pair_name, Handle username)
{
    Object node_manager = self.method("_get_node_manager"_s)({region, "auth"_k = auth, "username"_k = username});
    assert_that([&] { return is_instance(node_manager, global("CloudKeyPairManager"_s)); },
                "Creating key pair is only supported for Cloud regions"_s);
    return node_manager.method("create_key_pair"_s)({key_pair_name, username});
}

Object delete_key_pair(Handle self, Handle region, Handle auth, Handle key_pair_name)
{
    Object node_manager = self.method("_get_node_manager"_s)({region, "auth"_k = auth});
    assert_that([&] { return is_instance(node_manager, global("CloudKeyPairManager"_s)); },
                "Deleting key pair is only supported for Cloud regions"_s);
    return node_manager.method("delete_key_pair"_s)({key_pair_name});
}

} // namespace cloud_node::facade
