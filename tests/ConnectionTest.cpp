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

#include <algorithm>
#include <iterator>

namespace {

using testsupport::Expected;
using testsupport::kNothing;
using testsupport::RecordedRequest;
using testsupport::RecordingServer;
using testsupport::ScriptedResponse;
using testsupport::Thrown;
using testsupport::ThrownBy;
using testsupport::Wide;

ScriptedResponse Answer(int status, const std::string& contentType = "", const std::string& body = "") {
    ScriptedResponse answer{status, {}, body, false, {}};
    if (!contentType.empty()) {
        answer.headers.push_back({"Content-Type", contentType});
    }
    return answer;
}

ScriptedResponse VersionAnswer(const std::string& version) {
    return Answer(200, "application/json", "{\"version\":\"" + version + "\"}");
}

std::string RefusedUrl() { return "http://127.0.0.1:" + std::to_string(testsupport::FreePort()); }

const Thrown kRefused = Expected<web::http::http_exception>("Failed to connect to any resolved endpoint");
const Thrown kNoHostname = Expected<std::invalid_argument>("URI must contain a hostname.");

std::vector<std::string> Paths(const std::vector<RecordedRequest>& requests) {
    std::vector<std::string> paths;
    for (const RecordedRequest& r : requests) {
        paths.push_back(r.path);
    }
    return paths;
}

// A client object as the host gets it, with a proxy and a service to talk to.
class Connection : public ::testing::Test {
protected:
    void NewClient() {
        client.reset(static_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
        proxy.Clear();
        service.Clear();
    }

    CAuthenticationProxyConfiguration Configuration(const std::string& proxyBaseUri, int authenticationType = 0) const {
        CAuthenticationProxyConfiguration config;
        config.proxyBaseUri = Wide(proxyBaseUri);
        config.registrationPath = L"/register";
        config.unregistrationPath = L"/unregister";
        config.proxyPath = L"/forward";
        config.connectPath = L"/connect";
        config.clientName = L"desk 1";
        config.serverName = L"http://registered.example";
        config.authenticationType = authenticationType;
        return config;
    }

    // Registers with the proxy (answered 200) and runs the connection test against the service.
    TestConnectionResult Connect(const std::vector<ScriptedResponse>& proxyAnswers, const std::string& serviceUrl,
                                 int authenticationType = 0) {
        proxy.Enqueue(Answer(200));
        for (const ScriptedResponse& answer : proxyAnswers) {
            proxy.Enqueue(answer);
        }
        client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl(), authenticationType));
        return client->TestConnection(Wide(serviceUrl));
    }

    // Which way the next operation goes, as the connection test left the client: the server that
    // got it, its target and its Authorization.
    std::string NextRequest() {
        proxy.Clear();
        service.Clear();
        client->IsAuthorized(L"Sales");
        const auto atProxy = proxy.Requests();
        const auto atService = service.Requests();
        if (atProxy.size() + atService.size() != 1) {
            return std::to_string(atProxy.size()) + " at the proxy, " + std::to_string(atService.size()) + " at the service";
        }
        const RecordedRequest& r = atProxy.empty() ? atService[0] : atProxy[0];
        const auto authorization = r.HeaderValue("Authorization");
        return (atProxy.empty() ? "service " : "proxy ") + r.target + (authorization ? " " + *authorization : "");
    }

    RecordingServer proxy;
    RecordingServer service;
    std::unique_ptr<CTableRepositoryImport> client{static_cast<CTableRepositoryImport*>(new_TableRepositoryImport())};
};

TEST_F(Connection, RegistrationAnnouncesClientAndServerAndNothingElse) {
    struct Case {
        const char* name;
        std::string proxyBasePath;
        const wchar_t* registrationPath;
        const wchar_t* clientName;
        const wchar_t* serverName;
        int authenticationType;
        std::string target;
    };
    const Case cases[] = {
        {"plain names", "", L"/register", L"desk-1", L"http://repo.example:8080", 0,
         "/register?lxclient=desk-1&lxserver=http://repo.example:8080"},
        {"token authentication adds no lxauth", "", L"/register", L"desk-1", L"srv", 1,
         "/register?lxclient=desk-1&lxserver=srv"},
        {"reserved and non-ASCII characters travel percent-encoded as UTF-8", "", L"/register",
         L"Z\u00f6e & co \U0001F600", L"http://h/a b?x=1;y+z", 7,
         "/register?lxclient=Z%C3%B6e%20%26%20co%20%F0%9F%98%80&lxserver=http://h/a%20b?x%3D1%3By%2Bz"},
        {"a path with a query keeps it in front", "", L"/register?site=7&mode=a", L"desk-1", L"srv", 0,
         "/register?site=7&mode=a&lxclient=desk-1&lxserver=srv"},
        {"empty names are sent empty", "", L"/register", L"", L"", 0, "/register?lxclient=&lxserver="},
        {"the path goes below the proxy's own path", "/gate", L"/register", L"desk-1", L"srv", 0,
         "/gate/register?lxclient=desk-1&lxserver=srv"},
    };
    for (const Case& c : cases) {
        NewClient();
        CAuthenticationProxyConfiguration config = Configuration(proxy.BaseUrl() + c.proxyBasePath, c.authenticationType);
        config.registrationPath = c.registrationPath;
        config.clientName = c.clientName;
        config.serverName = c.serverName;
        client->RegisterWithAuthenticationProxy(config);

        ASSERT_EQ(proxy.Requests().size(), 1u) << "case: " << c.name;
        const RecordedRequest r = proxy.Requests()[0];
        EXPECT_EQ(r.method + " " + r.target, "GET " + c.target) << "case: " << c.name;
        EXPECT_EQ(r.HeaderCount("Authorization") + r.HeaderCount("Content-Type"), 0u) << "case: " << c.name;
        EXPECT_EQ(r.body, "") << "case: " << c.name;
    }
}

// The proxy's answer is not looked at, and an unreachable proxy throws; either way the connection
// test asks the proxy of this registration, not of an earlier one.
TEST_F(Connection, RegistrationStoresTheConfigurationWhateverTheProxyAnswers) {
    struct Case {
        const char* name;
        std::string proxyBaseUri; // "{second}": the second proxy below
        Thrown thrown;
    };
    const Case cases[] = {
        {"refused by the proxy", "{second}", kNothing},
        {"nobody listens", RefusedUrl(), kRefused},
        {"empty proxy address", "", kNoHostname},
        {"proxy address without a host", "http:///only/a/path", kNoHostname},
    };
    for (const Case& c : cases) {
        NewClient();
        RecordingServer second;
        second.Enqueue(Answer(500, "application/json", "{\"error\":\"unknown client\"}"));
        second.Enqueue(VersionAnswer("1.0.0"));
        client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl()));
        const auto config = Configuration(c.proxyBaseUri == "{second}" ? second.BaseUrl() : c.proxyBaseUri, 1);

        EXPECT_EQ(ThrownBy([&] { client->RegisterWithAuthenticationProxy(config); }), c.thrown) << "case: " << c.name;
        EXPECT_EQ(ThrownBy([&] { client->TestConnection(Wide(service.BaseUrl())); }), c.thrown) << "case: " << c.name;
        EXPECT_EQ(proxy.Requests().size(), 1u) << "case: " << c.name;
        if (c.proxyBaseUri == "{second}") {
            ASSERT_EQ(second.Requests().size(), 2u) << "case: " << c.name;
            EXPECT_EQ(second.Requests()[1].target, "/register?lxclient=desk%201&lxserver=" + service.BaseUrl() + "&lxauth=oauth");
        }
    }
}

TEST_F(Connection, UnregistrationUsesOnlyItsArgumentAndChangesNoState) {
    ASSERT_EQ(Connect({VersionAnswer("1.0.0-lxproxy-2.1"), Answer(200)}, service.BaseUrl()).status, Connected);
    proxy.Clear();
    RecordingServer otherProxy;
    otherProxy.SetDefault(Answer(500));
    CAuthenticationProxyConfiguration other = Configuration(otherProxy.BaseUrl(), 1);
    other.unregistrationPath = L"/bye?x=1";
    other.clientName = L"other \u00e9";

    EXPECT_TRUE(client->UnregisterFromAuthenticationProxy(other).message.IsEmpty());
    ASSERT_EQ(otherProxy.Requests().size(), 1u);
    const RecordedRequest r = otherProxy.Requests()[0];
    EXPECT_EQ(r.method + " " + r.target, "GET /bye?x=1&lxclient=other%20%C3%A9");
    EXPECT_EQ(r.HeaderCount("Authorization"), 0u);
    EXPECT_EQ(r.body, "");
    // Still forwarded through the proxy the connection test switched to, which keeps its name.
    EXPECT_EQ(NextRequest(), "proxy /forward/Import/Authorization?lxclient=desk%201&lxserver=" +
                                 service.BaseUrl() + "&lxauth=windows");
    other.proxyBaseUri = Wide(RefusedUrl());
    EXPECT_EQ(ThrownBy([&] { client->UnregisterFromAuthenticationProxy(other); }), kRefused);
}

TEST_F(Connection, OutcomeFollowsTheVersionAndTheConnectAnswer) {
    struct Case {
        const char* name;
        int authenticationType;
        std::vector<ScriptedResponse> proxyAnswers; // version call, then the connect call if any
        int status;
        const wchar_t* version;
        bool connectCalled;
        bool forwardedAfterwards;
    };
    const std::string served = "{\"version\":\"1.0.0-lxproxy-2.1\"}";
    const auto connect = [](int status) {
        return std::vector<ScriptedResponse>{VersionAnswer("1.0.0-lxproxy-2.1"), Answer(status)};
    };
    const Case cases[] = {
        {"version call answered 500 is not read", 0, {Answer(500, "application/json", served)},
         ConnectionFailed, L"", false, false},
        {"version call answered 201 is not read", 0, {Answer(201, "application/json", served)},
         ConnectionFailed, L"", false, false},
        {"version call answered 401", 0, {Answer(401)}, ConnectionFailed, L"", false, false},
        {"version 1.0.0 is not supported", 0, {VersionAnswer("1.0.0")}, VersionNotSupported, L"1.0.0", false, false},
        {"proxy served, connect 200", 0, connect(200), Connected, L"1.0.0-lxproxy-2.1", true, true},
        {"token authentication, connect 200", 1, connect(200), Connected, L"1.0.0-lxproxy-2.1", true, true},
        {"newer proxy served, any other type is windows", 7,
         {VersionAnswer("9.9.9-lxproxy-9.9"), Answer(200)}, Connected, L"9.9.9-lxproxy-9.9", true, true},
        {"proxy served, connect 401", 0, connect(401), NotAuthorized, L"1.0.0-lxproxy-2.1", true, false},
        {"proxy served, connect 500", 0, connect(500), ConnectionFailed, L"1.0.0-lxproxy-2.1", true, false},
        {"proxy served, connect 204", 0, connect(204), ConnectionFailed, L"1.0.0-lxproxy-2.1", true, false},
        {"empty version", 0, {VersionAnswer("")}, VersionNotSupported, L"", false, false},
        {"a leading blank hides the 2", 0, {VersionAnswer(" 2.0.0")}, VersionNotSupported, L" 2.0.0", false, false},
        {"non-ASCII version text", 0, {VersionAnswer("1.0.0-\xc3\xa9")}, VersionNotSupported,
         L"1.0.0-\u00e9", false, false},
    };
    const std::string serviceUrl = service.BaseUrl() + "/repo?x=1";
    for (const Case& c : cases) {
        NewClient();
        const TestConnectionResult result = Connect(c.proxyAnswers, serviceUrl, c.authenticationType);
        EXPECT_EQ(result.status, c.status) << "case: " << c.name;
        EXPECT_EQ(result.version, CString(c.version)) << "case: " << c.name;
        EXPECT_TRUE(result.details.IsEmpty() && result.errorText.IsEmpty()) << "case: " << c.name;

        // Registration names the registered server; the connection test the one it was given.
        const std::string query = "?lxclient=desk%201&lxserver=" + service.BaseUrl() + "/repo?x%3D1&lxauth=" +
                                  (c.authenticationType == 1 ? "oauth" : "windows");
        std::vector<std::string> calls{"/register?lxclient=desk%201&lxserver=http://registered.example",
                                       "/register" + query};
        if (c.connectCalled) {
            calls.push_back("/connect" + query);
        }
        std::vector<std::string> targets;
        for (const RecordedRequest& r : proxy.Requests()) {
            targets.push_back(r.target);
            EXPECT_EQ(r.method + r.body + r.HeaderValue("Authorization").value_or(""), "GET") << "case: " << c.name;
        }
        EXPECT_EQ(targets, calls) << "case: " << c.name;
        EXPECT_TRUE(service.Requests().empty()) << "case: " << c.name;
        EXPECT_EQ(NextRequest(), c.forwardedAfterwards ? "proxy /forward/Import/Authorization" + query
                                                       : "service /Import/Authorization?x=1")
            << "case: " << c.name;
    }
}

TEST_F(Connection, AVersionCallThatFailsBelowItsStatusThrowsAfterTheServiceAddressIsSet) {
    enum class Proxy { Answers, NeverRegistered, NobodyListens };
    struct Case {
        const char* name;
        Proxy proxyState;
        ScriptedResponse answer;
        Thrown thrown;
    };
    const auto jsonError = Expected<web::json::json_exception>;
    const Case cases[] = {
        {"declared as plain text", Proxy::Answers, Answer(200, "text/plain", "{\"version\":\"1.0.0-lxproxy-2.1\"}"),
         Expected<web::http::http_exception>(
             "Incorrect Content-Type: must be textual to extract_string, JSON to extract_json.")},
        {"declared as JSON but is not", Proxy::Answers, Answer(200, "application/json", "version=1.0.0"),
         jsonError("* Line 1, Column 2 Syntax error: Malformed token")},
        {"no body and no content type: read as null", Proxy::Answers, Answer(200), jsonError("not a string")},
        {"no version member", Proxy::Answers, Answer(200, "application/json", "{\"Version\":\"1.0.0\"}"),
         jsonError("not a string")},
        {"numeric version", Proxy::Answers, Answer(200, "application/json", "{\"version\":2}"), jsonError("not a string")},
        {"an array instead of an object", Proxy::Answers, Answer(200, "application/json", "[\"1.0.0\"]"),
         jsonError("not an object")},
        {"never registered: no proxy address to create a client for", Proxy::NeverRegistered, Answer(200), kNoHostname},
        {"registered proxy that nobody listens on", Proxy::NobodyListens, Answer(200), kRefused},
    };
    for (const Case& c : cases) {
        NewClient();
        if (c.proxyState != Proxy::NeverRegistered) {
            proxy.Enqueue(Answer(200));
            proxy.Enqueue(c.answer);
            const std::string address = c.proxyState == Proxy::Answers ? proxy.BaseUrl() : RefusedUrl();
            ThrownBy([&] { client->RegisterWithAuthenticationProxy(Configuration(address)); });
        }
        EXPECT_EQ(ThrownBy([&] { client->TestConnection(Wide(service.BaseUrl() + "/repo")); }), c.thrown)
            << "case: " << c.name;
        EXPECT_EQ(proxy.Requests().size(), c.proxyState == Proxy::Answers ? 2u : 0u) << "case: " << c.name;
        // The address was taken before the proxy was asked.
        EXPECT_EQ(NextRequest(), "service /Import/Authorization") << "case: " << c.name;
    }
}

// ---------------------------------------------------------------------------------------------
// Direct connection: a "2" version logs in at the identity server beside the service, then calls
// "/Import/Connect" with the token.

class DirectConnection : public Connection {
protected:
    // The service with its identity server beside it, as deployments have them: one host and port,
    // the identity server under /identity. Discovery there is passed on to the real provider,
    // whose answer sends the login on to the provider itself.
    void ServeWithIdentityServer(int connectStatus) {
        service.SetHandler([this, connectStatus](const RecordedRequest& r, testsupport::ConnectionContext&) {
            if (r.path.rfind("/identity/", 0) != 0) {
                return Answer(connectStatus);
            }
            lxrepo::Request request(lxrepo::http::verb::get, r.target, 11);
            const auto answer = lxrepo::SendOnce(*lxrepo::ParseBaseUrl(provider.BaseUrl()), request);
            return Answer(static_cast<int>(answer.result_int()), "application/json", answer.body());
        });
    }

    // Runs the connection test while the user's browser does what decision says ("allow",
    // "deny", or "" for a user who never comes back).
    TestConnectionResult ConnectAs(const std::string& decision, const std::string& version = "2.0.0") {
        testsupport::LaunchedBrowser browser([&](const std::string& url) {
            if (!decision.empty()) {
                testsupport::TestBrowser(decision).Visit(url);
            }
        });
        TableRepositorySetBrowserLauncher(&testsupport::LaunchedBrowser::Launch, &browser);
        TableRepositorySetLoginTimeout(decision.empty() ? 300 : 20000);
        proxy.Enqueue(VersionAnswer(version));
        const TestConnectionResult result = client->TestConnection(Wide(service.BaseUrl() + "/repo"));
        EXPECT_EQ(browser.Finish(), "");
        TableRepositorySetBrowserLauncher(nullptr, nullptr);
        TableRepositorySetLoginTimeout(0);
        return result;
    }

    // The bearer token the next operation carries, "" for none; it must be one the provider issued.
    std::string NextToken() {
        const std::string next = NextRequest();
        const std::string prefix = "service /Import/Authorization Bearer ";
        if (next.rfind(prefix, 0) != 0) {
            EXPECT_EQ(next, "service /Import/Authorization");
            return "";
        }
        EXPECT_EQ(provider.ConnectStatus(next.substr(prefix.size())), 200);
        return next.substr(prefix.size());
    }

    testsupport::OidcProvider provider;
};

TEST_F(DirectConnection, LogsInBesideTheServiceAndConnectsWithTheToken) {
    struct Case {
        const char* name;
        std::string version;
        std::string decision;
        int connectStatus;
        int status;
        CString errorText;
    };
    const Case cases[] = {
        {"connected", "2.0.0", "allow", 200, Connected, L""},
        {"any text that starts with 2", "2", "allow", 200, Connected, L""},
        {"connect answered 401", "2.0.0", "allow", 401, NotAuthorized, L""},
        {"connect answered 500", "2.0.0", "allow", 500, ConnectionFailed, L""},
        {"connect answered 204", "2.0.0", "allow", 204, ConnectionFailed, L""},
        {"the user refuses the login", "2.0.0", "deny", 200, AuthenticationFailed, Wide(testsupport::kOidcDeniedText)},
        {"the user never comes back", "2.0.0", "", 200, AuthenticationFailed, L"Authentication timeout"},
    };
    for (const Case& c : cases) {
        NewClient();
        ServeWithIdentityServer(c.connectStatus);
        client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl()));
        const TestConnectionResult result = ConnectAs(c.decision, c.version);
        EXPECT_EQ(result.status, c.status) << "case: " << c.name;
        EXPECT_EQ(result.errorText, c.errorText) << "case: " << c.name;
        EXPECT_EQ(result.version, Wide(c.version)) << "case: " << c.name;
        EXPECT_TRUE(result.details.IsEmpty()) << "case: " << c.name;
        EXPECT_EQ(Paths(proxy.Requests()), (std::vector<std::string>{"/register", "/register"})) << "case: " << c.name;

        // The identity server is found at the service's host and port, not below its path.
        const auto requests = service.Requests();
        ASSERT_FALSE(requests.empty()) << "case: " << c.name;
        EXPECT_EQ(requests[0].path, "/identity/.well-known/openid-configuration") << "case: " << c.name;
        std::vector<RecordedRequest> connects;
        std::copy_if(requests.begin(), requests.end(), std::back_inserter(connects),
                     [](const RecordedRequest& r) { return r.path.find("/Import/") != std::string::npos; });
        // The token is kept for every later request, whatever the connect call answered.
        const std::string token = NextToken();
        ASSERT_EQ(connects.size(), token.empty() ? 0u : 1u) << "case: " << c.name;
        if (!token.empty()) {
            const RecordedRequest& r = connects[0];
            EXPECT_EQ(r.method + " " + r.target + " " + r.HeaderValue("Authorization").value_or(""),
                      "GET /repo/Import/Connect Bearer " + token)
                << "case: " << c.name;
            EXPECT_EQ(r.HeaderCount("Content-Type"), 0u) << "case: " << c.name;
            EXPECT_EQ(r.body, "") << "case: " << c.name;
        }
        EXPECT_EQ(token.empty(), c.decision != "allow") << "case: " << c.name;
    }
}

TEST_F(DirectConnection, ATokenOutlivesAFailedLoginAndALaterProxyConnection) {
    ServeWithIdentityServer(200);
    client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl()));
    ASSERT_EQ(ConnectAs("allow").status, Connected);
    const std::string first = NextToken();
    ASSERT_NE(first, "");

    EXPECT_EQ(ConnectAs("deny").status, AuthenticationFailed);
    EXPECT_EQ(NextToken(), first);

    proxy.Enqueue(VersionAnswer("1.0.0-lxproxy-2.1"));
    proxy.Enqueue(Answer(200));
    EXPECT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, Connected);
    EXPECT_EQ(NextToken(), first);

    EXPECT_EQ(ConnectAs("allow").status, Connected);
    const std::string second = NextToken();
    EXPECT_NE(second, first);
    EXPECT_NE(second, "");
}

} // namespace
