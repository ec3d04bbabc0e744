// Launching one EC2 instance: the start-up script, the request, and the node record that stands for the instance.
#include "aws.h"

namespace cloud_node::aws {

namespace {

// The settings as one shell word: base64 of their JSON text.
Object encoded_settings(Handle instance_config, Where where)
{
    Object json = import_module("json"_s, where);
    Object base64 = import_module("base64"_s, where);
    Object encode = base64.get("b64encode"_s, where);
    Object dumps = json.get("dumps"_s, where);
    Object text = dumps({instance_config.get("launch_instance_settings"_s, where)}, where);
    Object bytes = text.method("encode"_s)({"utf-8"_s}, where);
    return encode({bytes}, where).method("decode"_s, where)({"utf-8"_s}, where);
}

// A shell line that asks the node to run its profiler, or an empty text.
Object profiler_request(Handle self, Where where)
{
    Object seconds = self.get("core_conf"_s, where).get("development_settings__profiler_node_second"_s, where);
    if (!seconds.greater(number(0), where))
        return Object(""_s);
    Object warning = self.get("logger"_s, where).get("warning"_s, where);
    warning({concat({"Profiler requested! Node will run profiler for "_s, str(seconds, where), " seconds and quit"_s})},
            where);
    return concat({"echo '"_s, str(seconds, where), "' > "_s,
                   str(global("CoreDef"_s).get("NODE_HOME_PATH"_s, where), where), "/.tovarin/profile.requested"_s},
                  where);
}

// Shorter texts are no subnet ids and count as unset; the empty text is still sent, by design.
Object custom_subnet_id(Handle self, Where where)
{
    Object subnet_id = self.get("core_conf"_s, where).get("network__aws_custom_subnet"_s, where);
    if (!subnet_id.truthy(where) || len(subnet_id, where) < 10)
        return Object(""_s);
    return subnet_id;
}

Object tag(Name key, Handle value) { return dict({{"Key"_s, key}, {"Value"_s, value}}); }

} // namespace

Object launch_node(Handle self, Handle instance_type_def, Handle instance_config, Handle, Handle username,
                   Handle dry_run, Handle wait_until_cloud_provider_ready, Handle, Handle)
{
    Object client_error = import_from("botocore.exceptions"_s, "ClientError"_s);
    try {
        Object ec2 = self.method("_get_client"_s)();
        assert_that([&] { return instance_config.get("disk_size"_s).truthy(); }, "No disk size provided"_s);
        Object security_group_id = self.method("_check_and_get_security_group_id"_s)();
        Object launch_instance_settings_str = encoded_settings(instance_config, Where::here());
        Object profiler_code = profiler_request(self, Where::here());
        Object user_data = concat({"#!/bin/bash\n"_s, "\n"_s, profiler_code, "\nsh "_s,
                                   str(global("CoreDef"_s).get("NODE_HOME_PATH"_s)),
                                   "/.tovarin/prepare_cloud_node.sh "_s, launch_instance_settings_str, "\n\n"_s});
        Object subnet_id = custom_subnet_id(self, Where::here());
        assert_that([&] { return !instance_config.get("instance_template"_s).is_none(); });
        Object run_instances = ec2.get("run_instances"_s);
        Object disk = dict({{"VolumeSize"_s, instance_config.get("disk_size"_s)}, {"VolumeType"_s, "gp3"_s}});
        Object response = run_instances(
            {"BlockDeviceMappings"_k = list({dict({{"DeviceName"_s, "/dev/sda1"_s}, {"Ebs"_s, disk}})}),
             "DryRun"_k = dry_run,
             "ImageId"_k = instance_config.get("instance_template"_s).get("instance_template_id"_s),
             "InstanceType"_k = instance_type_def.get("instance_type"_s),
             "KeyName"_k = instance_config.get("key_pair_name"_s), "MaxCount"_k = number(1), "MinCount"_k = number(1),
             "UserData"_k = user_data, "SecurityGroupIds"_k = list({security_group_id}),
             "IamInstanceProfile"_k = dict({{"Name"_s, instance_config.method("get_safe_instance_profile_name"_s)()}}),
             "SubnetId"_k = subnet_id,
             "TagSpecifications"_k = list({dict({{"ResourceType"_s, "instance"_s},
                                                 {"Tags"_s, list({tag("tovarin_uuid"_s, instance_config.get("uuid"_s)),
                                                                  tag("Name"_s, instance_config.get("name"_s)),
                                                                  tag("tovarin_username"_s, username)})}})})});
        Object debug = self.get("logger"_s).get("debug"_s);
        debug({concat({"Start new Cloud Worker response:\n "_s, str(response)})});
        Object instance = response.item("Instances"_s).item(Py_ssize_t{0});
        Object instance_id = str(instance.item("InstanceId"_s));
        Object dns_address = dns_address_of(instance);
        Object node_class = global("AWSCloudNode"_s);
        Object region = self.get("region"_s);
        Object uuid = instance_config.get("uuid"_s);
        Object name = instance_config.get("name"_s).is_none() ? Object("?"_s) : instance_config.get("name"_s);
        Object node = node_class({"region"_k = region, "instance_id"_k = instance_id,
                                  "instance_type_def"_k = instance_type_def, "uuid"_k = uuid, "name"_k = name,
                                  "dns_address"_k = dns_address, "state"_k = global("NodeState"_s).get("STARTING"_s),
                                  "key_pair_name"_k = instance_config.get("key_pair_name"_s)});
        if (wait_until_cloud_provider_ready.truthy())
            wait_until_instance_status_ok(self, ec2, instance_id);
        return tuple({node, success()});
    } catch (const Raised& raised) {
        if (!raised.matches(client_error))
            throw;
        ExceptBlock block(raised);
        Handle ex = block.error();
        if (has_error_code(ex, "DryRunOperation"_s)) {
            Object result_class = global("OPResult"_s);
            Object code = global("OPResultErrorCode"_s).get("DRY_RUN_OPERATION"_s);
            return tuple({none(), result_class({"error"_k = true_(), "error_code"_k = code})});
        }
        self.get("logger"_s)
            .method("error"_s)({"Exception occurred when tyring to starting Cloud Worker"_s, "exc_info"_k = ex});
        return refused(ex);
    }
}

} // namespace cloud_node::aws
