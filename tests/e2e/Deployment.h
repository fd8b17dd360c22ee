// lxrepo-server set up for each way a host connects: the repository service, the proxy the host
// registers with (and asks for its version), and for the direct login an OpenID provider behind
// the service's /identity.
#pragma once

#include "ServerFixture.h"

#include "TableRepositoryImport.h"

#include <memory>
#include <string>
#include <thread>

namespace e2e {

enum class Way {
    Proxy, // requests forwarded by the proxy, which authenticates to the service as itself
    Login, // direct, with a bearer token from a login at the OpenID provider
    Ntlm,  // direct, with the client's own NTLM handshake
};

struct Expectations {
    int connectionStatus;   // TestConnectionResult::status
    std::string version;    // what the proxy reports
    std::string importedBy; // lxrepo_tables.imported_by
    std::string client;     // lxrepo_tables.client
};

class Deployment {
public:
    // The service imports into database and accepts tables of tableClass only. Throws when a
    // part cannot start.
    Deployment(Way way, const std::string& database, const std::string& tableClass);
    ~Deployment();
    Deployment(const Deployment&) = delete;
    Deployment& operator=(const Deployment&) = delete;

    // Whether this way can run here (the login needs node and the provider's packages).
    static bool Available(Way way);

    std::string ServiceUrl() const { return serviceUrl_; }
    CAuthenticationProxyConfiguration ProxyConfiguration() const;
    const Expectations& Expected() const { return expected_; }
    // Status of the proxy's connect call for this host's client, as the proxy sees it now.
    int ProxyConnectStatus() const;

private:
    servertest::TempDirectory files_;
    std::string serviceUrl_;
    std::string clientName_;
    Expectations expected_;
    std::unique_ptr<servertest::ChildProcess> provider_;
    std::unique_ptr<servertest::RunningServer> service_;
    std::unique_ptr<servertest::RunningServer> proxy_;
};

// The user's browser for the direct login: installed as the library's launcher for as long as
// it lives, it logs alice in on a thread of its own, as a browser is a process of its own.
class LoginBrowser {
public:
    LoginBrowser();
    ~LoginBrowser();
    LoginBrowser(const LoginBrowser&) = delete;
    LoginBrowser& operator=(const LoginBrowser&) = delete;

    // Waits for the browser; "" when it reached the library's listener and was told the login
    // is done, otherwise what went wrong (or "never opened").
    std::string Outcome();

private:
    static int Launch(const wchar_t* url, void* context);

    std::thread visit_;
    std::string outcome_ = "never opened";
};

} // namespace e2e
