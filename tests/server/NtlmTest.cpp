// --auth ntlm with real GSSAPI on both ends (gss-ntlmssp): the handshake is bound to the TCP
// connection, passwords are checked, and only the trusted proxy account may name the importing
// client.
#include <gtest/gtest.h>

#include "Base64.h"
#include "HttpClient.h"
#include "NtlmInitiator.h"
#include "ServerFixture.h"
#include "support/Process.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <string>

// gss-ntlmssp 1.2 never frees the MD4 digest it fetches from OpenSSL when it hashes a password;
// that leak is OpenSSL-allocated and not ours.
extern "C" const char* __lsan_default_suppressions() { return "leak:libcrypto.so.3\n"; }

namespace {

using namespace servertest;
using lxrepo::HttpConnection;
using lxrepo::NtlmCredentials;
using lxrepo::Request;
using lxrepo::Response;
namespace http = lxrepo::http;

// The library skips the handshake for 127.0.0.1, so the service stands on another loopback
// address, as a service on another machine would.
const std::string serviceHost = "127.0.0.2";
const NtlmCredentials alice{"TESTDOM\\alice", "Right-Password-1"};

class Ntlm : public ::testing::Test {
protected:
    Ntlm() {
        std::ofstream(usersFile)
            << "# accounts the service accepts\n"
            << "TESTDOM:alice:Right-Password-1\nTESTDOM:proxy:Proxy-Password-2\n";
        auto options = DefaultOptions(directory.File("repo.sqlite"));
        options.http.address = serviceHost;
        options.http.port = testsupport::FreePort(serviceHost);
        options.auth = lxrepo::AuthKind::Ntlm;
        options.ntlmUsersFile = usersFile;
        options.trustedProxies = {"testdom\\PROXY"};
        // Its proxy part forwards to this very service, with a password it is told.
        options.proxy.allowedServers = {"http://" + serviceHost + ":" +
                                        std::to_string(options.http.port)};
        options.proxy.ntlmCredentials = NtlmCredentials{"TESTDOM\\proxy", "not-the-password"};
        server = std::make_unique<RunningServer>(options);
    }

    lxrepo::BaseUrl Url() const { return *lxrepo::ParseBaseUrl(server->Url()); }

    static Request Connect(const std::string& authorization = "") {
        Request request(http::verb::get, "/Import/Connect", 11);
        if (!authorization.empty()) {
            request.set(http::field::authorization, authorization);
        }
        return request;
    }

    TempDirectory directory;
    std::string usersFile = directory.File("users");
    std::unique_ptr<RunningServer> server;
};

TEST_F(Ntlm, RequestsWithoutAHandshakeAreChallenged) {
    HttpConnection connection(Url());
    for (const std::string& authorization :
         {std::string(), std::string("Basic YWxpY2U6eA=="), std::string("NTLM !!"),
          "NTLM " + lxrepo::EncodeBase64("NTLMSSP")}) {
        Request request = Connect(authorization);
        const Response answer = connection.Send(request);
        EXPECT_EQ(answer.result_int(), 401) << "case: " << authorization;
        EXPECT_EQ(answer[http::field::www_authenticate], "NTLM") << "case: " << authorization;
        EXPECT_TRUE(nlohmann::json::parse(answer.body()).contains("error"))
            << "case: " << authorization;
    }
}

TEST_F(Ntlm, HandshakeAuthenticatesTheRequestOnItsOwnConnectionOnly) {
    const struct {
        const char* name;
        NtlmCredentials credentials;
        bool sameConnection;
        int status;
    } cases[] = {
        {"right password", alice, true, 200},
        {"wrong password", {"TESTDOM\\alice", "Wrong-Password"}, true, 401},
        {"unknown user", {"TESTDOM\\mallory", "Right-Password-1"}, true, 401},
        {"authenticate message on another connection", alice, false, 401},
    };
    for (const auto& c : cases) {
        lxrepo::NtlmInitiator initiator(serviceHost, c.credentials);
        HttpConnection first(Url());
        Request negotiate = Connect("NTLM " + lxrepo::EncodeBase64(initiator.Negotiate()));
        const Response challenge = first.Send(negotiate);
        ASSERT_EQ(challenge.result_int(), 401) << "case: " << c.name;
        const std::string header(challenge[http::field::www_authenticate]);
        ASSERT_EQ(header.rfind("NTLM ", 0), 0u) << "case: " << c.name << ": " << header;
        const auto challengeBytes = lxrepo::DecodeBase64(header.substr(5));
        ASSERT_TRUE(challengeBytes) << "case: " << c.name;

        HttpConnection second(Url());
        Request authenticate =
            Connect("NTLM " + lxrepo::EncodeBase64(initiator.Authenticate(*challengeBytes)));
        const Response answer = (c.sameConnection ? first : second).Send(authenticate);
        EXPECT_EQ(answer.result_int(), c.status) << "case: " << c.name << ": " << answer.body();
        if (c.status == 200) {
            EXPECT_EQ(nlohmann::json::parse(answer.body()).at("user"), "TESTDOM\\alice");
            // Nothing stays authenticated on the connection.
            Request next = Connect();
            EXPECT_EQ(first.Send(next).result_int(), 401) << "case: " << c.name;
        }
    }
}

TEST_F(Ntlm, OnlyTheTrustedProxyAccountMayNameTheClient) {
    const struct {
        NtlmCredentials credentials;
        const char* client;
    } cases[] = {{{"TESTDOM\\proxy", "Proxy-Password-2"}, "desk \xC3\xBC"},
                 {alice, "TESTDOM\\alice"}};
    for (const auto& c : cases) {
        HttpConnection connection(Url());
        Request request = Connect();
        request.set("X-Lxrepo-Client", "desk%20%C3%BC");
        const Response answer =
            lxrepo::SendWithNtlm(connection, request, serviceHost, c.credentials);
        ASSERT_EQ(answer.result_int(), 200) << "case: " << c.credentials.user;
        EXPECT_EQ(nlohmann::json::parse(answer.body()).at("client"), c.client)
            << "case: " << c.credentials.user;
    }
}

TEST_F(Ntlm, ProxyWithAWrongPasswordCannotConnect) {
    const Query parameters = {
        {"lxclient", "desk"}, {"lxserver", server->Url()}, {"lxauth", "windows"}};
    ASSERT_EQ(Send(server->Url(), "/register", std::nullopt, parameters).status, 200);
    const Answer connect = Send(server->Url(), "/connect", std::nullopt, parameters);
    EXPECT_EQ(connect.status, 401) << connect.body;
    const Answer forwarded =
        Send(server->Url(), "/forward/Import/Connect", std::nullopt, parameters);
    EXPECT_EQ(forwarded.status, 401) << forwarded.body;
}

} // namespace
