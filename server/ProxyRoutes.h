// The authentication proxy: clients register under a name, ask for the proxy's version, and have
// their requests forwarded to an allowed service, towards which the proxy authenticates with
// its own account (NTLM, "lxauth=windows") or its own token ("lxauth=oauth"). The client's name
// travels to the service in the X-Lxrepo-Client header (percent-encoded UTF-8).
#pragma once

#include "ClientCredentials.h"
#include "Http.h"
#include "NtlmInitiator.h"
#include "Url.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace lxrepo {

struct ProxySettings {
    std::string registrationPath = "/register";
    std::string unregistrationPath = "/unregister";
    std::string connectPath = "/connect";
    std::string forwardPrefix = "/forward";
    std::string version = "1.0.0-lxproxy-2.1";
    std::vector<std::string> allowedServers;        // base URLs
    std::optional<NtlmCredentials> ntlmCredentials; // none: NTLM_USER_FILE's first account
};

class ProxyRoutes {
public:
    // tokens: the proxy's own bearer tokens for "lxauth=oauth"; may be null (then 502).
    // Throws std::invalid_argument for an allowed server that is not an http:// or https:// URL.
    ProxyRoutes(ProxySettings settings, std::shared_ptr<ClientCredentials> tokens);

    // Whether the path is one of the proxy's.
    bool Owns(const std::string& path) const;
    Response Handle(const Request& request, const Target& target);

private:
    struct Call; // the three query parameters
    Response Register(const Request& request, const Call& call);
    Response Unregister(const Request& request, const Call& call);
    Response Connect(const Request& request, const Call& call);
    Response Forward(const Request& request, const Target& target, const Call& call);
    Response SendToService(const BaseUrl& service, const std::string& authKind,
                           const std::string& client, Request outgoing);
    BaseUrl AllowedService(const Call& call, http::status refusal) const;
    void RequireRegistered(const std::string& client) const;

    ProxySettings settings_;
    std::set<std::string> allowedOrigins_;
    std::shared_ptr<ClientCredentials> tokens_;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> clients_; // name -> server it registered for
};

} // namespace lxrepo
