// The service's bearer mode as outside callers meet it: tokens checked by introspection at the
// OpenID provider, the provider's answers passed on under /identity, and the proxy calling with
// a token of its own from the client-credentials grant, on behalf of the client it names.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include "Base64.h"

#include <cpprest/http_client.h>
#include <nlohmann/json.hpp>

namespace {

using namespace e2e;
using servertest::Answer;

class Bearer : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Deployment::Available(Way::Login)) {
            GTEST_SKIP()
                << "needs node and tests/oidc's packages (scripts/install-dependencies.sh)";
        }
        deployment = std::make_unique<Deployment>(Way::Login, files.File("repo.sqlite"), "Sales");
    }

    // POST /identity/token with the client-credentials grant, through the service.
    Answer Token(const std::string& secret) const {
        web::http::http_request request(web::http::methods::POST);
        request.headers().add("Authorization",
                              "Basic " + lxrepo::EncodeBase64("lxrepo-proxy:" + secret));
        request.set_body("grant_type=client_credentials", "application/x-www-form-urlencoded");
        const auto response =
            web::http::client::http_client(deployment->Host().serviceUrl + "/identity/token")
                .request(request)
                .get();
        return {response.status_code(), "", response.extract_utf8string(true).get(), ""};
    }

    servertest::TempDirectory files;
    std::unique_ptr<Deployment> deployment;
};

TEST_F(Bearer, TokensAreCheckedAtTheProvider) {
    const Answer refused = Token("wrong secret");
    EXPECT_EQ(refused.status, 401) << refused.body;
    EXPECT_EQ(refused.Error(), "invalid_client");
    const Answer issued = Token("proxy-secret-for-tokens");
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
        const Answer answer = servertest::Send(deployment->Host().serviceUrl, "/Import/Connect",
                                               std::nullopt, {}, c.authorization);
        EXPECT_EQ(answer.status, c.status) << "case: " << c.name << ": " << answer.body;
        if (c.status == 401) {
            EXPECT_EQ(answer.wwwAuthenticate.rfind("Bearer", 0), 0u) << "case: " << c.name;
        } else {
            EXPECT_EQ(nlohmann::json::parse(answer.body).at("user"), "lxrepo-proxy")
                << "case: " << c.name;
        }
    }
}

TEST_F(Bearer, ProxyCallsWithItsOwnTokenOnBehalfOfTheClient) {
    const servertest::Query parameters = {
        {"lxclient", "desk 9"}, {"lxserver", deployment->Host().serviceUrl}, {"lxauth", "oauth"}};
    ASSERT_EQ(
        servertest::Send(deployment->ProxyUrl(), "/register", std::nullopt, parameters).status,
        200);
    const Answer forwarded = servertest::Send(deployment->ProxyUrl(), "/forward/Import/Connect",
                                              std::nullopt, parameters);
    ASSERT_EQ(forwarded.status, 200) << forwarded.body;
    const auto body = nlohmann::json::parse(forwarded.body);
    EXPECT_EQ(body.at("user"), "lxrepo-proxy");
    EXPECT_EQ(body.at("client"), "desk 9");
}

} // namespace
