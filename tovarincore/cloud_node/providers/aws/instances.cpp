// Listing the user's instances, and the requests that start, stop and end one.
#include "aws.h"

namespace cloud_node::aws {

namespace {

// [instance_id], the form in which every lifecycle request names its one instance
Object only(Handle instance_id) { return list({instance_id}); }

struct Tags {
    Object uuid{"-"_s};
    Object name{"-"_s};
};

// A later tag of the same key overwrites an earlier one.
Tags tags_of(Handle instance)
{
    Tags tags;
    if (!instance.contains("Tags"_s))
        return tags;
    for (Object item : each(instance.item("Tags"_s))) {
        if (item.item("Key"_s).equals("tovarin_uuid"_s))
            tags.uuid = item.item("Value"_s);
        else if (item.item("Key"_s).equals("Name"_s))
            tags.name = item.item("Value"_s);
    }
    return tags;
}

Object instance_profile_name_of(Handle instance)
{
    if (!instance.contains("IamInstanceProfile"_s))
        return none();
    return global("ObjectMetaTextUtil"_s)
        .method("get_profile_name_from_arn"_s)({str(instance.item("IamInstanceProfile"_s).item("Arn"_s))});
}

Object key_pair_name_of(Handle instance)
{
    return instance.contains("KeyName"_s) ? str(instance.item("KeyName"_s)) : none();
}

Object node_from(Handle self, Handle instance)
{
    Object instance_type = instance.item("InstanceType"_s);
    Object found_instance_type_def = first_match(global("CloudInstances"_s).get("instance_type_list"_s), [&](Handle x) {
        return x.get("instance_type"_s).equals(instance_type);
    });
    Object state = instance.item("State"_s).item("Name"_s).method("capitalize"_s)();
    Tags tags = tags_of(instance);
    Object dns_address = dns_address_of(instance);
    Object instance_profile_name = instance_profile_name_of(instance);
    Object key_pair_name = key_pair_name_of(instance);
    // By design an unknown type stops the whole listing: a partial list would empty the registry of the rest.
    assert_that([&] { return !found_instance_type_def.is_none(); });
    return global("AWSCloudNode"_s)(
        {"region"_k = self.get("region"_s), "instance_id"_k = instance.item("InstanceId"_s), "uuid"_k = tags.uuid,
         "name"_k = tags.name, "instance_type_def"_k = found_instance_type_def, "dns_address"_k = dns_address,
         "state"_k = global("NodeState"_s).method("from_aws_value"_s)({state}),
         "instance_profile_name"_k = instance_profile_name, "key_pair_name"_k = key_pair_name});
}

} // namespace

Object dns_address_of(Handle instance)
{
    Object dns_address = str(instance.item("PublicDnsName"_s));
    if (!dns_address.truthy() || len(dns_address) < 5)
        dns_address = str(instance.item("PrivateDnsName"_s));
    return dns_address;
}

void wait_until_instance_status_ok(Handle self, Handle ec2, Handle instance_id)
{
    self.get("logger"_s).method("debug"_s)({"Waiting until AWS states Cloud Worker is ready"_s});
    Object waiter = ec2.method("get_waiter"_s)({"instance_status_ok"_s});
    waiter.method("wait"_s)({"InstanceIds"_k = only(instance_id)});
    self.get("logger"_s).method("debug"_s)({"AWS stated Cloud Worker is ready"_s});
}

Object list_instances(Handle self)
{
    Object ec2 = self.method("_get_client"_s)();
    Object filters = list({filter("tag:tovarin_username"_s, self.get("username"_s))});
    Object response = ec2.method("describe_instances"_s)({"Filters"_k = filters});
    Object instances = list({});
    for (Object reservation : each(response.item("Reservations"_s)))
        for (Object instance : each(reservation.item("Instances"_s)))
            append(instances, node_from(self, instance));
    return tuple({instances, success()});
}

Object start_node(Handle self, Handle instance_id, Handle wait_until_cloud_provider_ready, Handle reboot)
{
    Object ec2 = self.method("_get_client"_s)();
    Object response = ec2.method(reboot.truthy() ? "reboot_instances"_s : "start_instances"_s)(
        {"InstanceIds"_k = only(instance_id), "DryRun"_k = false_()});
    self.get("logger"_s).method("debug"_s)({response});
    if (!wait_until_cloud_provider_ready.truthy())
        return none();
    try {
        wait_until_instance_status_ok(self, ec2, instance_id);
    } catch (const Raised& raised) {
        ExceptBlock except(raised);
        self.get("logger"_s).method("error"_s)({"AWS wait failed."_s, "exc_info"_k = true_()});
    }
    return none();
}

Object stop_node(Handle self, Handle instance_id)
{
    Object ec2 = self.method("_get_client"_s)();
    Object response = ec2.method("stop_instances"_s)(
        {"InstanceIds"_k = only(instance_id), "Hibernate"_k = false_(), "DryRun"_k = false_(), "Force"_k = true_()});
    self.get("logger"_s).method("debug"_s)({response});
    return none();
}

Object terminate_node(Handle self, Handle instance_id, Handle)
{
    Object ec2 = self.method("_get_client"_s)();
    Object response = ec2.method("terminate_instances"_s)({"InstanceIds"_k = only(instance_id), "DryRun"_k = false_()});
    self.get("logger"_s).method("debug"_s)({response});
    return success();
}

} // namespace cloud_node::aws
