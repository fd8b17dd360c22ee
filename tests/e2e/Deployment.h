// lxrepo-server set up for each way a host connects: the repository service, the proxy the host
// registers with (and asks for its version), and for the direct login an OpenID provider behind
// the service's /identity.
#pragma once

#include "e2e/HostImport.h"
#include "support/Process.h"

#include <memory>
#include <string>
#include <thread>

namespace e2e {

enum class Way {
    Proxy, // requests forwarded by the proxy, which authenticates to the service as itself
    Login, // direct, with a bearer token from a login at the OpenID provider
    Ntlm,  // direct, with the client's own NTLM handshake
};

class Deployment {
public:
    // The service imports into database and accepts tables of tableClass only. Throws when a
    // part cannot start.
    Deployment(Way way, const std::string& database, const std::string& tableClass);
    ~Deployment();

    // Whether this way can run here (the login needs node and the provider's packages).
    static bool Available(Way way);

    const Endpoint& Host() const { return endpoint_; }
    std::string ProxyUrl() const { return proxy_->Url(); }
    std::string ImportedBy() const { return importedBy_; } // lxrepo_tables.imported_by
    std::string Client() const { return client_; }         // lxrepo_tables.client
    // Status of the proxy's connect call for the host's client, as the proxy sees it now.
    int ProxyConnectStatus() const;

private:
    servertest::TempDirectory files_;
    Endpoint endpoint_;
    std::string importedBy_;
    std::string client_;
    std::unique_ptr<testsupport::ChildProcess> provider_;
    std::unique_ptr<servertest::RunningServer> service_;
    std::unique_ptr<servertest::RunningServer> proxy_;
};

// The host's connection to an lxrepo-server that is its own proxy and wants NTLM, at
// http://<NtlmServiceHost()>:port.
Endpoint NtlmSelfProxy(unsigned short port);
const char* NtlmServiceHost();
// Writes the accounts an NTLM service accepts (alice, proxy) to path.
void WriteNtlmUsers(const std::string& path);

// The user's browser for the direct login: installed as the library's launcher for as long as
// it lives, it logs alice in on a thread of its own, as a browser is a process of its own.
class LoginBrowser {
public:
    LoginBrowser();
    ~LoginBrowser();
    // Waits for the browser; "" when it reached the library's listener and was told the login
    // is done, otherwise what went wrong (or "never opened").
    std::string Outcome();

private:
    static int Launch(const wchar_t* url, void* context);
    std::thread visit_;
    std::string outcome_ = "never opened";
};

} // namespace e2e
