// The product's security group: found or created, and completed with the inbound rules it lacks, before every launch.
#include "aws.h"

namespace cloud_node::aws {

namespace {

// A custom VPC without a custom subnet is ignored on purpose. Read again at each mention, as Python does.
bool uses_custom_vpc(Handle self)
{
    return self.get("core_conf"_s).get("network__aws_custom_vpc"_s).truthy() &&
           self.get("core_conf"_s).get("network__aws_custom_subnet"_s).truthy();
}

// Open to every IPv4 address: the intended design.
Object permission_for(Handle rule)
{
    return dict(
        {{"FromPort"_s, rule.get("from_port"_s)},
         {"IpProtocol"_s, rule.get("ip_protocol"_s)},
         {"ToPort"_s, rule.get("to_port"_s)},
         {"IpRanges"_s, list({dict({{"CidrIp"_s, "0.0.0.0/0"_s}, {"Description"_s, rule.get("description"_s)}})})}});
}

} // namespace

Object _check_and_get_security_group_id(Handle self)
{
    Object security_group_name = self.get("tovarin_security_group_name"_s);
    Object security_group_id = self.method("_get_security_group_id"_s)({security_group_name});
    if (!security_group_id.truthy()) {
        self.get("logger"_s)
            .method("debug"_s)({concat({"Security Group does not exist. Creating : "_s, security_group_name})});
        security_group_id = self.method("_create_security_group"_s)({security_group_name});
    }
    self.method("_add_not_existing_inbound_rules"_s)({security_group_id});
    return security_group_id;
}

Object _get_default_vpc_id(Handle self)
{
    Object response = self.method("_get_client"_s)().method("describe_vpcs"_s)(
        {"Filters"_k = list({filter("isDefault"_s, "true"_s)})});
    return str(response.item("Vpcs"_s).first().item("VpcId"_s));
}

Object _get_security_group_id(Handle self, Handle name)
{
    Object ClientError = import_from("botocore.exceptions"_s, "ClientError"_s);
    try {
        Object filters = list({filter("group-name"_s, name)});
        if (uses_custom_vpc(self))
            append(filters, filter("vpc-id"_s, self.get("core_conf"_s).get("network__aws_custom_vpc"_s)));
        Object response = self.method("_get_client"_s)().method("describe_security_groups"_s)({"Filters"_k = filters});
        if (response.contains("SecurityGroups"_s) && response.item("SecurityGroups"_s).truthy())
            return response.item("SecurityGroups"_s).first().item("GroupId"_s);
        self.get("logger"_s).method("debug"_s)({concat({"Security Group : "_s, name, " Not Exists"_s})});
        return none();
    } catch (const Raised& raised) {
        ExceptBlock except(raised, ClientError);
        self.get("logger"_s)
            .method("debug"_s)({concat({"Security Group : "_s, name, " Not Exists"_s}), "exc_info"_k = true_()});
        return none();
    }
}

Object _create_security_group(Handle self, Handle name)
{
    Object vpc_id = uses_custom_vpc(self) ? self.get("core_conf"_s).get("network__aws_custom_vpc"_s)
                                          : self.method("_get_default_vpc_id"_s)();
    Object response = self.method("_get_client"_s)().method("create_security_group"_s)(
        {"Description"_k = "Tovarin AI security group"_s, "GroupName"_k = name, "VpcId"_k = vpc_id});
    self.get("logger"_s).method("info"_s)({concat({"Security Group : "_s, name, " created"_s})});
    return response.item("GroupId"_s);
}

Object _list_inbound_security_group_rules(Handle self, Handle security_group_id)
{
    Object response = self.method("_get_client"_s)().method("describe_security_group_rules"_s)(
        {"Filters"_k = list({filter("group-id"_s, security_group_id)})});
    Object rules = list({});
    for (Object rule : each(response.item("SecurityGroupRules"_s))) {
        if (rule.item("IsEgress"_s).truthy())
            continue;
        append(rules, global("SecurityGroupRule"_s)(
                          {rule.item("FromPort"_s), rule.item("ToPort"_s), rule.item("IpProtocol"_s)}));
    }
    return rules;
}

Object _add_inbound_security_group_rules(Handle self, Handle security_group_id, Handle rules)
{
    Object ip_permissions = list({});
    for (Object rule : each(rules))
        append(ip_permissions, permission_for(rule));
    self.method("_get_client"_s)().method("authorize_security_group_ingress"_s)(
        {"GroupId"_k = security_group_id, "IpPermissions"_k = ip_permissions});
    return none();
}

Object _add_not_existing_inbound_rules(Handle self, Handle security_group_id)
{
    Object not_existing_rules = list({});
    Object existing_rules = self.method("_list_inbound_security_group_rules"_s)({security_group_id});
    for (Object inbound_rule : each(global("SecurityGroupRules"_s).get("inbound_list"_s))) {
        Object found = first_match(existing_rules, [&](Handle rule) { return rule.equals(inbound_rule); });
        if (!found.truthy()) {
            self.get("logger"_s).method("debug"_s)({formatted("Inbound Rule Not Found : "_s, inbound_rule)});
            append(not_existing_rules, inbound_rule);
        } else {
            self.get("logger"_s).method("debug"_s)({formatted("Inbound Rule Found : "_s, found)});
        }
    }
    if (not_existing_rules.truthy()) {
        self.method("_add_inbound_security_group_rules"_s)({security_group_id, not_existing_rules});
        self.get("logger"_s).method("debug"_s)({"Added not existing rules"_s});
    } else {
        self.get("logger"_s).method("debug"_s)({"All rules exists. Nothing to do"_s});
    }
    return none();
}

} // namespace cloud_node::aws
