// Everything lxrepo-server can be told at start; the command line fills it (CommandLine.h),
// tests fill it directly.
#pragma once

#include "ClientCredentials.h"
#include "HttpServer.h"
#include "Introspection.h"
#include "ProxyRoutes.h"

#include <chrono>
#include <string>
#include <vector>

namespace lxrepo {

enum class Role { Service, Proxy, Both };
enum class AuthKind { None, Ntlm, Bearer };

struct ServerOptions {
    HttpServer::Settings http;
    Role role = Role::Both;
    // TLS: served with this PEM certificate chain and key when set; outgoing https trusts the
    // CA file (for the whole process), else the system's store.
    std::string tlsCertificate;
    std::string tlsKey;
    std::string tlsCa;

    // The repository service
    std::string database = "lxrepo.sqlite";
    std::vector<std::string> allowedClasses; // empty: every class
    std::chrono::seconds abandonAfter{3600};
    AuthKind auth = AuthKind::None;
    std::string ntlmUsersFile;
    std::string ntlmServiceHost; // empty: the listening address
    // Identities ("DOMAIN\user", or an OpenID client id) whose X-Lxrepo-Client is believed.
    std::vector<std::string> trustedProxies;
    IntrospectionSettings introspection;
    std::string identityUpstream;

    // The authentication proxy
    ProxySettings proxy;
    ClientCredentialsSettings proxyOAuth; // used when tokenUrl is set
};

} // namespace lxrepo
