#pragma once

#include <string>

// The outcome of a login at the identity server.
struct IdentityLoginResult {
    std::wstring accessToken;
    std::wstring error;
    // 0 success, 1 refused or failed (error says why), 2 the user did not finish in time.
    int resultType;
};

// Logs the user in at identityServerUrl in the system browser and returns the access token.
IdentityLoginResult LoginAtIdentityServer(const std::wstring& identityServerUrl,
                                          const std::wstring& clientSecret);
