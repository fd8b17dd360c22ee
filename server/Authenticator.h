// How the service learns who calls: nobody (--auth none), an NTLM handshake bound to the
// connection, or a bearer token checked at the OpenID provider.
#pragma once

#include "Http.h"

#include <optional>
#include <string>

namespace lxrepo {

struct Authentication {
    // Set when the request is authenticated; "" is the anonymous caller of --auth none.
    std::optional<std::string> user;
    // Otherwise the 401 (with its WWW-Authenticate) to send instead of an answer.
    std::optional<Response> challenge;
};

class Authenticator {
public:
    virtual ~Authenticator() = default;
    virtual Authentication Authenticate(const Request& request, ConnectionState& connection) = 0;
};

class NoAuthentication : public Authenticator {
public:
    Authentication Authenticate(const Request&, ConnectionState&) override {
        return {std::string(), std::nullopt};
    }
};

// A 401 with a JSON error body and the given WWW-Authenticate value.
Response Unauthorized(const Request& request, const std::string& wwwAuthenticate,
                      const std::string& message);

} // namespace lxrepo
