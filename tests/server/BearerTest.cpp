// --auth bearer against a real OpenID provider (oidc-provider under Node): tokens checked by
// introspection, /identity passed on to the provider, and the proxy calling with a token of its
// own from the client-credentials grant.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "Base64.h"
#include "ServerFixture.h"
#include "support/Process.h"

#include <cpprest/http_client.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>

namespace {

using namespace servertest;

const std::string proxySecret = "proxy-secret-for-tokens";

class Bearer : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string node = LXREPO_NODE;
        if (node.find("NOTFOUND") != std::string::npos ||
            !std::filesystem::exists(LXREPO_OIDC_PROVIDER_ENTRY)) {
            GTEST_SKIP()
                << "needs node and tests/oidc's packages (scripts/install-dependencies.sh)";
        }
        // The provider's issuer is the service's /identity, so the service's port comes first.
        auto options = DefaultOptions(directory.File("repo.sqlite"));
        options.http.port = testsupport::FreePort();
        serviceUrl = "http://127.0.0.1:" + std::to_string(options.http.port);
        provider = std::make_unique<testsupport::ChildProcess>(
            std::vector<std::string>{node, LXREPO_BEARER_PROVIDER, "0", serviceUrl + "/identity"});
        const std::string providerUrl =
            "http://127.0.0.1:" + std::to_string(provider->Port()) + "/identity";
        options.auth = lxrepo::AuthKind::Bearer;
        options.introspection = {providerUrl + "/token/introspection", "lxrepo-service",
                                 "service-secret-for-introspection"};
        options.identityUpstream = providerUrl;
        options.trustedProxies = {"lxrepo-proxy"};
        options.proxy.allowedServers = {serviceUrl};
        // Through the service's own /identity, as any client of the service would go.
        options.proxyOAuth = {serviceUrl + "/identity/token", "lxrepo-proxy", proxySecret, "", ""};
        server = std::make_unique<RunningServer>(options);
    }

    // POST /identity/token with the client-credentials grant, through the service.
    Answer Token(const std::string& secret) const {
        web::http::http_request request(web::http::methods::POST);
        request.headers().add("Authorization",
                              "Basic " + lxrepo::EncodeBase64("lxrepo-proxy:" + secret));
        request.set_body("grant_type=client_credentials", "application/x-www-form-urlencoded");
        const auto response =
            web::http::client::http_client(serviceUrl + "/identity/token").request(request).get();
        return {response.status_code(), "", response.extract_utf8string(true).get(), ""};
    }

    TempDirectory directory;
    std::string serviceUrl;
    std::unique_ptr<testsupport::ChildProcess> provider;
    std::unique_ptr<RunningServer> server;
};

TEST_F(Bearer, TokensAreCheckedAtTheProvider) {
    const Answer issued = Token(proxySecret);
    ASSERT_EQ(issued.status, 200) << issued.body;
    const std::string token = nlohmann::json::parse(issued.body).at("access_token");
    const struct {
        const char* name;
        std::string authorization;
        int status;
    } cases[] = {
        {"no token", "", 401},
        {"a token the provider never issued", "Bearer 5jF0aFakeTokenThatWasNeverIssued0000000000",
         401},
        {"another scheme", "Basic bHhyZXBvLXByb3h5Og==", 401},
        {"an issued token", "Bearer " + token, 200},
        {"the same token again (answered from the cache)", "Bearer " + token, 200},
    };
    for (const auto& c : cases) {
        const Answer answer =
            Send(serviceUrl, {Word("/Import/Connect")}, std::nullopt, {}, c.authorization);
        EXPECT_EQ(answer.status, c.status) << "case: " << c.name << ": " << answer.body;
        if (c.status == 401) {
            EXPECT_EQ(answer.wwwAuthenticate.rfind("Bearer", 0), 0u) << "case: " << c.name;
        } else {
            EXPECT_EQ(nlohmann::json::parse(answer.body).at("user"), "lxrepo-proxy")
                << "case: " << c.name;
        }
    }
}

TEST_F(Bearer, IdentityRequestsGoOnToTheProvider) {
    const Answer discovery = Send(serviceUrl, {Word("/identity/.well-known/openid-configuration")});
    ASSERT_EQ(discovery.status, 200) << discovery.body;
    const auto document = nlohmann::json::parse(discovery.body);
    EXPECT_EQ(document.at("issuer"), serviceUrl + "/identity");
    EXPECT_EQ(document.at("token_endpoint"), serviceUrl + "/identity/token");
    EXPECT_EQ(document.at("introspection_endpoint"), serviceUrl + "/identity/token/introspection");

    const Answer refused = Token("wrong secret");
    EXPECT_EQ(refused.status, 401) << refused.body;
    EXPECT_EQ(nlohmann::json::parse(refused.body).at("error"), "invalid_client");
}

TEST_F(Bearer, ProxyCallsWithItsOwnTokenOnBehalfOfTheClient) {
    const Query parameters = {
        {"lxclient", "desk 9"}, {"lxserver", serviceUrl}, {"lxauth", "oauth"}};
    ASSERT_EQ(Send(serviceUrl, {Word("/register")}, std::nullopt, parameters).status, 200);
    const Answer connect = Send(serviceUrl, {Word("/connect")}, std::nullopt, parameters);
    EXPECT_EQ(connect.status, 200) << connect.body;
    const Answer forwarded =
        Send(serviceUrl, {Word("/forward"), Word("/Import/Connect")}, std::nullopt, parameters);
    ASSERT_EQ(forwarded.status, 200) << forwarded.body;
    const auto body = nlohmann::json::parse(forwarded.body);
    EXPECT_EQ(body.at("user"), "lxrepo-proxy");
    EXPECT_EQ(body.at("client"), "desk 9");
}

} // namespace
