// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include "support/ConnectedClient.h"
#include "support/TestCertificates.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include <unistd.h>

namespace e2e {

using namespace servertest;

namespace {

const char kClientName[] = "Desk \xC3\xBC 7";

// The current user's NTLM credentials, which the library's handshake (and a proxy without
// credentials of its own) uses, come from gss-ntlmssp's user file named by NTLM_USER_FILE; it
// is read at the process's first GSSAPI call, and parallel test processes must not share it.
const bool kDefaultNtlmUser = [] {
    const std::string path =
        ::testing::TempDir() + "e2e-" + std::to_string(getpid()) + "-client.users";
    WriteNtlmUsers(path); // alice first
    return setenv("NTLM_USER_FILE", path.c_str(), 1) == 0;
}();

} // namespace

std::vector<Row> ExpectedRows(const Table& table) {
    std::vector<Row> rows(static_cast<std::size_t>(table.rows));
    for (std::size_t row = 0; row < rows.size(); ++row) {
        for (const auto& column : table.columns) {
            const int id = column.ids[row];
            rows[row].push_back(id < 0 ? std::nullopt
                                       : std::optional<std::string>(column.values[id]));
        }
    }
    return rows;
}

Endpoint NtlmSelfProxy(unsigned short port) {
    const std::string url = std::string("http://") + kNtlmServiceHost + ":" + std::to_string(port);
    return {testsupport::ProxyConfiguration(url, kClientName, url, 0), url, Connected};
}

bool Deployment::Available(Way way) {
    return way != Way::Login || (std::string(E2E_NODE).find("NOTFOUND") == std::string::npos &&
                                 std::filesystem::exists(E2E_OIDC_PROVIDER_ENTRY));
}

Deployment::Deployment(Way way, const std::string& database,
                       const std::vector<std::string>& classes, bool tls) {
    auto service = DefaultOptions(database, lxrepo::Role::Service);
    auto proxy = DefaultOptions(files_.File("proxy.sqlite"), lxrepo::Role::Proxy);
    const testsupport::TlsFiles plain, &files = tls ? testsupport::Certificates().trusted : plain;
    service.tlsCertificate = proxy.tlsCertificate = files.certificate;
    service.tlsKey = proxy.tlsKey = files.key;
    if (way == Way::Login) {
        // The provider's issuer is the service's /identity, so the service's port comes first.
        service.http.port = testsupport::FreePort();
        const std::string serviceUrl = std::string(tls ? "https" : "http") +
                                       "://127.0.0.1:" + std::to_string(service.http.port);
        provider_ = std::make_unique<testsupport::ChildProcess>(
            std::vector<std::string>{E2E_NODE, E2E_LOGIN_PROVIDER, "0", serviceUrl + "/identity"});
        const std::string providerUrl =
            "http://127.0.0.1:" + std::to_string(provider_->Port()) + "/identity";
        service.auth = lxrepo::AuthKind::Bearer;
        service.introspection = {providerUrl + "/token/introspection", "lxrepo-service",
                                 "service-secret-for-introspection"};
        service.identityUpstream = providerUrl;
        service.trustedProxies = {"lxrepo-proxy"};
        proxy.proxyOAuth = {serviceUrl + "/identity/token", "lxrepo-proxy",
                            "proxy-secret-for-tokens", "", ""};
        // A major version 2 tells the library to log in and talk to the service itself.
        proxy.proxy.version = "2.0.0";
        importedBy = client = "alice";
        // A login that goes wrong shows in the connection test.
        browser_ = std::make_unique<testsupport::LaunchedBrowser>(
            [](const std::string& url) { testsupport::TestBrowser("allow").Visit(url); });
        TableRepositorySetBrowserLauncher(&testsupport::LaunchedBrowser::Launch, browser_.get());
        TableRepositorySetLoginTimeout(20000);
    } else if (way == Way::Plain) {
        // On this machine and without authentication: the library's requests go out plain.
        proxy.proxy.version = "1.0.0";
    } else {
        WriteNtlmUsers(files_.File("service.users"));
        service.http.address = kNtlmServiceHost;
        service.auth = lxrepo::AuthKind::Ntlm;
        service.ntlmUsersFile = files_.File("service.users");
        service.trustedProxies = {"TESTDOM\\proxy"};
        proxy.proxy.ntlmCredentials = kProxyAccount;
        if (way == Way::Proxy) {
            importedBy = "TESTDOM\\proxy";
            client = kClientName;
        } else {
            // Neither served by the proxy nor major version 2: the connection test gives up
            // with "version not supported", but has fixed the service address, and every later
            // call goes straight to the service with the library's own NTLM handshake.
            proxy.proxy.version = "1.0.0";
        }
    }
    service.allowedClasses = classes;
    service_ = std::make_unique<RunningServer>(service);
    proxy.proxy.allowedServers = {service_->Url()};
    proxyServer = std::make_unique<RunningServer>(proxy);
    host = {testsupport::ProxyConfiguration(proxyServer->Url(), kClientName, service_->Url(),
                                            provider_ ? 1 : 0),
            service_->Url(),
            way == Way::Ntlm || way == Way::Plain ? VersionNotSupported : Connected};
}

Deployment::~Deployment() {
    if (browser_) {
        TableRepositorySetBrowserLauncher(nullptr, nullptr);
        TableRepositorySetLoginTimeout(0);
    }
}

int Deployment::ProxyConnectStatus() const {
    const Fields query = {{"lxclient", kClientName},
                          {"lxserver", host.serviceUrl},
                          {"lxauth", provider_ ? "oauth" : "windows"}};
    return Send(proxyServer->Url(), WithQuery("/connect", query)).status;
}

} // namespace e2e
