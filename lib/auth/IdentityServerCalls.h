#pragma once

#include <cpprest/details/basic_types.h>

#include <stdexcept>
#include <string>
#include <utility>

// The two calls a login makes to the identity server itself; the browser makes the others.

// An answer that ends the login with result 1 and this text: the identity server's refusal, or
// an answer that cannot serve as one.
class IdentityServerRefusal : public std::runtime_error {
public:
    explicit IdentityServerRefusal(std::wstring text)
        : std::runtime_error("the identity server refused the login"), text_(std::move(text)) {}
    const std::wstring& Text() const { return text_; }

private:
    std::wstring text_;
};

// An error answer (RFC 6749 sections 4.1.2.1 and 5.2): error_description is written for people;
// a bare error code goes into a sentence, so that nobody is shown a code alone.
inline IdentityServerRefusal ErrorAnswerRefusal(const std::wstring& description,
                                                const std::wstring& code) {
    return IdentityServerRefusal(description.empty()
                                     ? L"The identity server refused the login: " + code + L"."
                                     : description);
}

// How this application proves itself at the token endpoint, as discovery offers.
enum class ClientAuthentication { SecretBasic, SecretPost };

struct OpenIdEndpoints {
    utility::string_t issuer;
    utility::string_t authorization;
    utility::string_t token;
    ClientAuthentication clientAuthentication;
};

// Reads "<identityServerUrl>/.well-known/openid-configuration". A server that offers neither
// client_secret_basic nor client_secret_post, or PKCE without S256, is refused.
OpenIdEndpoints DiscoverEndpoints(const std::wstring& identityServerUrl);

// Borrowed, so that the verifier keeps its one copy, the one its owner wipes.
struct AuthorizationCodeGrant {
    const std::string& code;
    const std::string& redirectUri;
    const std::string& codeVerifier;
    const std::string& nonce; // of the authorization request, which the ID token must carry
};

// Redeems the code at the token endpoint for an access token, authenticating the client as
// discovery chose. An ID token in the answer must belong to this login (IdTokenClaims.h).
std::wstring RedeemCode(const OpenIdEndpoints& endpoints, const std::string& clientId,
                        const std::wstring& clientSecret, const AuthorizationCodeGrant& grant);
