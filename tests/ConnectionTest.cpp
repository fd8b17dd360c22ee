// Registration with the authentication proxy and the connection test, driven through the public
// client object against loopback servers that record what arrives; the direct connection logs in
// at the real OpenID provider.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "HttpClient.h"
#include "IdentityLoginSettings.h"
#include "TableRepositoryImport.h"
#include "support/ConnectedClient.h"
#include "support/OidcProvider.h"
#include "support/Thrown.h"

#include <cpprest/http_client.h>
#include <cpprest/json.h>

namespace {

using testsupport::Expected;
using testsupport::kNothing;
using testsupport::RecordedRequest;
using testsupport::RecordingServer;
using testsupport::ScriptedResponse;
using testsupport::Thrown;
using testsupport::ThrownBy;
using testsupport::Wide;

ScriptedResponse Answer(int status, const std::string& type = "", const std::string& body = "") {
    ScriptedResponse answer{status, {}, body, false, {}};
    if (!type.empty()) {
        answer.headers.push_back({"Content-Type", type});
    }
    return answer;
}

ScriptedResponse Version(const std::string& version) {
    return Answer(200, "application/json", "{\"version\":\"" + version + "\"}");
}

std::string RefusedUrl() { return "http://127.0.0.1:" + std::to_string(testsupport::FreePort()); }

const Thrown kRefused =
    Expected<web::http::http_exception>("Failed to connect to any resolved endpoint");
const Thrown kNoHostname = Expected<std::invalid_argument>("URI must contain a hostname.");

// "GET /target" and the Authorization of each request, in order.
std::string Calls(const std::vector<RecordedRequest>& requests) {
    std::string calls;
    for (const RecordedRequest& r : requests) {
        const auto authorization = r.HeaderValue("Authorization");
        calls += (calls.empty() ? "" : ", ") + r.method + " " + r.target +
                 (authorization ? " " + *authorization : "") + (r.body.empty() ? "" : " +body");
    }
    return calls;
}

// A client object as the host gets it, with a proxy and a service to talk to.
class Connection : public ::testing::Test {
protected:
    void NewClient() {
        client.reset(static_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
        proxy.Clear();
        service.Clear();
    }

    CAuthenticationProxyConfiguration Configuration(const std::string& at, int type = 0) const {
        CAuthenticationProxyConfiguration config;
        config.proxyBaseUri = Wide(at);
        config.registrationPath = L"/register";
        config.unregistrationPath = L"/unregister";
        config.proxyPath = L"/forward";
        config.connectPath = L"/connect";
        config.clientName = L"desk 1";
        config.serverName = L"http://registered.example";
        config.authenticationType = type;
        return config;
    }

    // Which way the next operation goes, as the connection test left the client.
    std::string NextRequest() {
        proxy.Clear();
        service.Clear();
        client->IsAuthorized(L"Sales");
        return "proxy: " + Calls(proxy.Requests()) + "; service: " + Calls(service.Requests());
    }

    RecordingServer proxy;
    RecordingServer service;
    std::unique_ptr<CTableRepositoryImport> client{
        static_cast<CTableRepositoryImport*>(new_TableRepositoryImport())};
};

TEST_F(Connection, RegistrationAnnouncesClientAndServerAndNothingElse) {
    struct Case {
        const char* name;
        std::string base;
        const wchar_t* path;
        const wchar_t* clientName;
        const wchar_t* serverName;
        int type;
        std::string call;
    };
    const Case cases[] = {
        {"plain names", "", L"/register", L"desk-1", L"http://repo.example:8080", 0,
         "GET /register?lxclient=desk-1&lxserver=http://repo.example:8080"},
        {"token authentication adds no lxauth", "", L"/r", L"d", L"s", 1,
         "GET /r?lxclient=d&lxserver=s"},
        {"reserved and non-ASCII characters travel percent-encoded as UTF-8", "", L"/r",
         L"Z\u00f6e & co \U0001F600", L"http://h/a b?x=1;y+z", 7,
         "GET "
         "/r?lxclient=Z%C3%B6e%20%26%20co%20%F0%9F%98%80&lxserver=http://h/a%20b?x%3D1%3By%2Bz"},
        {"a path with a query keeps it in front", "", L"/r?site=7&mode=a", L"d", L"s", 0,
         "GET /r?site=7&mode=a&lxclient=d&lxserver=s"},
        {"empty names are sent empty", "", L"/r", L"", L"", 0, "GET /r?lxclient=&lxserver="},
        {"the path goes below the proxy's own path", "/gate", L"/r", L"d", L"s", 0,
         "GET /gate/r?lxclient=d&lxserver=s"},
    };
    for (const Case& c : cases) {
        NewClient();
        CAuthenticationProxyConfiguration config = Configuration(proxy.BaseUrl() + c.base, c.type);
        config.registrationPath = c.path;
        config.clientName = c.clientName;
        config.serverName = c.serverName;
        client->RegisterWithAuthenticationProxy(config);
        EXPECT_EQ(Calls(proxy.Requests()), c.call) << "case: " << c.name;
        EXPECT_EQ(proxy.Requests()[0].HeaderCount("Content-Type"), 0u) << "case: " << c.name;
    }
}

// The proxy's answer is not looked at, and an unreachable proxy throws; either way the connection
// test asks the proxy of this registration, not of an earlier one.
TEST_F(Connection, RegistrationStoresTheConfigurationWhateverTheProxyAnswers) {
    // Before any registration there is no proxy address to ask; the service's is kept anyway.
    EXPECT_EQ(ThrownBy([&] { client->TestConnection(Wide(service.BaseUrl() + "/r")); }),
              kNoHostname);
    EXPECT_EQ(NextRequest(), "proxy: ; service: POST /Import/Authorization +body");

    for (const bool reachable : {true, false}) {
        NewClient();
        RecordingServer second;
        second.Enqueue(Answer(500, "application/json", "{\"error\":\"unknown client\"}"));
        second.Enqueue(Version("1.0.0"));
        client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl()));
        const auto config = Configuration(reachable ? second.BaseUrl() : RefusedUrl(), 1);
        const Thrown thrown = reachable ? kNothing : kRefused;
        EXPECT_EQ(ThrownBy([&] { client->RegisterWithAuthenticationProxy(config); }), thrown);
        EXPECT_EQ(ThrownBy([&] { client->TestConnection(Wide(service.BaseUrl())); }), thrown);
        EXPECT_EQ(proxy.Requests().size(), 1u);
        EXPECT_EQ(Calls(second.Requests()),
                  reachable ? "GET /register?lxclient=desk%201&lxserver=http://registered.example, "
                              "GET /register?lxclient=desk%201&lxserver=" +
                                  service.BaseUrl() + "&lxauth=oauth"
                            : "");
    }
}

TEST_F(Connection, UnregistrationUsesOnlyItsArgumentAndChangesNoState) {
    proxy.Enqueue(Answer(200));
    proxy.Enqueue(Version("1.0.0-lxproxy-2.1"));
    client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl()));
    ASSERT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, Connected);
    proxy.Clear();
    RecordingServer other;
    other.SetDefault(Answer(500));
    CAuthenticationProxyConfiguration config = Configuration(other.BaseUrl(), 1);
    config.unregistrationPath = L"/bye?x=1";
    config.clientName = L"other \u00e9";

    EXPECT_TRUE(client->UnregisterFromAuthenticationProxy(config).message.IsEmpty());
    EXPECT_EQ(Calls(other.Requests()), "GET /bye?x=1&lxclient=other%20%C3%A9");
    // Still forwarded through the proxy the connection test switched to, which keeps its name.
    EXPECT_EQ(NextRequest(),
              "proxy: POST /forward/Import/Authorization?lxclient=desk%201&lxserver=" +
                  service.BaseUrl() + "&lxauth=windows +body; service: ");
    config.proxyBaseUri = Wide(RefusedUrl());
    EXPECT_EQ(ThrownBy([&] { client->UnregisterFromAuthenticationProxy(config); }), kRefused);
}

// The proxy's version answer decides: a proxy-served version (only the digits at positions 0,
// 14 and 16 count) leads to the connect call, whose success makes every later request go through
// the proxy; a version that does not start with "2" is not supported; an answer that cannot be
// read throws, after the service's address has been taken.
TEST_F(Connection, OutcomeFollowsTheVersionAndTheConnectAnswer) {
    struct Case {
        const char* name;
        int type;
        ScriptedResponse answer; // to the version call
        int connect;             // status of the connect call; 0 when none is expected
        int status;
        const wchar_t* version;
        Thrown thrown;
    };
    const std::string served = "{\"version\":\"1.0.0-lxproxy-2.1\"}";
    const auto json = Expected<web::json::json_exception>;
    const auto no = VersionNotSupported;
    const Case cases[] = {
        {"version call answered 500 is not read", 0, Answer(500, "application/json", served), 0,
         ConnectionFailed, L"", kNothing},
        {"version call answered 201 is not read", 0, Answer(201, "application/json", served), 0,
         ConnectionFailed, L"", kNothing},
        {"version call answered 401", 0, Answer(401), 0, ConnectionFailed, L"", kNothing},
        {"1.0.0 is not supported", 0, Version("1.0.0"), 0, no, L"1.0.0", kNothing},
        {"served, connect 200", 0, Version("1.0.0-lxproxy-2.1"), 200, Connected,
         L"1.0.0-lxproxy-2.1", kNothing},
        {"token authentication", 1, Version("1.0.0-lxproxy-2.1"), 200, Connected,
         L"1.0.0-lxproxy-2.1", kNothing},
        {"served, connect 401", 0, Version("1.0.0-lxproxy-2.1"), 401, NotAuthorized,
         L"1.0.0-lxproxy-2.1", kNothing},
        {"served, connect 500", 0, Version("1.0.0-lxproxy-2.1"), 500, ConnectionFailed,
         L"1.0.0-lxproxy-2.1", kNothing},
        {"served, connect 204", 0, Version("1.0.0-lxproxy-2.1"), 204, ConnectionFailed,
         L"1.0.0-lxproxy-2.1", kNothing},
        {"larger digits, any other type", 7, Version("9.9.9-lxproxy-9.9"), 200, Connected,
         L"9.9.9-lxproxy-9.9", kNothing},
        {"a longer number at 16", 0, Version("1.0.0-lxproxy-2.12"), 200, Connected,
         L"1.0.0-lxproxy-2.12", kNothing},
        {"other characters between", 0, Version("1a0bcdefghijkl2m1"), 200, Connected,
         L"1a0bcdefghijkl2m1", kNothing},
        {"minor not a digit reads as 0", 0, Version("1.x.0-lxproxy-2.1"), 200, Connected,
         L"1.x.0-lxproxy-2.1", kNothing},
        {"embedded 2.0", 0, Version("1.0.0-lxproxy-2.0"), 0, no, L"1.0.0-lxproxy-2.0", kNothing},
        {"embedded 1.9", 0, Version("1.0.0-lxproxy-1.9"), 0, no, L"1.0.0-lxproxy-1.9", kNothing},
        {"dotted major 0", 0, Version("0.9.9-lxproxy-9.9"), 0, no, L"0.9.9-lxproxy-9.9", kNothing},
        {"a sign reads as 0", 0, Version("-1.0.0-lxproxy-2.1"), 0, no, L"-1.0.0-lxproxy-2.1",
         kNothing},
        {"two-digit embedded number", 0, Version("1.0.0-lxproxy-12.1"), 0, no,
         L"1.0.0-lxproxy-12.1", kNothing},
        {"position 16 past the end", 0, Version("1.0.0-lxproxy-2."), 0, no, L"1.0.0-lxproxy-2.",
         kNothing},
        {"empty version", 0, Version(""), 0, no, L"", kNothing},
        {"a leading blank hides the 2", 0, Version(" 2.0.0"), 0, no, L" 2.0.0", kNothing},
        {"non-ASCII version", 0, Version("1.0.0-\xc3\xa9"), 0, no, L"1.0.0-\u00e9", kNothing},
        {"declared as plain text", 0, Answer(200, "text/plain", served), 0, 0, L"",
         Expected<web::http::http_exception>(
             "Incorrect Content-Type: must be textual to extract_string, JSON to extract_json.")},
        {"declared as JSON but is not", 0, Answer(200, "application/json", "version=1.0.0"), 0, 0,
         L"", json("* Line 1, Column 2 Syntax error: Malformed token")},
        {"no body and no type: read as null", 0, Answer(200), 0, 0, L"", json("not a string")},
        {"no version member", 0, Answer(200, "application/json", "{\"Version\":\"1.0.0\"}"), 0, 0,
         L"", json("not a string")},
        {"numeric version", 0, Answer(200, "application/json", "{\"version\":2}"), 0, 0, L"",
         json("not a string")},
        {"an array", 0, Answer(200, "application/json", "[\"1.0.0\"]"), 0, 0, L"",
         json("not an object")},
    };
    const std::string serviceUrl = service.BaseUrl() + "/repo?x=1";
    for (const Case& c : cases) {
        NewClient();
        proxy.Enqueue(Answer(200));
        proxy.Enqueue(c.answer);
        if (c.connect != 0) {
            proxy.Enqueue(Answer(c.connect));
        }
        client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl(), c.type));
        TestConnectionResult result;
        EXPECT_EQ(ThrownBy([&] { result = client->TestConnection(Wide(serviceUrl)); }), c.thrown)
            << "case: " << c.name;
        if (c.thrown == kNothing) {
            EXPECT_EQ(result.status, c.status) << "case: " << c.name;
            EXPECT_EQ(result.version, CString(c.version)) << "case: " << c.name;
            EXPECT_TRUE(result.details.IsEmpty() && result.errorText.IsEmpty())
                << "case: " << c.name;
        }
        // Registration names the registered server; the connection test the one it was given.
        const std::string query = "?lxclient=desk%201&lxserver=" + service.BaseUrl() +
                                  "/repo?x%3D1&lxauth=" + (c.type == 1 ? "oauth" : "windows");
        EXPECT_EQ(Calls(proxy.Requests()),
                  "GET /register?lxclient=desk%201&lxserver=http://registered.example, "
                  "GET /register" +
                      query + (c.connect != 0 ? ", GET /connect" + query : ""))
            << "case: " << c.name;
        EXPECT_TRUE(service.Requests().empty()) << "case: " << c.name;
        EXPECT_EQ(NextRequest(),
                  c.thrown == kNothing && c.status == Connected
                      ? "proxy: POST /forward/Import/Authorization" + query + " +body; service: "
                      : "proxy: ; service: POST /Import/Authorization?x=1 +body")
            << "case: " << c.name;
    }
}

// A "2" version: a login at the identity server beside the service, then "/Import/Connect" with
// the token, which every later request carries.
class DirectConnection : public Connection {
protected:
    // The identity server under the service's /identity, as deployments have it. Discovery there
    // is passed on to the real provider, whose answer sends the login on to the provider itself.
    void Serve(int connectStatus) {
        service.SetHandler([this, connectStatus](const RecordedRequest& r, auto&) {
            if (r.path.rfind("/identity/", 0) != 0) {
                return Answer(connectStatus);
            }
            lxrepo::Request request(lxrepo::http::verb::get, r.target, 11);
            const auto answer =
                lxrepo::SendOnce(*lxrepo::ParseBaseUrl(provider.BaseUrl()), request);
            return Answer(static_cast<int>(answer.result_int()), "application/json", answer.body());
        });
    }

    // The connection test while the user's browser does what decision says ("allow", "deny", or
    // "" for a user who never comes back).
    TestConnectionResult ConnectAs(const std::string& decision, const std::string& version = "2") {
        testsupport::LaunchedBrowser browser([&](const std::string& url) {
            if (!decision.empty()) {
                testsupport::TestBrowser(decision).Visit(url);
            }
        });
        TableRepositorySetBrowserLauncher(&testsupport::LaunchedBrowser::Launch, &browser);
        TableRepositorySetLoginTimeout(decision.empty() ? 300 : 20000);
        proxy.Enqueue(Version(version));
        const TestConnectionResult result = client->TestConnection(Wide(service.BaseUrl() + "/r"));
        EXPECT_EQ(browser.Finish(), "");
        TableRepositorySetBrowserLauncher(nullptr, nullptr);
        TableRepositorySetLoginTimeout(0);
        return result;
    }

    // The bearer token the next operation carries, "" for none; the provider must have issued it.
    std::string NextToken() {
        const std::string next = NextRequest();
        const std::string prefix = "proxy: ; service: POST /Import/Authorization Bearer ";
        if (next.rfind(prefix, 0) != 0) {
            EXPECT_EQ(next, "proxy: ; service: POST /Import/Authorization +body");
            return "";
        }
        const std::string token = next.substr(prefix.size(), next.size() - prefix.size() - 6);
        EXPECT_EQ(provider.ConnectStatus(token), 200);
        return token;
    }

    testsupport::OidcProvider provider;
};

// The rows run in order on one client: a token is kept for every later request, whatever the
// connect call answered, until a login brings another.
TEST_F(DirectConnection, LogsInBesideTheServiceAndConnectsWithTheToken) {
    struct Case {
        const char* name;
        std::string version;
        std::string decision;
        int connect;
        int status;
        CString errorText;
    };
    const CString denied = Wide(testsupport::kOidcDeniedText);
    const Case cases[] = {
        {"connected", "2.0.0", "allow", 200, Connected, L""},
        {"the user refuses the login", "2", "deny", 200, AuthenticationFailed, denied},
        {"any text that starts with 2", "2", "allow", 200, Connected, L""},
        {"connect answered 401", "2", "allow", 401, NotAuthorized, L""},
        {"the user never comes back", "2", "", 200, AuthenticationFailed,
         L"Authentication timeout"},
        {"connect answered 500", "2", "allow", 500, ConnectionFailed, L""},
        {"connect answered 204", "2", "allow", 204, ConnectionFailed, L""},
    };
    client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl()));
    std::string token;
    for (const Case& c : cases) {
        Serve(c.connect);
        proxy.Clear();
        service.Clear();
        const TestConnectionResult result = ConnectAs(c.decision, c.version);
        EXPECT_EQ(result.status, c.status) << "case: " << c.name;
        EXPECT_EQ(result.errorText, c.errorText) << "case: " << c.name;
        EXPECT_EQ(result.version, Wide(c.version)) << "case: " << c.name;
        EXPECT_TRUE(result.details.IsEmpty()) << "case: " << c.name;
        EXPECT_EQ(proxy.Requests().size(), 1u) << "case: " << c.name;
        // The identity server is found at the service's host and port, not below its path.
        const auto requests = service.Requests();
        ASSERT_FALSE(requests.empty()) << "case: " << c.name;
        EXPECT_EQ(requests.front().path, "/identity/.well-known/openid-configuration");
        const std::string previous = token;
        token = NextToken();
        EXPECT_EQ(token != previous, c.decision == "allow") << "case: " << c.name;
        EXPECT_EQ(Calls({requests.back()}), c.decision != "allow"
                                                ? Calls({requests.front()})
                                                : "GET /r/Import/Connect Bearer " + token)
            << "case: " << c.name;
        EXPECT_EQ(requests.back().HeaderCount("Content-Type"), 0u) << "case: " << c.name;
    }
    // A later connection through the proxy leaves the token in charge.
    proxy.Enqueue(Version("1.0.0-lxproxy-2.1"));
    proxy.Enqueue(Answer(200));
    EXPECT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, Connected);
    EXPECT_EQ(NextToken(), token);
}

} // namespace
