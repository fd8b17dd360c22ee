// lxrepo-server set up for each way a host connects (the repository service, the proxy the host
// registers with, and for the direct login an OpenID provider behind the service's /identity),
// and a host's whole import through the library's public operations in the host's order:
// registration, connection test, table, definitions, distinct values and value ids in chunks,
// End.
#pragma once

#include "ServerFixture.h"
#include "TableRepositoryImport.h"
#include "client/TextConversion.h"
#include "support/HostRecords.h"
#include "support/OidcProvider.h"

#include <memory>
#include <string>
#include <vector>

namespace e2e {

struct Table {
    std::string name;
    std::string tableClass;
    std::string description;
    int rows = 0;
    std::vector<testsupport::Column> columns;
};

// A cell of each kind a step could garble (non-ASCII, commas and quotes, empty and missing
// values, numbers and dates as text) under awkward names; the variant shifts the value ids so
// that tables differ.
Table GenerateTable(const std::string& name, int variant = 0);
// What the data table must hold, row by row in column order; NULL for a missing value.
std::vector<servertest::Row> ExpectedRows(const Table& table);

// Where a host connects and what its connection test must answer there.
struct Endpoint {
    CAuthenticationProxyConfiguration proxy;
    std::string serviceUrl;
    int connectionStatus = Connected;
};

struct Imported {
    std::string failure; // "" when every call answered as it should, else the first that did not
    std::string id;
    TestConnectionResult connection;
    std::unique_ptr<CTableRepositoryImport> client; // registered still
};

// The whole import, or all of it but the End.
Imported ImportThroughLibrary(const Endpoint& endpoint, const Table& table, bool end = true);

enum class Way {
    Proxy, // requests forwarded by the proxy, which authenticates to the service as itself
    Login, // direct, with a bearer token from a login at the OpenID provider
    Ntlm,  // direct, with the client's own NTLM handshake
};

class Deployment {
public:
    // The service imports into database and accepts tables of these classes only. For the
    // login the user's browser is the library's launcher for as long as this lives. Throws when
    // a part cannot start.
    Deployment(Way way, const std::string& database, const std::vector<std::string>& classes);
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
// http://<kNtlmServiceHost>:port. The library skips the NTLM handshake for 127.0.0.1 and
// localhost, so a service that wants NTLM stands on another loopback address, as a service on
// another machine would.
Endpoint NtlmSelfProxy(unsigned short port);
inline constexpr char kNtlmServiceHost[] = "127.0.0.2";
// Writes the accounts an NTLM service accepts (alice, proxy) to path.
void WriteNtlmUsers(const std::string& path);

} // namespace e2e
