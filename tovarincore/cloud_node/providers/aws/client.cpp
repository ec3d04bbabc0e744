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

Object _create_session(Handle auth)
{
    Object Session = import_from("boto3"_s, "Session"_s);
    if (auth.get("aws_profile"_s).truthy())
        return Session({"profile_name"_k = auth.get("aws_profile"_s)});
    return Session({"aws_access_key_id"_k = auth.get("aws_access_key_id"_s),
                    "aws_secret_access_key"_k = auth.get("aws_secret_access_key"_s),
                    "aws_session_token"_k = auth.get("aws_session_token"_s)});
}

Object _get_client(Handle self)
{
    Object Config = import_from("botocore.config"_s, "Config"_s);
    Object proxies = dict({});
    bool verify = !self.get("core_conf"_s).get("network__bypass_ssl_verification"_s).truthy();
    if (self.get("core_conf"_s).get("proxy_enabled"_s).truthy()) {
        auto [http_proxy, https_proxy] = unpack<2>(self.get("core_conf"_s).method("get_proxy_conf_tuple"_s)());
        proxies = dict({{"http"_s, http_proxy}, {"https"_s, https_proxy}});
    }
    // The SDK counts repetitions here, not attempts: it sends a request twice at most.
    Object config =
        Config({"retries"_k = dict({{"max_attempts"_s, number(1)}, {"mode"_s, "standard"_s}}), "proxies"_k = proxies});
    Object session; // outlives the release, as in Python
    return holding(global("aws_node_manager_client_lock"_s), [&] {
        session = self.method("_create_session"_s)({self.get("auth"_s)});
        return session.method("client"_s)({"ec2"_s, "region_name"_k = self.get("region"_s).get("name"_s),
                                           "config"_k = config, "verify"_k = boolean(verify)});
    });
}

bool has_error_code(Handle client_error, Name code)
{
    return client_error.get("response"_s).contains("Error"_s) &&
           client_error.get("response"_s).item("Error"_s).contains("Code"_s) &&
           client_error.get("response"_s).item("Error"_s).item("Code"_s).equals(code);
}

Object error_message(Handle client_error) { return client_error.get("response"_s).item("Error"_s).item("Message"_s); }

Object refused(Handle client_error)
{
    return tuple({none(), global("OPResult"_s)({"error"_k = true_(), "msg"_k = error_message(client_error)})});
}

Object filter(Name name, Handle value) { return dict({{"Name"_s, name}, {"Values"_s, list({value})}}); }

Object tag(Name key, Handle value) { return dict({{"Key"_s, key}, {"Value"_s, value}}); }

} // namespace cloud_node::aws
