// The rows of the provider operations, which NodeManager declares and every provider repeats: one place for the
// interface's parameters, defaults and annotations. A class gives its own function, and its own docstring where it says
// more.
#pragma once

#include "../python/method.h"
#include "docs.h"

namespace cloud_node::provider_rows {

using py::method;
using py::Method;
using namespace py::literals;

template <auto Function> consteval Method launch_node(const char* doc = docs::launch_node)
{
    return method<Function>("launch_node"_s,
                            "self, instance_type_def: CloudInstanceTypeDef, "
                            "instance_config: CloudInstanceConfig, auth: Optional[CloudAuth] = None, "
                            "username: Optional[str] = None, dry_run=False, "
                            "wait_until_cloud_provider_ready=False, additional_params: Optional[str] = None, "
                            "startup_script: Optional[str] = None -> Tuple[Optional[CloudNode], OPResult]",
                            doc);
}

template <auto Function> consteval Method list_instances(const char* doc = docs::list_instances)
{
    return method<Function>("list_instances"_s, "self -> Tuple[Optional[List[CloudNode]], OPResult]", doc);
}

template <auto Function> consteval Method start_node(const char* doc = docs::start_node)
{
    return method<Function>("start_node"_s,
                            "self, instance_id: str, wait_until_cloud_provider_ready=False, reboot=False", doc);
}

// Deliberate: two providers have `reboot` first (test_surface.py holds it).
template <auto Function> consteval Method start_node_reboot_first()
{
    return method<Function>("start_node"_s,
                            "self, instance_id: str, reboot=False, wait_until_cloud_provider_ready=False",
                            docs::start_node);
}

template <auto Function> consteval Method stop_node(const char* doc = docs::stop_node)
{
    return method<Function>("stop_node"_s, "self, instance_id: str", doc);
}

template <auto Function> consteval Method terminate_node(const char* doc = docs::terminate_node)
{
    return method<Function>("terminate_node"_s, "self, instance_id: str, stop_reason: Optional[str] = None", doc);
}

template <auto Function> consteval Method list_instance_templates(const char* doc = docs::list_instance_templates)
{
    return method<Function>("list_instance_templates"_s,
                            "self, is_public: bool = True -> Tuple[List[InstanceTemplate], OPResult]", doc);
}

template <auto Function> consteval Method list_instance_types(const char* doc = docs::list_instance_types)
{
    return method<Function>("list_instance_types"_s, "self -> Tuple[List[CloudInstanceTypeDef], OPResult]", doc);
}

template <auto Function> consteval Method create_key_pair(const char* doc = docs::create_key_pair)
{
    return method<Function>("create_key_pair"_s,
                            "self, key_pair_name: str, username: Optional[str] -> Tuple[Optional[str], OPResult]", doc);
}

template <auto Function> consteval Method delete_key_pair(const char* doc = docs::delete_key_pair)
{
    return method<Function>("delete_key_pair"_s, "self, key_pair_name: str", doc);
}

} // namespace cloud_node::provider_rows
