#include "contracts.h"

namespace cloud_node {

namespace {

// from <module> import <names>; or, where `names` is empty, import <module>
struct Import {
    Name module;
    std::initializer_list<Name> names;
};

void bind(const Import& statement)
{
    if (statement.names.size() == 0) {
        set_global(statement.module, import_module(statement.module));
        return;
    }
    Object module = import_for_names(statement.module, statement.names);
    for (Name name : statement.names)
        set_global(name, name_of_module(module, name));
}

} // namespace

void bind_imports()
{
    bind({"datetime"_s, {"datetime"_s}});
    bind({"logging"_s, {}});
    bind({"threading"_s, {}});
    bind({"abc"_s, {"ABC"_s, "abstractmethod"_s}});
    bind({"copy"_s, {"deepcopy"_s}});
    bind({"typing"_s, {"List"_s, "Optional"_s, "Tuple"_s, "TYPE_CHECKING"_s, "Any"_s, "Union"_s}});
    bind({"tovarincore.api_def"_s, {"PingRequest"_s}});
    bind({"tovarincore.cloud_conf"_s, {"CloudConfManager"_s}});
    bind({"tovarincore.cloud_def"_s,
          {"CloudInstanceTypeDef"_s, "CloudRegion"_s, "CloudInstanceConfig"_s, "CloudInstances"_s, "CloudAuth"_s,
           "AWSCloudAuth"_s, "CloudNode"_s, "AWSCloudNode"_s, "NodeState"_s, "SecurityGroupRule"_s,
           "SecurityGroupRules"_s, "InstanceTemplate"_s, "InstanceTemplatePayType"_s, "CloudRegions"_s, "K8sRegion"_s,
           "CpuPlanA"_s, "GpuPlanA"_s, "CpuPlanB"_s, "GpuPlanB"_s}});
    bind({"tovarincore.container_helper"_s, {"ContainerHelper"_s}});
    bind({"tovarincore.core_conf"_s, {"CoreConf"_s, "core_conf_glbl"_s, "log_manager_glbl"_s}});
    bind({"tovarincore.core_def"_s, {"OPResult"_s, "OPResultErrorCode"_s, "CoreDef"_s}});
    bind({"tovarincore.k8s_console_client"_s, {"K8sConsoleClient"_s}});
    bind({"tovarincore.util"_s, {"ObjectMetaTextUtil"_s}});
    bind({"tovarincore.webs_client"_s, {"WebSocketClient"_s}});
    if (global("TYPE_CHECKING"_s).truthy()) {
        bind({"boto3"_s, {"Session"_s}});
        bind({"botocore.client"_s, {"BaseClient"_s}});
    }
}

Object success() { return global("OPResult"_s)({"success"_k = true_()}); }

Object probe_client(Handle node) { return global("WebSocketClient"_s)({node, "client_timeout_sec"_k = number(2)}); }

} // namespace cloud_node
