// The product's worker as one container on the user's machine: each operation is a call on the container helper.
#include "../../registry/provider_rows.h"
#include "docs.h"
#include "local.h"

namespace cloud_node {

namespace {

ClassCell own_class;

Object init(Handle self, Handle region)
{
    super_of(own_class, self).method("__init__"_s)({region});
    self.set("container_helper"_s, global("ContainerHelper"_s)());
    return none();
}

Object list_instances(Handle self)
{
    Object node = self.get("container_helper"_s).method("get_existing_node"_s)();
    if (node.is_none())
        return tuple({list({}), success()});
    return tuple({list({node}), success()});
}

Object launch_node(Handle self, Handle, Handle instance_config, Handle, Handle, Handle, Handle, Handle, Handle)
{
    assert_that(
        [&] {
            return instance_config.truthy() && instance_config.get("instance_template"_s).truthy() &&
                   instance_config.get("instance_template"_s).get("version"_s).truthy();
        },
        "Version must be provided to start a new local container"_s);
    return self.get("container_helper"_s)
        .method("run_tvr_container_image"_s)({instance_config.get("instance_template"_s).get("version"_s)});
}

Object start_node(Handle self, Handle, Handle reboot, Handle)
{
    self.get("container_helper"_s).method("start_tovarin_container"_s)({"reboot"_k = reboot});
    return none();
}

Object stop_node(Handle self, Handle)
{
    self.get("container_helper"_s).method("stop_tovarin_container"_s)();
    return none();
}

// Deliberate: only this one passes the helper's result on (test_local.py holds it).
Object terminate_node(Handle self, Handle, Handle)
{
    return self.get("container_helper"_s).method("delete_tovarin_container"_s)();
}

Object list_instance_templates(Handle self, Handle)
{
    Object versions = self.get("container_helper"_s).method("list_tvr_container_image_versions"_s)();
    if (!versions.truthy())
        return tuple({list({}), success()});
    Object instance_templates = list({});
    Object region = global("CloudRegions"_s).method("get_local_container_region"_s)();
    assert_that([&] { return !region.is_none(); });
    for (Object version : each(versions))
        append(instance_templates,
               global("InstanceTemplate"_s)({"instance_template_id"_k = version, "name"_k = version,
                                             "product_pay_type"_k = global("InstanceTemplatePayType"_s).get("DEV"_s),
                                             "created_date"_k = global("datetime"_s).method("now"_s)(),
                                             "region"_k = region, "version"_k = version}));
    return tuple({instance_templates, success()});
}

Object list_instance_types(Handle)
{
    return tuple({list({global("CloudInstances"_s).method("get_default_local_instance_type"_s)()}), success()});
}

constexpr Method methods[] = {
    method<init>("__init__"_s, "self, region: CloudRegion", docs::node_manager_init),
    provider_rows::list_instances<list_instances>(),
    provider_rows::launch_node<launch_node>(),
    provider_rows::start_node_reboot_first<start_node>(),
    provider_rows::stop_node<stop_node>(),
    provider_rows::terminate_node<terminate_node>(),
    provider_rows::list_instance_templates<list_instance_templates>(),
    provider_rows::list_instance_types<list_instance_types>(),
};

} // namespace

void build_local_container_node_manager()
{
    own_class.keep(build_class({"LocalContainerNodeManager", local::docs::local_container_node_manager, methods},
                               {global("NodeManager"_s)}));
}

} // namespace cloud_node
