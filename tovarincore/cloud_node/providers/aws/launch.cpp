// Launching one EC2 instance: the start-up script, the request, and the node record that stands for the instance.
#include "aws.h"

namespace cloud_node::aws {

namespace {

// The settings as one shell word: base64 of their JSON text.
Object encoded_settings(Handle instance_config)
{
    Object json = import_module("json"_s);
    Object base64 = import_module("base64"_s);
    return base64
        .method("b64encode"_s)({json.method("dumps"_s)({instance_config.get("launch_instance_settings"_s)})
                                    .method("encode"_s)({"utf-8"_s})})
        .method("decode"_s)({"utf-8"_s});
}

// A shell line that asks the node to run its profiler, or an empty text.
Object profiler_request(Handle self)
{
    Object seconds = self.get("core_conf"_s).get("development_settings__profiler_node_second"_s);
    if (!seconds.greater(number(0)))
        return Object(""_s);
    self.get("logger"_s)
        .method("warning"_s)(
            {concat({"Profiler requested! Node will run profiler for "_s, str(seconds), " seconds and quit"_s})});
    return concat({"echo '"_s, str(seconds), "' > "_s, str(global("CoreDef"_s).get("NODE_HOME_PATH"_s)),
                   "/.tovarin/profile.requested"_s});
}

// What the instance runs at its first boot. EC2's client encodes it for the transfer.
Object user_data_of(Handle self, Handle instance_config)
{
    Object launch_instance_settings_str = encoded_settings(instance_config);
    Object profiler_code = profiler_request(self);
    return concat({"#!/bin/bash\n"_s, "\n"_s, profiler_code, "\nsh "_s,
                   str(global("CoreDef"_s).get("NODE_HOME_PATH"_s)), "/.tovarin/prepare_cloud_node.sh "_s,
                   launch_instance_settings_str, "\n\n"_s});
}

// Shorter texts are no subnet ids and count as unset; the empty text is still sent, by design.
Object custom_subnet_id(Handle self)
{
    Object subnet_id = self.get("core_conf"_s).get("network__aws_custom_subnet"_s);
    if (!subnet_id.truthy() || len(subnet_id) < 10)
        return Object(""_s);
    return subnet_id;
}

Object root_disk(Handle instance_config)
{
    Object disk = dict({{"VolumeSize"_s, instance_config.get("disk_size"_s)}, {"VolumeType"_s, "gp3"_s}});
    return list({dict({{"DeviceName"_s, "/dev/sda1"_s}, {"Ebs"_s, disk}})});
}

Object instance_tags(Handle instance_config, Handle username)
{
    Object tags = list({tag("tovarin_uuid"_s, instance_config.get("uuid"_s)),
                        tag("Name"_s, instance_config.get("name"_s)), tag("tovarin_username"_s, username)});
    return list({dict({{"ResourceType"_s, "instance"_s}, {"Tags"_s, tags}})});
}

// The record's name; EC2's tag carries the raw value.
Object name_or_placeholder(Handle instance_config)
{
    return instance_config.get("name"_s).is_none() ? Object("?"_s) : instance_config.get("name"_s);
}

Object launched_node(Handle self, Handle instance, Handle instance_id, Handle instance_type_def, Handle instance_config)
{
    Object dns_address = dns_address_of(instance);
    return global("AWSCloudNode"_s)(
        {"region"_k = self.get("region"_s), "instance_id"_k = instance_id, "instance_type_def"_k = instance_type_def,
         "uuid"_k = instance_config.get("uuid"_s), "name"_k = name_or_placeholder(instance_config),
         "dns_address"_k = dns_address, "state"_k = global("NodeState"_s).get("STARTING"_s),
         "key_pair_name"_k = instance_config.get("key_pair_name"_s)});
}

// EC2 answers an allowed dry run with a refusal too, under a code that says so.
Object launch_refused(Handle self, Handle ex)
{
    if (has_error_code(ex, "DryRunOperation"_s))
        return tuple({none(), global("OPResult"_s)(
                                  {"error"_k = true_(),
                                   "error_code"_k = global("OPResultErrorCode"_s).get("DRY_RUN_OPERATION"_s)})});
    self.get("logger"_s)
        .method("error"_s)({"Exception occurred when tyring to starting Cloud Worker"_s, "exc_info"_k = ex});
    return refused(ex);
}

} // namespace

Object launch_node(Handle self, Handle instance_type_def, Handle instance_config, Handle, Handle username,
                   Handle dry_run, Handle wait_until_cloud_provider_ready, Handle, Handle)
{
    Object ClientError = import_from("botocore.exceptions"_s, "ClientError"_s);
    try {
        Object ec2 = self.method("_get_client"_s)();
        assert_that([&] { return instance_config.get("disk_size"_s).truthy(); }, "No disk size provided"_s);
        Object security_group_id = self.method("_check_and_get_security_group_id"_s)();
        Object user_data = user_data_of(self, instance_config);
        Object subnet_id = custom_subnet_id(self);
        assert_that([&] { return !instance_config.get("instance_template"_s).is_none(); });
        Object response = ec2.method("run_instances"_s)(
            {"BlockDeviceMappings"_k = root_disk(instance_config), "DryRun"_k = dry_run,
             "ImageId"_k = instance_config.get("instance_template"_s).get("instance_template_id"_s),
             "InstanceType"_k = instance_type_def.get("instance_type"_s),
             "KeyName"_k = instance_config.get("key_pair_name"_s), "MaxCount"_k = number(1), "MinCount"_k = number(1),
             "UserData"_k = user_data, "SecurityGroupIds"_k = list({security_group_id}),
             "IamInstanceProfile"_k = dict({{"Name"_s, instance_config.method("get_safe_instance_profile_name"_s)()}}),
             "SubnetId"_k = subnet_id, "TagSpecifications"_k = instance_tags(instance_config, username)});
        self.get("logger"_s).method("debug"_s)({concat({"Start new Cloud Worker response:\n "_s, str(response)})});
        Object instance = response.item("Instances"_s).first();
        Object instance_id = str(instance.item("InstanceId"_s));
        Object node = launched_node(self, instance, instance_id, instance_type_def, instance_config);
        if (wait_until_cloud_provider_ready.truthy())
            wait_until_instance_status_ok(self, ec2, instance_id);
        return tuple({node, success()});
    } catch (const Raised& raised) {
        ExceptBlock except(raised, ClientError);
        return launch_refused(self, except.error());
    }
}

} // namespace cloud_node::aws
