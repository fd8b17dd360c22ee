// --auth bearer: "Authorization: Bearer <token>" checked at the OpenID provider's token
// introspection endpoint (RFC 7662), with the service's own client credentials. The caller is
// the token's "sub" (a user's login) or, for a client-credentials token, its "client_id".
// Answers are kept for up to 30 seconds (never past the token's "exp").
#pragma once

#include "Authenticator.h"

#include <chrono>
#include <map>
#include <mutex>
#include <string>

namespace lxrepo {

struct IntrospectionSettings {
    std::string url;
    std::string clientId;
    std::string clientSecret;
};

class Introspection : public Authenticator {
public:
    explicit Introspection(IntrospectionSettings settings);
    Authentication Authenticate(const Request& request, ConnectionState& connection) override;

private:
    struct Known {
        std::string user; // "" for an inactive token
        std::chrono::steady_clock::time_point until;
    };
    std::string Ask(const std::string& token, std::chrono::steady_clock::time_point& until);

    IntrospectionSettings settings_;
    std::mutex mutex_;
    std::map<std::string, Known> known_;
};

} // namespace lxrepo
