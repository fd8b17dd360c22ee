#include "auth/IdentityServerCalls.h"
#include "client/TextConversion.h"

#include <cpprest/http_client.h>
#include <cpprest/json.h>

namespace {

utility::string_t TextMember(const web::json::value& object, const utility::string_t& name) {
    if (object.is_object() && object.has_string_field(name)) {
        return object.at(name).as_string();
    }
    return utility::string_t();
}

} // namespace

OpenIdEndpoints DiscoverEndpoints(const std::wstring& identityServerUrl) {
    web::uri_builder address(ToStringT(identityServerUrl));
    address.append_path(U(".well-known/openid-configuration"));
    web::http::client::http_client client(address.to_uri());
    const web::http::http_response response = client.request(web::http::methods::GET).get();
    if (response.status_code() != web::http::status_codes::OK) {
        throw IdentityServerRefusal(L"The identity server at " + identityServerUrl +
                                    L" has no OpenID configuration (HTTP " +
                                    std::to_wstring(response.status_code()) + L").");
    }
    std::error_code notJson;
    const auto configuration = web::json::value::parse(response.extract_string(true).get(), notJson);
    OpenIdEndpoints endpoints{TextMember(configuration, U("issuer")),
                              TextMember(configuration, U("authorization_endpoint")),
                              TextMember(configuration, U("token_endpoint"))};
    if (endpoints.authorization.empty() || endpoints.token.empty()) {
        throw IdentityServerRefusal(L"The OpenID configuration of the identity server at " +
                                    identityServerUrl +
                                    L" names no authorization or token endpoint.");
    }
    return endpoints;
}
