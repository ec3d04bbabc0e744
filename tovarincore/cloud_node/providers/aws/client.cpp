// Credentials, session and client: made afresh for every operation, one at a time in the whole process.
#include "aws.h"

namespace cloud_node::aws {

namespace {
ClassCell own_class;
}

void keep_class(Handle built) { own_class.keep(built); }

Object init(Handle self, Handle region, Handle auth, Handle username)
{
    super_of(own_class, self).method("__init__"_s)({region});
    assert_that([&] { return !auth.is_none(); });
    assert_that([&] { return is_instance(auth, global("AWSCloudAuth"_s)); });
    assert_that([&] { return !username.is_none(); });
    self.set("auth"_s, auth);
    self.set("username"_s, username);
    return none();
}

Object create_session(Handle auth)
{
    Object session_class = import_from("boto3"_s, "Session"_s);
    if (auth.get("aws_profile"_s).truthy())
        return session_class({"profile_name"_k = auth.get("aws_profile"_s)});
    return session_class({"aws_access_key_id"_k = auth.get("aws_access_key_id"_s),
                          "aws_secret_access_key"_k = auth.get("aws_secret_access_key"_s),
                          "aws_session_token"_k = auth.get("aws_session_token"_s)});
}

Object get_client(Handle self)
{
    Object config_class = import_from("botocore.config"_s, "Config"_s);
    Object proxies = dict({});
    bool verify = !self.get("core_conf"_s).get("network__bypass_ssl_verification"_s).truthy();
    if (self.get("core_conf"_s).get("proxy_enabled"_s).truthy()) {
        auto [http_proxy, https_proxy] = unpack<2>(self.get("core_conf"_s).method("get_proxy_conf_tuple"_s)());
        proxies = dict({{"http"_s, http_proxy}, {"https"_s, https_proxy}});
    }
    // One attempt, deliberately: a failed EC2 call is not for the library to repeat.
    Object retries = dict({{"max_attempts"_s, number(1)}, {"mode"_s, "standard"_s}});
    Object config = config_class({"retries"_k = retries, "proxies"_k = proxies});
    auto client_lock = [] { return global("aws_node_manager_client_lock"_s); };
    Object session; // outlives the release, as in Python
    return holding_the(client_lock, [&] {
        Object create_session = self.get("_create_session"_s);
        session = create_session({self.get("auth"_s)});
        Object make_client = session.get("client"_s);
        return make_client({"ec2"_s, "region_name"_k = self.get("region"_s).get("name"_s), "config"_k = config,
                            "verify"_k = boolean(verify)});
    });
}

bool has_error_code(Handle client_error, Name code, Where where)
{
    return client_error.get("response"_s, where).contains("Error"_s, where) &&
           client_error.get("response"_s, where).item("Error"_s, where).contains("Code"_s, where) &&
           client_error.get("response"_s, where).item("Error"_s, where).item("Code"_s, where).equals(code, where);
}

Object refused(Handle client_error, Where where)
{
    Object result_class = global("OPResult"_s, where);
    Object message = error_message(client_error, where);
    return tuple({none(), result_class({"error"_k = true_(), "msg"_k = message}, where)}, where);
}

Object error_message(Handle client_error, Where where)
{
    return client_error.get("response"_s, where).item("Error"_s, where).item("Message"_s, where);
}

Object filter(Name name, Handle value, Where where)
{
    return dict({{"Name"_s, name}, {"Values"_s, list({value}, where)}}, where);
}

} // namespace cloud_node::aws
