// The proxy's own bearer token, from the OpenID provider's token endpoint by the
// client-credentials grant; kept until shortly before it expires.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace lxrepo {

struct ClientCredentialsSettings {
    std::string tokenUrl;
    std::string clientId;
    std::string clientSecret;
    std::string scope;    // optional
    std::string resource; // optional (RFC 8707 resource indicator)
};

class ClientCredentials {
public:
    explicit ClientCredentials(ClientCredentialsSettings settings);
    // Throws HttpError 502 when the provider gives no token.
    std::string AccessToken();

private:
    ClientCredentialsSettings settings_;
    std::mutex mutex_;
    std::string token_;
    std::chrono::steady_clock::time_point renewAt_{};
};

// "a=b&c=d" with both sides percent-encoded.
std::string FormEncode(const std::vector<std::pair<std::string, std::string>>& fields);

} // namespace lxrepo
