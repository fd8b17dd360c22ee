// --auth bearer against a real OpenID provider (oidc-provider under Node): tokens checked by
// introspection, /identity passed on to the provider, and the proxy importing with a token of
// its own from the client-credentials grant.
#include <gtest/gtest.h>

#include "ServerFixture.h"

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
        const unsigned short servicePort = FreePort();
        serviceUrl = "http://127.0.0.1:" + std::to_string(servicePort);
        provider = std::make_unique<ChildProcess>(
            std::vector<std::string>{node, LXREPO_BEARER_PROVIDER, "0", serviceUrl + "/identity"});
        const std::string providerUrl =
            "http://127.0.0.1:" + std::to_string(provider->Port()) + "/identity";

        auto options = DefaultOptions(database);
        options.http.port = servicePort;
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
    Answer Token(const std::string& clientId, const std::string& secret) const {
        const std::string credentials = clientId + ":" + secret;
        web::http::http_request request(web::http::methods::POST);
        request.headers().add("Authorization",
                              "Basic " + utility::conversions::to_base64(std::vector<unsigned char>(
                                             credentials.begin(), credentials.end())));
        request.set_body("grant_type=client_credentials", "application/x-www-form-urlencoded");
        return Exchange(serviceUrl + "/identity/token", request);
    }

    Answer Connect(const std::string& authorization) const {
        web::http::http_request request(web::http::methods::GET);
        if (!authorization.empty()) {
            request.headers().add("Authorization", authorization);
        }
        return Exchange(serviceUrl + "/Import/Connect", request);
    }

    static Answer Exchange(const std::string& url, web::http::http_request& request) {
        web::http::client::http_client client(url);
        const auto response = client.request(request).get();
        Answer answer{response.status_code(), response.headers().content_type(),
                      response.extract_utf8string(true).get(), ""};
        response.headers().match("WWW-Authenticate", answer.wwwAuthenticate);
        return answer;
    }

    TempDirectory directory;
    std::string database = directory.File("repo.sqlite");
    std::string serviceUrl;
    std::unique_ptr<ChildProcess> provider;
    std::unique_ptr<RunningServer> server;
};

TEST_F(Bearer, TokensAreCheckedAtTheProvider) {
    const Answer issued = Token("lxrepo-proxy", proxySecret);
    ASSERT_EQ(issued.status, 200) << issued.body;
    const std::string token = nlohmann::json::parse(issued.body).at("access_token");

    struct Case {
        const char* name;
        std::string authorization;
        int status;
    };
    const Case cases[] = {
        {"no token", "", 401},
        {"a token the provider never issued", "Bearer 5jF0aFakeTokenThatWasNeverIssued0000000000",
         401},
        {"another scheme", "Basic bHhyZXBvLXByb3h5Og==", 401},
        {"an issued token", "Bearer " + token, 200},
        {"the same token again (answered from the cache)", "Bearer " + token, 200},
    };
    for (const auto& c : cases) {
        const Answer answer = Connect(c.authorization);
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
    const Answer discovery =
        Send(serviceUrl, "GET", {Word("/identity/.well-known/openid-configuration")}, std::nullopt);
    ASSERT_EQ(discovery.status, 200) << discovery.body;
    const auto document = nlohmann::json::parse(discovery.body);
    EXPECT_EQ(document.at("issuer"), serviceUrl + "/identity");
    EXPECT_EQ(document.at("token_endpoint"), serviceUrl + "/identity/token");
    EXPECT_EQ(document.at("introspection_endpoint"), serviceUrl + "/identity/token/introspection");

    const Answer refused = Token("lxrepo-proxy", "wrong secret");
    EXPECT_EQ(refused.status, 401) << refused.body;
    EXPECT_EQ(nlohmann::json::parse(refused.body).at("error"), "invalid_client");
}

TEST_F(Bearer, ProxyImportsWithItsOwnTokenOnBehalfOfTheClient) {
    const Query parameters = {
        {"lxclient", "desk 9"}, {"lxserver", serviceUrl}, {"lxauth", "oauth"}};
    ASSERT_EQ(Send(serviceUrl, "GET", {Word("/register")}, std::nullopt, parameters).status, 200);
    const Answer connect = Send(serviceUrl, "GET", {Word("/connect")}, std::nullopt, parameters);
    EXPECT_EQ(connect.status, 200) << connect.body;

    const TableData table = {"Through a token", {"N"}, {{"p", "q"}}, {{1, 0, -1}}};
    ASSERT_EQ(ImportWholeTable(Via(serviceUrl, "/forward", parameters), table), 200);
    const std::vector<Row> expected = {{"q"}, {"p"}, {std::nullopt}};
    EXPECT_EQ(QueryRows(database, "select * from \"Through a token\" order by rowid"), expected);
    const auto catalogue = QueryRows(database, "select imported_by, client from lxrepo_tables");
    ASSERT_EQ(catalogue.size(), 1u);
    EXPECT_EQ(catalogue[0][0], "lxrepo-proxy");
    EXPECT_EQ(catalogue[0][1], "desk 9");
}

} // namespace
