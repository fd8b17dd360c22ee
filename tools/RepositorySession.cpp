#include "RepositorySession.h"

#include "CsvHostRecords.h"
#include "Failure.h"

namespace lxrepo {

namespace {

CAuthenticationProxyConfiguration ProxyConfiguration(const ConnectionOptions& options) {
    CAuthenticationProxyConfiguration configuration;
    configuration.proxyBaseUri = ToCString(options.proxy);
    configuration.registrationPath = ToCString(options.registerPath);
    configuration.unregistrationPath = ToCString(options.unregisterPath);
    configuration.connectPath = ToCString(options.connectPath);
    configuration.proxyPath = ToCString(options.proxyPath);
    configuration.clientName = ToCString(options.client);
    configuration.serverName = ToCString(options.server);
    configuration.authenticationType = options.authenticationType;
    return configuration;
}

} // namespace

std::string ConnectionStatusName(int status) {
    switch (status) {
    case Connected:
        return "Connected";
    case ConnectionFailed:
        return "ConnectionFailed";
    case NotAuthorized:
        return "NotAuthorized";
    case VersionNotSupported:
        return "VersionNotSupported";
    case AuthenticationFailed:
        return "AuthenticationFailed";
    }
    return "status " + std::to_string(status);
}

RepositorySession::RepositorySession(const ConnectionOptions& options)
    : options_(options), configuration_(ProxyConfiguration(options)) {
    client_.reset(static_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
    if (!client_) {
        throw std::bad_alloc();
    }
    try {
        client_->RegisterWithAuthenticationProxy(configuration_);
    } catch (const std::exception& e) {
        throw Failure(kUnreachable, "registration",
                      "Could not register with the proxy at " + options.proxy + " (" + e.what() +
                          ").");
    }
}

RepositorySession::~RepositorySession() {
    try {
        client_->UnregisterFromAuthenticationProxy(configuration_);
    } catch (const std::exception&) {
        // The proxy forgets idle clients by itself; the run's outcome stands.
    }
}

TestConnectionResult RepositorySession::TestConnection() {
    try {
        return client_->TestConnection(ToCString(options_.server));
    } catch (const std::exception& e) {
        throw Failure(kUnreachable, "connection test",
                      "The connection test through the proxy at " + options_.proxy + " failed (" +
                          e.what() + ").");
    }
}

} // namespace lxrepo
