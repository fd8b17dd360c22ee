#include "auth/FormEncoding.h"
#include "auth/IdTokenClaims.h"
#include "auth/IdentityServerCalls.h"
#include "client/SecretWipe.h"
#include "client/TextConversion.h"

#include <cpprest/http_client.h>
#include <cpprest/json.h>

#include <vector>

namespace {

// Wipes a secret string however the scope is left.
template <class Char> class WipeOnExit {
public:
    explicit WipeOnExit(std::basic_string<Char>& secret) : secret_(secret) {}
    ~WipeOnExit() { WipeSecret(secret_); }
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;

private:
    std::basic_string<Char>& secret_;
};

// With client_secret_basic the id and secret travel in the Authorization header instead, and
// RFC 6749 section 4.1.3 leaves client_id out of the body.
std::string TokenRequestBody(const std::string& clientId, const std::wstring& clientSecret,
                             ClientAuthentication authentication,
                             const AuthorizationCodeGrant& grant) {
    std::string body;
    AppendFormField(body, "grant_type", "authorization_code");
    AppendFormField(body, "code", grant.code);
    AppendFormField(body, "redirect_uri", grant.redirectUri);
    AppendFormField(body, "code_verifier", grant.codeVerifier);
    if (authentication == ClientAuthentication::SecretPost) {
        AppendFormField(body, "client_id", clientId);
        std::string secret = ToUtf8(clientSecret);
        const WipeOnExit<char> wipeSecret(secret);
        AppendFormField(body, "client_secret", secret);
    }
    return body;
}

// RFC 6749 section 2.3.1: id and secret are each form-encoded before they are joined for HTTP
// Basic, so a ':' in either survives.
utility::string_t BasicAuthorization(const std::string& clientId,
                                     const std::wstring& clientSecret) {
    std::string secret = ToUtf8(clientSecret);
    const WipeOnExit<char> wipeSecret(secret);
    std::string joined;
    const WipeOnExit<char> wipeJoined(joined);
    joined.reserve(3 * (clientId.size() + secret.size()) + 1); // no copy left behind by growth
    AppendFormEncoded(joined, clientId);
    joined += ':';
    AppendFormEncoded(joined, secret);
    std::vector<unsigned char> bytes(joined.begin(), joined.end());
    utility::string_t encoded = utility::conversions::to_base64(bytes);
    WipeSecretBytes(bytes.data(), bytes.size());
    const WipeOnExit<utility::char_t> wipeEncoded(encoded);
    return U("Basic ") + encoded;
}

std::wstring WideMember(const web::json::value& answer, const utility::char_t* name) {
    return answer.is_object() && answer.has_string_field(name) ? ToWide(answer.at(name).as_string())
                                                               : std::wstring();
}

IdentityServerRefusal TokenRefusal(const web::json::value& answer, web::http::status_code status) {
    const std::wstring description = WideMember(answer, U("error_description"));
    const std::wstring code = WideMember(answer, U("error"));
    if (description.empty() && code.empty()) {
        return IdentityServerRefusal(L"The identity server issued no access token (HTTP " +
                                     std::to_wstring(status) + L").");
    }
    return ErrorAnswerRefusal(description, code);
}

// Access tokens are printable ASCII (RFC 6749 appendix A.12), so the wide copy is made here
// rather than by a converter whose buffers could not be wiped.
std::wstring WideToken(const utility::string_t& token) {
    std::wstring wide;
    wide.reserve(token.size());
    for (const auto c : token) {
        if (c < 0x20 || c > 0x7E) {
            WipeSecret(wide);
            throw IdentityServerRefusal(L"The identity server issued an access token that is not "
                                        L"printable ASCII.");
        }
        wide += static_cast<wchar_t>(c);
    }
    return wide;
}

std::wstring TakeAccessToken(web::json::value& answer, web::http::status_code status,
                             const IdTokenExpectations& expected) {
    if (status != web::http::status_codes::OK || !answer.is_object() ||
        !answer.has_string_field(U("access_token")) ||
        answer.at(U("access_token")).as_string().empty()) {
        throw TokenRefusal(answer, status);
    }
    // The JSON value owns the token's only other copy; the value is ours, so its text may be
    // overwritten in place.
    auto& token = const_cast<utility::string_t&>(answer.at(U("access_token")).as_string());
    const WipeOnExit<utility::char_t> wipeToken(token);
    // An access token that came with an ID token of another login is not ours to use.
    if (answer.has_string_field(U("id_token"))) {
        CheckIdTokenClaims(answer.at(U("id_token")).as_string(), expected);
    }
    return WideToken(token);
}

} // namespace

std::wstring RedeemCode(const OpenIdEndpoints& endpoints, const std::string& clientId,
                        const std::wstring& clientSecret, const AuthorizationCodeGrant& grant) {
    web::http::http_request request(web::http::methods::POST);
    request.headers().add(U("Accept"), U("application/json"));
    if (endpoints.clientAuthentication == ClientAuthentication::SecretBasic) {
        utility::string_t authorization = BasicAuthorization(clientId, clientSecret);
        const WipeOnExit<utility::char_t> wipeAuthorization(authorization);
        request.headers().add(web::http::header_names::authorization, authorization);
    }
    {
        std::string body =
            TokenRequestBody(clientId, clientSecret, endpoints.clientAuthentication, grant);
        const WipeOnExit<char> wipeBody(body);
        // The UTF-8 overload takes the type as it stands; the UTF-16 one would append a charset,
        // and some identity servers compare the type literally.
        request.set_body(body, "application/x-www-form-urlencoded");
    }
    web::http::client::http_client client(endpoints.token);
    const web::http::http_response response = client.request(request).get();

    utility::string_t text =
        utility::conversions::to_string_t(response.extract_utf8string(true).get());
    const WipeOnExit<utility::char_t> wipeText(text);
    std::error_code notJson;
    web::json::value answer = web::json::value::parse(text, notJson);
    return TakeAccessToken(answer, response.status_code(),
                           {endpoints.issuer, clientId, grant.nonce});
}
