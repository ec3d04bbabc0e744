// Key pairs: the private key is handed back once, in memory, and written nowhere.
#include "aws.h"

namespace cloud_node::aws {

Object create_key_pair(Handle self, Handle key_pair_name, Handle username)
{
    Object client_error = import_from("botocore.exceptions"_s, "ClientError"_s);
    Object owner(username);
    try {
        Object ec2 = self.method("_get_client"_s)();
        if (owner.is_none())
            owner = Object("Unknown"_s);
        Object tags = list({dict({{"Key"_s, "tovarin_username"_s}, {"Value"_s, owner}})});
        Object response = ec2.method("create_key_pair"_s)(
            {"KeyName"_k = key_pair_name,
             "TagSpecifications"_k = list({dict({{"ResourceType"_s, "key-pair"_s}, {"Tags"_s, tags}})})});
        Object private_key = response.item("KeyMaterial"_s);
        return tuple({private_key, success()});
    } catch (const Raised& raised) {
        if (!raised.matches(client_error))
            throw;
        ExceptBlock block(raised);
        Handle ex = block.error();
        Object log = self.get("logger"_s).get("error"_s);
        log({concat(
                 {"Exception occurred when tyring to create key_pair_name: "_s, key_pair_name, " username: "_s, owner}),
             "exc_info"_k = true_()});
        if (!has_error_code(ex, "UnauthorizedOperation"_s))
            return refused(ex);
        Object result_class = global("OPResult"_s);
        Object code = global("OPResultErrorCode"_s).get("UNAUTHORIZED_OPERATION"_s);
        return tuple({none(), result_class({"error"_k = true_(), "error_code"_k = code, "msg"_k = error_message(ex)})});
    }
}

Object delete_key_pair(Handle self, Handle key_pair_name)
{
    self.method("_get_client"_s)().method("delete_key_pair"_s)({"KeyName"_k = key_pair_name});
    return none();
}

} // namespace cloud_node::aws
