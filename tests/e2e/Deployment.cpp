// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include "client/TextConversion.h"
#include "support/OidcProvider.h"

#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <fstream>

#include <unistd.h>

namespace e2e {

namespace {

// The library skips the NTLM handshake for 127.0.0.1 and localhost, so a service that wants NTLM
// stands on another loopback address, as a service on another machine would.
const char kNtlmServiceHost[] = "127.0.0.2";
const char kAlicePassword[] = "Alice-Password-1";
const char kProxyPassword[] = "Proxy-Password-2";
const char kClientName[] = "Desk \xC3\xBC 7";

// The current user's NTLM credentials, which the library's handshake (and a proxy without
// credentials of its own) uses, come from gss-ntlmssp's user file named by NTLM_USER_FILE; it
// is read at the process's first GSSAPI call, and parallel test processes must not share it.
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

CAuthenticationProxyConfiguration ProxyConfiguration(const std::string& proxyUrl,
                                                     const std::string& serviceUrl, int authType) {
    CAuthenticationProxyConfiguration configuration;
    configuration.proxyBaseUri = Wide(proxyUrl);
    configuration.registrationPath = L"/register";
    configuration.unregistrationPath = L"/unregister";
    configuration.proxyPath = L"/forward";
    configuration.connectPath = L"/connect";
    configuration.clientName = Wide(kClientName);
    configuration.serverName = Wide(serviceUrl);
    configuration.authenticationType = authType; // 1: the proxy brings a token, 0: NTLM
    return configuration;
}

} // namespace

const char* NtlmServiceHost() { return kNtlmServiceHost; }

void WriteNtlmUsers(const std::string& path) {
    std::ofstream(path) << "TESTDOM:alice:" << kAlicePassword
                        << "\nTESTDOM:proxy:" << kProxyPassword << "\n";
}

Endpoint NtlmSelfProxy(unsigned short port) {
    const std::string url = std::string("http://") + kNtlmServiceHost + ":" + std::to_string(port);
    return {ProxyConfiguration(url, url, 0), url, Connected, ""};
}

bool Deployment::Available(Way way) {
    return way != Way::Login || (std::string(E2E_NODE).find("NOTFOUND") == std::string::npos &&
                                 std::filesystem::exists(E2E_OIDC_PROVIDER_ENTRY));
}

Deployment::Deployment(Way way, const std::string& database, const std::string& tableClass)
    : importedBy_("TESTDOM\\alice"), client_("TESTDOM\\alice") {
    auto service = servertest::DefaultOptions(database, lxrepo::Role::Service);
    auto proxy = servertest::DefaultOptions(files_.File("proxy.sqlite"), lxrepo::Role::Proxy);
    std::string serviceUrl;
    if (way == Way::Login) {
        // The provider's issuer is the service's /identity, so the service's port comes first.
        service.http.port = testsupport::FreePort();
        serviceUrl = "http://127.0.0.1:" + std::to_string(service.http.port);
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
        importedBy_ = client_ = "alice";
    } else {
        WriteNtlmUsers(files_.File("service.users"));
        service.http.address = kNtlmServiceHost;
        service.auth = lxrepo::AuthKind::Ntlm;
        service.ntlmUsersFile = files_.File("service.users");
        service.trustedProxies = {"TESTDOM\\proxy"};
        proxy.proxy.ntlmCredentials = lxrepo::NtlmCredentials{"TESTDOM\\proxy", kProxyPassword};
        if (way == Way::Proxy) {
            importedBy_ = "TESTDOM\\proxy";
            client_ = kClientName;
        } else {
            // Neither served by the proxy nor major version 2: the connection test gives up
            // with "version not supported", but has fixed the service address, and every later
            // call goes straight to the service with the library's own NTLM handshake.
            proxy.proxy.version = "1.0.0";
        }
    }
    service.allowedClasses = {tableClass};
    service_ = std::make_unique<servertest::RunningServer>(service);
    proxy.proxy.allowedServers = {service_->Url()};
    proxy_ = std::make_unique<servertest::RunningServer>(proxy);
    endpoint_ = {ProxyConfiguration(proxy_->Url(), service_->Url(), provider_ ? 1 : 0),
                 service_->Url(), way == Way::Ntlm ? VersionNotSupported : Connected, "Payroll"};
}

Deployment::~Deployment() = default;

int Deployment::ProxyConnectStatus() const {
    return servertest::Send(proxy_->Url(), "/connect", std::nullopt,
                            {{"lxclient", kClientName},
                             {"lxserver", endpoint_.serviceUrl},
                             {"lxauth", provider_ ? "oauth" : "windows"}})
        .status;
}

LoginBrowser::LoginBrowser() {
    TableRepositorySetBrowserLauncher(&LoginBrowser::Launch, this);
    TableRepositorySetLoginTimeout(20000);
}

LoginBrowser::~LoginBrowser() {
    TableRepositorySetBrowserLauncher(nullptr, nullptr);
    TableRepositorySetLoginTimeout(0);
    Outcome();
}

std::string LoginBrowser::Outcome() {
    if (visit_.joinable()) {
        visit_.join();
    }
    return outcome_;
}

int LoginBrowser::Launch(const wchar_t* url, void* context) {
    auto* browser = static_cast<LoginBrowser*>(context);
    browser->Outcome();
    browser->visit_ = std::thread([browser, address = ToUtf8(url, std::wcslen(url))] {
        try {
            const testsupport::BrowserPage last = testsupport::TestBrowser("allow").Visit(address);
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
