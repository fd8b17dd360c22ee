// --auth ntlm with real GSSAPI on both ends (gss-ntlmssp): the handshake is bound to the TCP
// connection, passwords are checked, and the proxy authenticates as its own account, which
// alone may name the importing client.
#include <gtest/gtest.h>

#include "Base64.h"
#include "HttpClient.h"
#include "NtlmInitiator.h"
#include "ServerFixture.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <optional>
#include <string>

// gss-ntlmssp 1.2 never frees the MD4 digest it fetches from OpenSSL when it hashes a password;
// that leak is OpenSSL-allocated and not ours.
extern "C" const char* __lsan_default_suppressions() { return "leak:libcrypto.so.3\n"; }

namespace {

using namespace servertest;
using lxrepo::HttpConnection;
using lxrepo::NtlmCredentials;
using lxrepo::NtlmInitiator;
using lxrepo::Request;
using lxrepo::Response;
namespace http = lxrepo::http;

// The library skips the handshake for 127.0.0.1, so the service stands on another loopback
// address, as a service on another machine would.
const std::string serviceHost = "127.0.0.2";

class Ntlm : public ::testing::Test {
protected:
    Ntlm() {
        std::ofstream(usersFile) << "# accounts the service accepts\n"
                                 << "TESTDOM:alice:Right-Password-1\n"
                                 << "TESTDOM:proxy:Proxy-Password-2\n";
        auto options = DefaultOptions(database);
        options.http.address = serviceHost;
        options.auth = lxrepo::AuthKind::Ntlm;
        options.ntlmUsersFile = usersFile;
        options.trustedProxies = {"testdom\\PROXY"};
        options.proxy.ntlmCredentials = NtlmCredentials{"TESTDOM\\proxy", "Proxy-Password-2"};
        // The proxy part allows this very service, whose port is known once it listened.
        server = std::make_unique<RunningServer>(options);
        options.proxy.allowedServers = {server->Url()};
        options.http.port = server->Port();
        server.reset();
        server = std::make_unique<RunningServer>(options);
    }

    lxrepo::BaseUrl Url() const { return *lxrepo::ParseBaseUrl(server->Url()); }

    Request Connect(const std::string& authorization = "") const {
        Request request(http::verb::get, "/Import/Connect", 11);
        if (!authorization.empty()) {
            request.set(http::field::authorization, authorization);
        }
        return request;
    }

    TempDirectory directory;
    std::string usersFile = directory.File("users");
    std::string database = directory.File("repo.sqlite");
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
        EXPECT_TRUE(nlohmann::json::parse(answer.body()).contains("error"));
    }
}

TEST_F(Ntlm, HandshakeAuthenticatesTheRequestOnItsOwnConnectionOnly) {
    struct Case {
        const char* name;
        NtlmCredentials credentials;
        bool sameConnection;
        int status;
    };
    const Case cases[] = {
        {"right password", {"TESTDOM\\alice", "Right-Password-1"}, true, 200},
        {"wrong password", {"TESTDOM\\alice", "Wrong-Password"}, true, 401},
        {"unknown user", {"TESTDOM\\mallory", "Right-Password-1"}, true, 401},
        {"authenticate message on another connection",
         {"TESTDOM\\alice", "Right-Password-1"},
         false,
         401},
    };
    for (const auto& c : cases) {
        NtlmInitiator initiator(serviceHost, c.credentials);
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

TEST_F(Ntlm, SendWithNtlmRunsBothLegsOnOneConnection) {
    HttpConnection connection(Url());
    const Response answer = lxrepo::SendWithNtlm(
        connection, Connect(), serviceHost, NtlmCredentials{"TESTDOM\\alice", "Right-Password-1"});
    EXPECT_EQ(answer.result_int(), 200) << answer.body();
    const auto body = nlohmann::json::parse(answer.body());
    EXPECT_EQ(body.at("client"), "TESTDOM\\alice");
}

TEST_F(Ntlm, OnlyTheTrustedProxyAccountMayNameTheClient) {
    for (const auto& [user, password, expectedClient] :
         {std::tuple<std::string, std::string, std::string>{"TESTDOM\\proxy", "Proxy-Password-2",
                                                            "desk \xC3\xBC"},
          std::tuple<std::string, std::string, std::string>{"TESTDOM\\alice", "Right-Password-1",
                                                            "TESTDOM\\alice"}}) {
        HttpConnection connection(Url());
        Request request = Connect();
        request.set("X-Lxrepo-Client", "desk%20%C3%BC");
        const Response answer =
            lxrepo::SendWithNtlm(connection, request, serviceHost, NtlmCredentials{user, password});
        ASSERT_EQ(answer.result_int(), 200) << "case: " << user;
        EXPECT_EQ(nlohmann::json::parse(answer.body()).at("client"), expectedClient)
            << "case: " << user;
    }
}

TEST_F(Ntlm, ProxyImportsAsItsOwnAccountOnBehalfOfTheClient) {
    const Query parameters = {
        {"lxclient", "desk 07"}, {"lxserver", server->Url()}, {"lxauth", "windows"}};
    ASSERT_EQ(Send(server->Url(), "GET", {Word("/register")}, std::nullopt, parameters).status,
              200);
    EXPECT_EQ(Send(server->Url(), "GET", {Word("/connect")}, std::nullopt, parameters).status, 200);

    const TableData table = {"Through NTLM", {"Name"}, {{"a", "b \xC3\xA9"}}, {{1, -1, 0}}};
    ASSERT_EQ(ImportWholeTable(Via(server->Url(), "/forward", parameters), table), 200);
    const std::vector<Row> expected = {{"b \xC3\xA9"}, {std::nullopt}, {"a"}};
    EXPECT_EQ(QueryRows(database, "select * from \"Through NTLM\" order by rowid"), expected);
    const auto catalogue = QueryRows(database, "select imported_by, client from lxrepo_tables");
    ASSERT_EQ(catalogue.size(), 1u);
    EXPECT_EQ(catalogue[0][0], "TESTDOM\\proxy");
    EXPECT_EQ(catalogue[0][1], "desk 07");
}

TEST_F(Ntlm, ProxyWithAWrongPasswordCannotConnect) {
    auto options = DefaultOptions(directory.File("proxy.sqlite"));
    options.role = lxrepo::Role::Proxy;
    options.proxy.allowedServers = {server->Url()};
    options.proxy.ntlmCredentials = NtlmCredentials{"TESTDOM\\proxy", "not-the-password"};
    RunningServer proxy(options);
    const Query parameters = {
        {"lxclient", "desk"}, {"lxserver", server->Url()}, {"lxauth", "windows"}};
    ASSERT_EQ(Send(proxy.Url(), "GET", {Word("/register")}, std::nullopt, parameters).status, 200);
    const Answer connect = Send(proxy.Url(), "GET", {Word("/connect")}, std::nullopt, parameters);
    EXPECT_EQ(connect.status, 401) << connect.body;
    const Answer forwarded = Send(Via(proxy.Url(), "/forward", parameters), "GET",
                                  {Word("/Import/Connect")}, std::nullopt);
    EXPECT_EQ(forwarded.status, 401) << forwarded.body;
}

} // namespace
