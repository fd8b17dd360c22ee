#include "auth/IdentityLogin.h"
#include "auth/IdentityServerCalls.h"
#include "auth/LoginSettings.h"
#include "auth/LoopbackListener.h"
#include "auth/Pkce.h"
#include "client/SecretWipe.h"
#include "client/TextConversion.h"

#include <cpprest/base_uri.h>
#include <cpprest/uri_builder.h>

namespace {

constexpr int kLoggedIn = 0;
constexpr int kRefused = 1;
constexpr int kTimedOut = 2;

// The identity server knows this application by this id; the client credential that the caller
// passes is its secret.
const std::string kClientId = "lxdesktop";
const std::string kCallbackPath = "/callback";

// The random texts of one login. 32 bytes make the 43-character verifier that RFC 7636 asks
// for at least; the state and the nonce only have to be unguessable. Some identity servers
// refuse a login without a nonce once the scope holds openid.
struct LoginSecrets {
    LoginSecrets()
        : codeVerifier(RandomUrlSafeText(32)), codeChallenge(CodeChallengeS256(codeVerifier)),
          state(RandomUrlSafeText(16)), nonce(RandomUrlSafeText(16)) {}
    ~LoginSecrets() { WipeSecret(codeVerifier); }
    LoginSecrets(const LoginSecrets&) = delete;
    LoginSecrets& operator=(const LoginSecrets&) = delete;

    std::string codeVerifier;
    std::string codeChallenge;
    std::string state;
    std::string nonce;
};

std::wstring AuthorizationUrl(const utility::string_t& endpoint, const std::string& redirectUri,
                              const LoginSecrets& secrets) {
    using utility::conversions::to_string_t;
    web::uri_builder url(endpoint);
    url.append_query(U("response_type"), U("code"));
    url.append_query(U("client_id"), to_string_t(kClientId));
    url.append_query(U("redirect_uri"), to_string_t(redirectUri));
    // openid alone: the identity server decides which service the access token is for.
    url.append_query(U("scope"), U("openid"));
    url.append_query(U("state"), to_string_t(secrets.state));
    url.append_query(U("nonce"), to_string_t(secrets.nonce));
    url.append_query(U("code_challenge"), to_string_t(secrets.codeChallenge));
    url.append_query(U("code_challenge_method"), U("S256"));
    return ToWide(url.to_string());
}

std::string FieldOr(const LoopbackListener::Fields& fields, const char* name) {
    const auto field = fields.find(name);
    return field == fields.end() ? std::string() : field->second;
}

std::string RequireCode(const LoopbackListener::Fields& redirect, const utility::string_t& issuer) {
    const std::string error = FieldOr(redirect, "error");
    if (!error.empty()) {
        throw ErrorAnswerRefusal(FromUtf8(FieldOr(redirect, "error_description")), FromUtf8(error));
    }
    // RFC 9207: an identity server that names itself in the answer must be the one we asked.
    const std::string answeredBy = FieldOr(redirect, "iss");
    if (!answeredBy.empty() && answeredBy != utility::conversions::to_utf8string(issuer)) {
        throw IdentityServerRefusal(L"The answer to the login came from another identity server.");
    }
    const std::string code = FieldOr(redirect, "code");
    if (code.empty()) {
        throw IdentityServerRefusal(L"The identity server answered the login without a code.");
    }
    return code;
}

IdentityLoginResult Login(const std::wstring& identityServerUrl, const std::wstring& clientSecret) {
    const OpenIdEndpoints endpoints = DiscoverEndpoints(identityServerUrl);
    const LoginSecrets secrets;
    LoopbackListener listener(kCallbackPath);
    const std::string redirectUri = listener.RedirectUri();
    if (!OpenLoginPage(AuthorizationUrl(endpoints.authorization, redirectUri, secrets))) {
        throw IdentityServerRefusal(L"The web browser could not be started for the login.");
    }
    // A user who closes the browser never comes back; the time limit ends that login too.
    const auto redirect = listener.WaitForRedirect(secrets.state, LoginTimeout());
    if (!redirect) {
        return {std::wstring(), std::wstring(), kTimedOut};
    }
    try {
        const std::string code = RequireCode(*redirect, endpoints.issuer);
        std::wstring token = RedeemCode(endpoints, kClientId, clientSecret,
                                        {code, redirectUri, secrets.codeVerifier, secrets.nonce});
        listener.AnswerBrowser(true);
        return {std::move(token), std::wstring(), kLoggedIn};
    } catch (...) {
        listener.AnswerBrowser(false);
        throw;
    }
}

} // namespace

IdentityLoginResult LoginAtIdentityServer(const std::wstring& identityServerUrl,
                                          const std::wstring& clientSecret) {
    try {
        return Login(identityServerUrl, clientSecret);
    } catch (const IdentityServerRefusal& refusal) {
        return {std::wstring(), refusal.Text(), kRefused};
    }
}
