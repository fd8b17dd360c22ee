#pragma once

#include <string>

// The library's own OpenID Connect login for a native application (RFC 8252): the user logs in
// at the identity server in the system's browser, which comes back to a loopback listener with
// an authorization code that is redeemed, with PKCE, for an access token.

struct IdentityLoginResult {
    std::wstring accessToken; // set when resultType is 0; the caller owns and wipes it
    std::wstring error;       // set when resultType is 1
    int resultType;           // 0 logged in, 1 refused or failed (see error), 2 timed out
};

// Logs in at the identity server (its address, without "/.well-known/..."), authenticating this
// application with clientSecret. Blocks until the browser comes back or the login timeout of
// IdentityLoginSettings.h passes. Failures to reach the identity server at all are exceptions.
IdentityLoginResult LoginAtIdentityServer(const std::wstring& identityServerUrl,
                                          const std::wstring& clientSecret);
