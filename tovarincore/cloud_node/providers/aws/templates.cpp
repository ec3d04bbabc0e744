// The product's machine images, as instance templates. Instance types come from configuration, not from EC2.
#include "aws.h"

namespace cloud_node::aws {

Object list_instance_templates(Handle self, Handle is_public)
{
    Object ec2 = self.method("_get_client"_s)();
    Object filters = list({filter("name"_s, "TOVARIN_AI_*"_s)});
    if (is_public.truthy())
        append(filters, filter("is-public"_s, "true"_s));
    Object response = ec2.method("describe_images"_s)({"Filters"_k = filters});
    Object result_list = list({});
    if (response.contains("Images"_s)) {
        Object parse = import_from("dateutil.parser"_s, "parse"_s);
        for (Object image : each(response.item("Images"_s))) {
            // EC2's wall clock, in UTC, without saying so: the dates compare with one another.
            Object creation_date = parse({image.item("CreationDate"_s)}).method("replace"_s)({"tzinfo"_k = none()});
            Object instance_template =
                global("InstanceTemplate"_s)
                    .method("create_from"_s)({"image_template_id"_k = image.item("ImageId"_s),
                                              "image_template_name"_k = image.item("Name"_s),
                                              "creation_date"_k = creation_date, "region"_k = self.get("region"_s)});
            if (!instance_template.is_none())
                append(result_list, instance_template);
        }
    }
    return tuple({result_list, success()});
}

Object list_instance_types(Handle) { return tuple({list({}), success()}); }

} // namespace cloud_node::aws
