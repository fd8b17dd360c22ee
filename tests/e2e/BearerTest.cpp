// The service's bearer mode as outside callers meet it: tokens checked by introspection at the
// OpenID provider, the provider's answers passed on under /identity, and the proxy calling with
// a token of its own from the client-credentials grant, on behalf of the client it names.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include "Base64.h"
#include "support/RecordingServer.h"

#include <nlohmann/json.hpp>

namespace {

using namespace e2e;
using namespace servertest;

TEST(Bearer, TokensAreCheckedAtTheProviderAndTheProxyBringsItsOwn) {
    if (!Deployment::Available(Way::Login)) {
        GTEST_SKIP() << "needs node and tests/oidc's packages (scripts/install-dependencies.sh)";
    }
    TempDirectory files;
    const Deployment deployment(Way::Login, files.File("repo.sqlite"), {"Sales"});
    const std::string service = deployment.host.serviceUrl;
    // A token of the client-credentials grant, asked for through the service.
    const Answer issued = Send(
        service, "/identity/token", "grant_type=client_credentials",
        {{"Authorization", "Basic " + lxrepo::EncodeBase64("lxrepo-proxy:proxy-secret-for-tokens")},
         {"Content-Type", "application/x-www-form-urlencoded"}});
    ASSERT_EQ(issued.status, 200) << issued.body;
    const std::string bearer =
        "Bearer " + nlohmann::json::parse(issued.body).at("access_token").get<std::string>();
    const Fields proxied = {{"lxclient", "desk 9"}, {"lxserver", service}, {"lxauth", "oauth"}};
    ASSERT_EQ(Send(deployment.proxyServer->Url(), WithQuery("/register", proxied)).status, 200);
    const struct {
        const char* name;
        std::string url;
        std::string target;
        std::string authorization;
        int status;
        const char* client;
    } cases[] = {
        {"no token", service, "/Import/Connect", "", 401, ""},
        {"a token the provider never issued", service, "/Import/Connect",
         "Bearer 5jF0aFakeTokenThatWasNeverIssued0000000000", 401, ""},
        {"another scheme", service, "/Import/Connect", "Basic bHhyZXBvLXByb3h5Og==", 401, ""},
        {"an issued token", service, "/Import/Connect", bearer, 200, "lxrepo-proxy"},
        {"the same token again (answered from the cache)", service, "/Import/Connect", bearer, 200,
         "lxrepo-proxy"},
        {"the proxy with its own token, naming the client", deployment.proxyServer->Url(),
         WithQuery("/forward/Import/Connect", proxied), "", 200, "desk 9"},
    };
    for (const auto& c : cases) {
        const Answer answer =
            Send(c.url, c.target, std::nullopt, {{"Authorization", c.authorization}});
        EXPECT_EQ(answer.status, c.status) << "case: " << c.name << ": " << answer.body;
        if (c.status == 401) {
            EXPECT_EQ(answer.wwwAuthenticate.rfind("Bearer", 0), 0u) << "case: " << c.name;
        } else {
            const auto body = nlohmann::json::parse(answer.body);
            EXPECT_EQ(body.at("user"), "lxrepo-proxy") << "case: " << c.name;
            EXPECT_EQ(body.at("client"), c.client) << "case: " << c.name;
        }
    }
    // A token endpoint that answers the proxy with something other than JSON (a maintenance page)
    // is a bad gateway for the client, with the endpoint's answer in the error.
    testsupport::RecordingServer maintenance;
    maintenance.SetDefault({200, {{"Content-Type", "text/html"}}, "<p>back soon</p>", false, {}});
    auto options = DefaultOptions(files.File("proxy2.sqlite"), lxrepo::Role::Proxy);
    options.proxyOAuth = {maintenance.BaseUrl() + "/token", "lxrepo-proxy", "secret", "", ""};
    options.proxy.allowedServers = {service};
    const RunningServer proxy(options);
    ASSERT_EQ(Send(proxy.Url(), WithQuery("/register", proxied)).status, 200);
    const Answer refused = Send(proxy.Url(), WithQuery("/forward/Import/Connect", proxied));
    EXPECT_EQ(refused.status, 502) << refused.body;
    EXPECT_NE(refused.Error().find("no token (status 200): <p>back soon</p>"), std::string::npos)
        << refused.body;
}

} // namespace
