// lxrepo-server set up for each way a host connects (the repository service, the proxy the host
// registers with, and for the direct login an OpenID provider behind the service's /identity).
#pragma once

#include "ServerFixture.h"
#include "client/TextConversion.h"
#include "e2e/HostImport.h"
#include "support/OidcProvider.h"

#include <memory>
#include <string>
#include <vector>

namespace e2e {

// What the data table must hold, row by row in column order; NULL for a missing value.
std::vector<servertest::Row> ExpectedRows(const Table& table);

enum class Way {
    Proxy, // requests forwarded by the proxy, which authenticates to the service as itself
    Login, // direct, with a bearer token from a login at the OpenID provider
    Ntlm,  // direct, with the client's own NTLM handshake
    Plain, // direct to a service on 127.0.0.1 that asks for no authentication
};

class Deployment {
public:
    // The service imports into database and accepts tables of these classes only. For the
    // login the user's browser is the library's launcher for as long as this lives. With tls
    // the service and the proxy serve https only, with certificates of the test authority (the
    // loopback redirect of the login stays http). Throws when a part cannot start.
    Deployment(Way way, const std::string& database, const std::vector<std::string>& classes,
               bool tls = false);
    ~Deployment();

    // Whether this way can run here (the login needs node and the provider's packages).
    static bool Available(Way way);

    // Status of the proxy's connect call for the host's client, as the proxy sees it now.
    int ProxyConnectStatus() const;

private:
    servertest::TempDirectory files_;
    std::unique_ptr<testsupport::ChildProcess> provider_;
    std::unique_ptr<testsupport::LaunchedBrowser> browser_;
    std::unique_ptr<servertest::RunningServer> service_;

public:
    std::unique_ptr<servertest::RunningServer> proxyServer;
    Endpoint host;
    std::string importedBy = "TESTDOM\\alice"; // lxrepo_tables.imported_by
    std::string client = "TESTDOM\\alice";     // lxrepo_tables.client
};

// The host's connection to an lxrepo-server that is its own proxy and wants NTLM, at
// http://<kNtlmServiceHost>:port.
Endpoint NtlmSelfProxy(unsigned short port);

} // namespace e2e
