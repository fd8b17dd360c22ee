#include "CommandLine.h"

#include <ProjectVersion.h>

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>
#include <map>

namespace lxrepo {

namespace {

void AddServiceOptions(CLI::App& app, ServerOptions& options) {
    app.add_option("--database", options.database,
                   "SQLite file the imported tables go to (created if missing; WAL mode)")
        ->capture_default_str()
        ->group("Repository service");
    app.add_option("--allow-class", options.allowedClasses,
                   "a table class that may be imported (repeatable; none given: every class)")
        ->group("Repository service");
    app.add_option("--abandon-after", options.abandonAfter,
                   "seconds after which an untouched import in progress is forgotten (default "
                   "3600)")
        ->type_name("SECONDS")
        ->group("Repository service");
    const std::map<std::string, AuthKind> kinds = {
        {"none", AuthKind::None}, {"ntlm", AuthKind::Ntlm}, {"bearer", AuthKind::Bearer}};
    app.add_option("--auth", options.auth,
                   "how callers of /Import authenticate: none (default), ntlm (handshake bound "
                   "to the TCP connection) or bearer (token introspection)")
        ->transform(CLI::CheckedTransformer(kinds, CLI::ignore_case).description(""))
        ->type_name("none|ntlm|bearer")
        ->group("Repository service");
    app.add_option("--ntlm-users", options.ntlmUsersFile,
                   "--auth ntlm: file of DOMAIN:USER:PASSWORD lines, the accounts accepted")
        ->check(CLI::ExistingFile)
        ->group("Repository service");
    app.add_option("--ntlm-service-host", options.ntlmServiceHost,
                   "--auth ntlm: the host name clients use for this service (they target "
                   "HTTP@host); default: the --address")
        ->group("Repository service");
    app.add_option("--trusted-proxy", options.trustedProxies,
                   "an authenticated identity (DOMAIN\\user, or an OpenID client id) whose "
                   "X-Lxrepo-Client header names the importing client (repeatable)")
        ->group("Repository service");
    app.add_option("--introspection-url", options.introspection.url,
                   "--auth bearer: the OpenID provider's token introspection endpoint")
        ->group("Repository service");
    app.add_option("--introspection-client-id", options.introspection.clientId,
                   "--auth bearer: the service's client id at the provider")
        ->envname("LXREPO_INTROSPECTION_CLIENT_ID")
        ->group("Repository service");
    app.add_option("--introspection-client-secret", options.introspection.clientSecret,
                   "--auth bearer: the service's client secret (better given in the environment)")
        ->envname("LXREPO_INTROSPECTION_CLIENT_SECRET")
        ->group("Repository service");
    app.add_option("--identity-upstream", options.identityUpstream,
                   "--auth bearer: the OpenID provider's base URL; requests under /identity go "
                   "there (the provider's issuer must be <this service>/identity)")
        ->group("Repository service");
}

void AddProxyOptions(CLI::App& app, ServerOptions& options, std::string& ntlmUserFile) {
    auto& proxy = options.proxy;
    app.add_option("--registration-path", proxy.registrationPath,
                   "GET ?lxclient=&lxserver=: registers a client, answers the version")
        ->capture_default_str()
        ->group("Authentication proxy");
    app.add_option("--unregistration-path", proxy.unregistrationPath,
                   "GET ?lxclient=: forgets a client")
        ->capture_default_str()
        ->group("Authentication proxy");
    app.add_option("--connect-path", proxy.connectPath,
                   "GET ?lxclient=&lxserver=&lxauth=: 200 when the client is registered, the "
                   "server allowed and the proxy's credentials accepted there, else 401")
        ->capture_default_str()
        ->group("Authentication proxy");
    app.add_option("--forward-prefix", proxy.forwardPrefix,
                   "requests below it (with lxclient, lxserver, lxauth) are forwarded to lxserver")
        ->capture_default_str()
        ->group("Authentication proxy");
    app.add_option("--proxy-version", proxy.version, "the version the registration answers")
        ->capture_default_str()
        ->group("Authentication proxy");
    app.add_option("--proxy-allow", proxy.allowedServers,
                   "base URL of a service the proxy forwards to (repeatable; others get 403)")
        ->group("Authentication proxy");
    app.add_option("--proxy-ntlm-user-file", ntlmUserFile,
                   "lxauth=windows: DOMAIN:USER:PASSWORD file whose first account the proxy "
                   "authenticates as (sets NTLM_USER_FILE; default: NTLM_USER_FILE as set)")
        ->check(CLI::ExistingFile)
        ->group("Authentication proxy");
    auto& oauth = options.proxyOAuth;
    app.add_option("--proxy-token-url", oauth.tokenUrl,
                   "lxauth=oauth: the OpenID provider's token endpoint (client-credentials grant)")
        ->group("Authentication proxy");
    app.add_option("--proxy-client-id", oauth.clientId, "lxauth=oauth: the proxy's client id")
        ->envname("LXREPO_PROXY_CLIENT_ID")
        ->group("Authentication proxy");
    app.add_option("--proxy-client-secret", oauth.clientSecret,
                   "lxauth=oauth: the proxy's client secret (better given in the environment)")
        ->envname("LXREPO_PROXY_CLIENT_SECRET")
        ->group("Authentication proxy");
    app.add_option("--proxy-scope", oauth.scope, "lxauth=oauth: scope to ask for")
        ->group("Authentication proxy");
    app.add_option("--proxy-resource", oauth.resource,
                   "lxauth=oauth: resource indicator to ask for")
        ->group("Authentication proxy");
}

// Settings that only make sense together.
void Validate(const ServerOptions& options) {
    if (options.auth == AuthKind::Ntlm && options.ntlmUsersFile.empty()) {
        throw CLI::ValidationError("--auth ntlm needs --ntlm-users");
    }
    if (options.auth == AuthKind::Bearer && options.introspection.url.empty()) {
        throw CLI::ValidationError("--auth bearer needs --introspection-url");
    }
    const auto& proxy = options.proxy;
    for (const auto* path : {&proxy.registrationPath, &proxy.unregistrationPath, &proxy.connectPath,
                             &proxy.forwardPrefix}) {
        if (path->empty() || path->front() != '/' || path->rfind("/Import", 0) == 0 ||
            path->rfind("/identity", 0) == 0) {
            throw CLI::ValidationError("proxy paths start with '/' and stay clear of /Import "
                                       "and /identity: " +
                                       *path);
        }
    }
}

} // namespace

std::optional<int> ParseCommandLine(int argc, char** argv, ServerOptions& options) {
    CLI::App app{"lxrepo-server: the table repository service and its authentication proxy, on "
                 "loopback. Prints the port it listens on as the first line of its output; "
                 "stops cleanly on SIGINT or SIGTERM."};
    app.set_version_flag("--version", "lxrepo-server " TRI_PROJECT_VERSION);
    app.add_option("--address", options.http.address, "address to listen on")
        ->capture_default_str();
    options.http.port = 8080;
    app.add_option("--port", options.http.port, "port to listen on (0: a free one)")
        ->capture_default_str();
    const std::map<std::string, Role> roles = {
        {"service", Role::Service}, {"proxy", Role::Proxy}, {"both", Role::Both}};
    app.add_option("--role", options.role,
                   "service (/Import), proxy (its paths) or both (default) in one process")
        ->transform(CLI::CheckedTransformer(roles, CLI::ignore_case).description(""))
        ->type_name("service|proxy|both");
    app.add_option("--max-body-bytes", options.http.maxBodyBytes,
                   "larger request bodies are answered 413")
        ->capture_default_str();
    app.add_option("--max-connections", options.http.maxConnections,
                   "open connections beyond this are answered 503")
        ->capture_default_str();
    app.add_option("--idle-timeout", options.http.idleSeconds,
                   "seconds a connection may wait for its next request")
        ->capture_default_str();
    auto* certificate = app.add_option("--tls-cert", options.tlsCertificate,
                                       "serve HTTPS (TLS 1.2 or newer) with this PEM certificate "
                                       "chain")
                            ->check(CLI::ExistingFile);
    auto* key = app.add_option("--tls-key", options.tlsKey, "the PEM private key of --tls-cert")
                    ->check(CLI::ExistingFile);
    certificate->needs(key);
    key->needs(certificate);
    app.add_option("--tls-ca", options.tlsCa,
                   "PEM certificates trusted when calling out over https (the proxy's forwards, "
                   "introspection, the identity upstream); default: the system's store")
        ->check(CLI::ExistingFile);
    AddServiceOptions(app, options);
    std::string ntlmUserFile;
    AddProxyOptions(app, options, ntlmUserFile);
    try {
        app.parse(argc, argv);
        Validate(options);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }
    if (!ntlmUserFile.empty()) {
        // Before any thread starts: gss-ntlmssp reads it when the proxy acquires credentials.
        setenv("NTLM_USER_FILE", ntlmUserFile.c_str(), 1);
    }
    return std::nullopt;
}

} // namespace lxrepo
