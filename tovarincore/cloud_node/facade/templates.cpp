// The catalogue of a region, and the default template for a usage plan.
#include "facade.h"

namespace cloud_node::facade {

Object list_current_instance_templates(Handle self, Handle region, Handle auth, Handle is_public)
{
    Object node_manager = self.method("_get_node_manager"_s)({region, "auth"_k = auth});
    return node_manager.method("list_instance_templates"_s)({"is_public"_k = is_public});
}

Object list_instance_types(Handle self, Handle region)
{
    Object node_manager = self.method("_get_node_manager"_s)({region});
    return node_manager.method("list_instance_types"_s)();
}

Object get_default_instance_template(Handle self, Handle region, Handle auth, Handle plan)
{
    auto [instance_templates, op_result] =
        unpack<2>(self.method("list_current_instance_templates"_s)({region, auth, "is_public"_k = true_()}));
    if (!instance_templates.truthy())
        return none();
    Object is_gpu, pay_type;
    auto wants = [&](Handle gpu, Name type) {
        is_gpu = Object(gpu);
        pay_type = global("InstanceTemplatePayType"_s).get(type);
    };
    if (is_instance(plan, global("CpuPlanA"_s)))
        wants(false_(), "PLAN_A"_s);
    else if (is_instance(plan, global("GpuPlanA"_s)))
        wants(true_(), "PLAN_A"_s);
    else if (is_instance(plan, global("CpuPlanB"_s)))
        wants(false_(), "PLAN_B"_s);
    else if (is_instance(plan, global("GpuPlanB"_s)))
        wants(true_(), "PLAN_B"_s);
    else
        return none();
    return self.method("_CloudManager__extract_instance_template"_s)({instance_templates, pay_type, is_gpu});
}

Object extract_instance_template(Handle instance_templates, Handle pay_type, Handle is_gpu)
{
    return first_match(instance_templates, [&](Handle t) {
        return t.get("is_gpu"_s).equals(is_gpu) && t.get("product_pay_type"_s).equals(pay_type);
    });
}

} // namespace cloud_node::facade
