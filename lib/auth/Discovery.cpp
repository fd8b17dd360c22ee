#include "auth/IdentityServerCalls.h"
#include "client/TextConversion.h"

#include <cpprest/http_client.h>
#include <cpprest/json.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace {

utility::string_t TextMember(const web::json::value& object, const utility::string_t& name) {
    if (object.is_object() && object.has_string_field(name)) {
        return object.at(name).as_string();
    }
    return utility::string_t();
}

using TextList = std::vector<utility::string_t>;

// The texts of a list member; nothing when the document leaves the member out.
std::optional<TextList> ListMember(const web::json::value& object, const utility::string_t& name) {
    if (!object.is_object() || !object.has_field(name)) {
        return std::nullopt;
    }
    TextList texts;
    if (object.at(name).is_array()) {
        for (const auto& item : object.at(name).as_array()) {
            if (item.is_string()) {
                texts.push_back(item.as_string());
            }
        }
    }
    return texts;
}

bool Holds(const TextList& list, const utility::char_t* text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

std::wstring Listed(const TextList& list) {
    std::wstring text;
    for (const auto& item : list) {
        text += (text.empty() ? L"" : L", ") + ToWide(item);
    }
    return text.empty() ? L"none" : text;
}

// OpenID Connect Discovery 1.0 section 3: a document without the list means client_secret_basic.
ClientAuthentication ChooseClientAuthentication(const web::json::value& configuration) {
    const auto offered = ListMember(configuration, U("token_endpoint_auth_methods_supported"));
    if (!offered || Holds(*offered, U("client_secret_basic"))) {
        return ClientAuthentication::SecretBasic;
    }
    if (Holds(*offered, U("client_secret_post"))) {
        return ClientAuthentication::SecretPost;
    }
    throw IdentityServerRefusal(L"The identity server accepts neither client_secret_basic nor "
                                L"client_secret_post for this application; it offers " +
                                Listed(*offered) + L".");
}

// OpenID Connect Discovery does not define this list, and many identity servers that take PKCE
// leave it out; a list without S256 says that this one cannot take ours.
void RequireS256(const web::json::value& configuration) {
    const auto offered = ListMember(configuration, U("code_challenge_methods_supported"));
    if (offered && !Holds(*offered, U("S256"))) {
        throw IdentityServerRefusal(L"The identity server does not take the S256 code challenge "
                                    L"(PKCE) that this login sends; it offers " +
                                    Listed(*offered) + L".");
    }
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
                              TextMember(configuration, U("token_endpoint")),
                              ClientAuthentication::SecretBasic};
    if (endpoints.authorization.empty() || endpoints.token.empty()) {
        throw IdentityServerRefusal(L"The OpenID configuration of the identity server at " +
                                    identityServerUrl +
                                    L" names no authorization or token endpoint.");
    }
    RequireS256(configuration);
    endpoints.clientAuthentication = ChooseClientAuthentication(configuration);
    return endpoints;
}
