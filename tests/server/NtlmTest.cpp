// --auth ntlm with real GSSAPI on both ends (gss-ntlmssp): the handshake is bound to the TCP
// connection, passwords are checked, and only the trusted proxy account may name the importing
// client.
#include <gtest/gtest.h>

#include "Base64.h"
#include "NtlmInitiator.h"
#include "ServerFixture.h"
#include "support/Process.h"

#include <nlohmann/json.hpp>

#include <string>

namespace {

using namespace servertest;
using lxrepo::NtlmCredentials;
namespace http = lxrepo::http;

class Ntlm : public ::testing::Test {
protected:
    Ntlm() {
        WriteNtlmUsers(directory.File("users"));
        auto options = DefaultOptions(directory.File("repo.sqlite"));
        options.http.address = kNtlmServiceHost;
        options.http.port = testsupport::FreePort(kNtlmServiceHost);
        options.auth = lxrepo::AuthKind::Ntlm;
        options.ntlmUsersFile = directory.File("users");
        options.trustedProxies = {"testdom\\PROXY"};
        // Its proxy part forwards to this very service, with a password it is told.
        options.proxy.allowedServers = {std::string("http://") + kNtlmServiceHost + ":" +
                                        std::to_string(options.http.port)};
        options.proxy.ntlmCredentials = NtlmCredentials{kProxyAccount.user, "not-the-password"};
        server = std::make_unique<RunningServer>(options);
    }

    TempDirectory directory;
    std::unique_ptr<RunningServer> server;
};

// GET /Import/Connect naming a client, after a handshake with the credentials or, without
// them, with the Authorization header as given.
TEST_F(Ntlm, AHandshakeAuthenticatesOneRequestOnItsOwnConnection) {
    const struct {
        const char* name;
        std::optional<NtlmCredentials> credentials;
        std::string authorization;
        bool sameConnection;
        int status;
        const char* client; // as the service names it
    } cases[] = {
        {"no Authorization", std::nullopt, "", true, 401, ""},
        {"Basic", std::nullopt, "Basic YWxpY2U6eA==", true, 401, ""},
        {"NTLM, not base64", std::nullopt, "NTLM !!", true, 401, ""},
        {"NTLM, not a message", std::nullopt, "NTLM TlRMTVNTUA==", true, 401, ""}, // "NTLMSSP"
        {"right password, not the trusted account", kAlice, "", true, 200, "TESTDOM\\alice"},
        {"the trusted proxy account", kProxyAccount, "", true, 200, "desk \xC3\xBC"},
        {"wrong password", NtlmCredentials{"TESTDOM\\alice", "Wrong-Password"}, "", true, 401, ""},
        {"unknown user", NtlmCredentials{"TESTDOM\\mallory", kAlice.password}, "", true, 401, ""},
        {"authenticate message on another connection", kAlice, "", false, 401, ""},
    };
    const auto url = *lxrepo::ParseBaseUrl(server->Url());
    for (const auto& c : cases) {
        lxrepo::HttpConnection first(url);
        lxrepo::HttpConnection second(url);
        lxrepo::Request request(http::verb::get, "/Import/Connect", 11);
        request.set("X-Lxrepo-Client", "desk%20%C3%BC");
        std::string authorization = c.authorization;
        if (c.credentials) {
            lxrepo::NtlmInitiator initiator(kNtlmServiceHost, *c.credentials);
            lxrepo::Request negotiate = request;
            negotiate.set(http::field::authorization,
                          "NTLM " + lxrepo::EncodeBase64(initiator.Negotiate()));
            const std::string challenge(first.Send(negotiate)[http::field::www_authenticate]);
            const auto bytes = lxrepo::DecodeBase64(challenge.substr(5));
            ASSERT_TRUE(challenge.rfind("NTLM ", 0) == 0 && bytes) << "case: " << c.name;
            authorization = "NTLM " + lxrepo::EncodeBase64(initiator.Authenticate(*bytes));
        }
        if (!authorization.empty()) {
            request.set(http::field::authorization, authorization);
        }
        const auto answer = (c.sameConnection ? first : second).Send(request);
        EXPECT_EQ(answer.result_int(), c.status) << "case: " << c.name << ": " << answer.body();
        const auto body = nlohmann::json::parse(answer.body());
        if (c.status == 200) {
            EXPECT_EQ(body.at("user"), c.credentials->user) << "case: " << c.name;
            EXPECT_EQ(body.at("client"), c.client) << "case: " << c.name;
            // Nothing stays authenticated on the connection.
            request.erase(http::field::authorization);
            EXPECT_EQ(first.Send(request).result_int(), 401) << "case: " << c.name;
        } else {
            EXPECT_EQ(answer[http::field::www_authenticate], "NTLM") << "case: " << c.name;
            EXPECT_TRUE(body.contains("error")) << "case: " << c.name;
        }
    }
}

TEST_F(Ntlm, ProxyWithAWrongPasswordCannotConnect) {
    const Fields query = {{"lxclient", "desk"}, {"lxserver", server->Url()}, {"lxauth", "windows"}};
    ASSERT_EQ(Send(server->Url(), WithQuery("/register", query)).status, 200);
    EXPECT_EQ(Send(server->Url(), WithQuery("/connect", query)).status, 401);
    EXPECT_EQ(Send(server->Url(), WithQuery("/forward/Import/Connect", query)).status, 401);
}

} // namespace
