// --auth bearer: requests under /identity go on to the OpenID provider unchanged (method, path
// below /identity, query, headers, body) and its answer comes back unchanged, redirects and
// cookies included. The library looks for its identity server at <service>/identity, so the
// provider must be configured with that issuer.
#pragma once

#include "Http.h"
#include "Url.h"

#include <string>

namespace lxrepo {

class IdentityPassthrough {
public:
    static constexpr const char* prefix = "/identity";

    // upstream: the provider's base URL; "/identity/x" goes to upstream + "/x".
    // Throws std::invalid_argument for anything but an http:// or https:// URL.
    explicit IdentityPassthrough(const std::string& upstream);

    static bool Owns(const std::string& path);
    // secure: the request came over TLS, which the provider must know to name its addresses.
    Response Handle(const Request& request, const Target& target, bool secure) const;

private:
    BaseUrl upstream_;
};

} // namespace lxrepo
