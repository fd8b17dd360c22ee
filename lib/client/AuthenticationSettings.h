#pragma once

#include "client/SecretWipe.h"
#include "host/AuthenticationProxyConfiguration.h"

#include <string>

// How requests authenticate. Written only by the connection test, read by every request.
struct AuthenticationSettings {
    AuthenticationSettings() = default;
    AuthenticationSettings(const AuthenticationSettings&) = delete;
    AuthenticationSettings& operator=(const AuthenticationSettings&) = delete;
    ~AuthenticationSettings() { WipeSecret(accessToken); }

    // Non-empty selects the bearer path; never cleared, only replaced.
    std::wstring accessToken;
    std::wstring reserved;
    // Non-empty proxyBaseUri selects the proxy path.
    CAuthenticationProxyConfiguration proxyConfiguration;
};
