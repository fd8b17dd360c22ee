// The library as a host holds it: one client object from the factory, registered with the
// authentication proxy for as long as the session lives.
#pragma once

#include <TableRepositoryImport.h>

#include <memory>
#include <string>

namespace lxrepo {

struct ConnectionOptions {
    std::string server;
    std::string proxy;
    std::string client = "lxrepo";
    int authenticationType = 0; // 0 windows, 1 oauth
    std::string registerPath = "/register";
    std::string unregisterPath = "/unregister";
    std::string connectPath = "/connect";
    std::string proxyPath = "/forward";
};

// The name of a TestConnection status.
std::string ConnectionStatusName(int status);

class RepositorySession {
public:
    // Creates the client and registers with the proxy; Failure(kUnreachable) when that fails.
    explicit RepositorySession(const ConnectionOptions& options);
    // Unregisters from the proxy; a failure to do so is not worth more than the import's own.
    ~RepositorySession();
    RepositorySession(const RepositorySession&) = delete;
    RepositorySession& operator=(const RepositorySession&) = delete;

    // The connection test; a transport failure is Failure(kUnreachable).
    TestConnectionResult TestConnection();
    CTableRepositoryImport& Client() { return *client_; }

private:
    ConnectionOptions options_;
    CAuthenticationProxyConfiguration configuration_;
    std::unique_ptr<CTableRepositoryImport> client_;
};

} // namespace lxrepo
