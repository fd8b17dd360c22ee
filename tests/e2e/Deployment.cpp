// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include "e2e/GeneratedTable.h"

#include "support/OidcProvider.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <unistd.h>

namespace e2e {

namespace {

using servertest::ChildProcess;
using servertest::DefaultOptions;
using servertest::RunningServer;

// The library skips the NTLM handshake for 127.0.0.1 and localhost, so a service that wants NTLM
// stands on another loopback address, as a service on another machine would.
const char kNtlmServiceHost[] = "127.0.0.2";
const char kAlicePassword[] = "Alice-Password-1";
const char kProxyPassword[] = "Proxy-Password-2";
const char kProxySecret[] = "proxy-secret-for-tokens";
const char kClientName[] = "Desk \xC3\xBC 7";

// The current user's NTLM credentials, which the library's handshake uses, come from
// gss-ntlmssp's user file named by NTLM_USER_FILE; it is read at the process's first GSSAPI
// call, and parallel test processes must not share it.
class DefaultNtlmCredentials : public ::testing::Environment {
public:
    void SetUp() override {
        const std::string path =
            ::testing::TempDir() + "e2e-" + std::to_string(getpid()) + "-client.users";
        std::ofstream(path) << "TESTDOM:alice:" << kAlicePassword << "\n";
        setenv("NTLM_USER_FILE", path.c_str(), 1);
    }
};
const auto* const defaultNtlmCredentials =
    ::testing::AddGlobalTestEnvironment(new DefaultNtlmCredentials);

lxrepo::ServerOptions NtlmService(const std::string& database, const std::string& usersFile) {
    std::ofstream(usersFile) << "TESTDOM:alice:" << kAlicePassword << "\n"
                             << "TESTDOM:proxy:" << kProxyPassword << "\n";
    auto options = DefaultOptions(database);
    options.role = lxrepo::Role::Service;
    options.http.address = kNtlmServiceHost;
    options.auth = lxrepo::AuthKind::Ntlm;
    options.ntlmUsersFile = usersFile;
    options.trustedProxies = {"TESTDOM\\proxy"};
    return options;
}

} // namespace

bool Deployment::Available(Way way) {
    return way != Way::Login || (std::string(E2E_NODE).find("NOTFOUND") == std::string::npos &&
                                 std::filesystem::exists(E2E_OIDC_PROVIDER_ENTRY));
}

Deployment::Deployment(Way way, const std::string& database, const std::string& tableClass)
    : clientName_(kClientName) {
    lxrepo::ServerOptions service;
    auto proxy = DefaultOptions(files_.File("proxy.sqlite"));
    proxy.role = lxrepo::Role::Proxy;
    switch (way) {
    case Way::Proxy:
        service = NtlmService(database, files_.File("service.users"));
        proxy.proxy.ntlmCredentials = lxrepo::NtlmCredentials{"TESTDOM\\proxy", kProxyPassword};
        expected_ = {Connected, "1.0.0-lxproxy-2.1", "TESTDOM\\proxy", kClientName};
        break;
    case Way::Login: {
        // The provider's issuer is the service's /identity, so the service's port comes first.
        const unsigned short port = servertest::FreePort();
        serviceUrl_ = "http://127.0.0.1:" + std::to_string(port);
        provider_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{E2E_NODE, E2E_LOGIN_PROVIDER, "0", serviceUrl_ + "/identity"});
        const std::string providerUrl =
            "http://127.0.0.1:" + std::to_string(provider_->Port()) + "/identity";
        service = DefaultOptions(database);
        service.role = lxrepo::Role::Service;
        service.http.port = port;
        service.auth = lxrepo::AuthKind::Bearer;
        service.introspection = {providerUrl + "/token/introspection", "lxrepo-service",
                                 "service-secret-for-introspection"};
        service.identityUpstream = providerUrl;
        proxy.proxyOAuth = {serviceUrl_ + "/identity/token", "lxrepo-proxy", kProxySecret, "", ""};
        // A major version 2 tells the library to log in and talk to the service itself.
        proxy.proxy.version = "2.0.0";
        expected_ = {Connected, "2.0.0", "alice", "alice"};
        break;
    }
    case Way::Ntlm:
        service = NtlmService(database, files_.File("service.users"));
        proxy.proxy.ntlmCredentials = lxrepo::NtlmCredentials{"TESTDOM\\proxy", kProxyPassword};
        // Neither served by the proxy nor major version 2: the connection test gives up with
        // "version not supported", but has fixed the service address, and every later call
        // goes straight to the service with the library's own NTLM handshake.
        proxy.proxy.version = "1.0.0";
        expected_ = {VersionNotSupported, "1.0.0", "TESTDOM\\alice", "TESTDOM\\alice"};
        break;
    }
    service.allowedClasses = {tableClass};
    service_ = std::make_unique<RunningServer>(service);
    serviceUrl_ = service_->Url();
    proxy.proxy.allowedServers = {serviceUrl_};
    proxy_ = std::make_unique<RunningServer>(proxy);
}

Deployment::~Deployment() = default;

CAuthenticationProxyConfiguration Deployment::ProxyConfiguration() const {
    CAuthenticationProxyConfiguration configuration;
    configuration.proxyBaseUri = Wide(proxy_->Url());
    configuration.registrationPath = L"/register";
    configuration.unregistrationPath = L"/unregister";
    configuration.proxyPath = L"/forward";
    configuration.connectPath = L"/connect";
    configuration.clientName = Wide(clientName_);
    configuration.serverName = Wide(serviceUrl_);
    // The proxy authenticates to a bearer-mode service with a token (1), otherwise with NTLM.
    configuration.authenticationType = provider_ ? 1 : 0;
    return configuration;
}

int Deployment::ProxyConnectStatus() const {
    const std::string auth = provider_ ? "oauth" : "windows";
    return servertest::Send(
               proxy_->Url(), "GET", {servertest::Word("/connect")}, std::nullopt,
               {{"lxclient", clientName_}, {"lxserver", serviceUrl_}, {"lxauth", auth}})
        .status;
}

LoginBrowser::LoginBrowser() {
    TableRepositorySetBrowserLauncher(&LoginBrowser::Launch, this);
    TableRepositorySetLoginTimeout(20000);
}

LoginBrowser::~LoginBrowser() {
    TableRepositorySetBrowserLauncher(nullptr, nullptr);
    TableRepositorySetLoginTimeout(0);
    if (visit_.joinable()) {
        visit_.join();
    }
}

std::string LoginBrowser::Outcome() {
    if (visit_.joinable()) {
        visit_.join();
    }
    return outcome_;
}

int LoginBrowser::Launch(const wchar_t* url, void* context) {
    auto* browser = static_cast<LoginBrowser*>(context);
    if (browser->visit_.joinable()) {
        browser->visit_.join();
    }
    std::string narrow;
    for (const wchar_t* c = url; *c != L'\0'; ++c) {
        narrow += static_cast<char>(*c); // an authorization URL is ASCII
    }
    browser->visit_ = std::thread([browser, narrow] {
        try {
            testsupport::TestBrowser user("allow");
            const testsupport::BrowserPage last = user.Visit(narrow);
            browser->outcome_ =
                last.status == 200 && last.body.find("The login is done") != std::string::npos
                    ? ""
                    : "the last page, " + last.url + ", answered " + std::to_string(last.status) +
                          ": " + last.body;
        } catch (const std::exception& e) {
            browser->outcome_ = e.what();
        }
    });
    return 1;
}

} // namespace e2e
