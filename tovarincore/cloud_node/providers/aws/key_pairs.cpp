// Key pairs: the private key is handed back once, in memory, and written nowhere.
#include "aws.h"

namespace cloud_node::aws {

Object create_key_pair(Handle self, Handle key_pair_name, Handle username)
{
    Object ClientError = import_from("botocore.exceptions"_s, "ClientError"_s);
    Object owner(username);
    try {
        Object ec2 = self.method("_get_client"_s)();
        if (owner.is_none())
            owner = Object("Unknown"_s);
        Object tags = list({tag("tovarin_username"_s, owner)});
        Object response = ec2.method("create_key_pair"_s)(
            {"KeyName"_k = key_pair_name,
             "TagSpecifications"_k = list({dict({{"ResourceType"_s, "key-pair"_s}, {"Tags"_s, tags}})})});
        return tuple({response.item("KeyMaterial"_s), success()});
    } catch (const Raised& raised) {
        ExceptBlock except(raised, ClientError);
        Handle ex = except.error();
        self.get("logger"_s)
            .method("error"_s)({concat({"Exception occurred when tyring to create key_pair_name: "_s, key_pair_name,
                                        " username: "_s, owner}),
                                "exc_info"_k = true_()});
        if (!has_error_code(ex, "UnauthorizedOperation"_s))
            return refused(ex);
        Object result = global("OPResult"_s)(
            {"error"_k = true_(), "error_code"_k = global("OPResultErrorCode"_s).get("UNAUTHORIZED_OPERATION"_s),
             "msg"_k = error_message(ex)});
        return tuple({none(), result});
    }
}

Object delete_key_pair(Handle self, Handle key_pair_name)
{
    self.method("_get_client"_s)().method("delete_key_pair"_s)({"KeyName"_k = key_pair_name});
    return none();
}

} // namespace cloud_node::aws
