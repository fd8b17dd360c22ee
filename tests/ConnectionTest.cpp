// Registration with the authentication proxy and the connection test, driven through the public
// client object against loopback servers that record what arrives; the direct connection logs in
// at the real OpenID provider.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "HttpClient.h"
#include "IdentityLoginSettings.h"
#include "TableRepositoryImport.h"
#include "client/TextConversion.h"
#include "support/ConnectedClient.h"
#include "support/OidcProvider.h"
#include "support/Thrown.h"

#include <cpprest/http_client.h>

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
        return testsupport::ProxyConfiguration(at, "desk 1", "http://registered.example", type);
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

// The proxy's answer is not looked at, and an unreachable proxy throws; either way the connection
// test asks the proxy of this registration, not of an earlier one.
TEST_F(Connection, RegistrationStoresTheConfigurationWhateverTheProxyAnswers) {
    for (const bool reachable : {true, false}) {
        NewClient();
        RecordingServer second;
        second.Enqueue(Answer(500, "application/json", "{\"error\":\"unknown client\"}"));
        second.Enqueue(Version("1.0.0"));
        client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl()));
        auto config = Configuration(reachable ? second.BaseUrl() + "/gate" : RefusedUrl(), 1);
        config.registrationPath = L"/r?site=7";
        config.clientName = L"Z\u00f6e & co \U0001F600";
        config.serverName = L"http://h/a b?x=1;y+z";
        const Thrown thrown = reachable ? kNothing : kRefused;
        EXPECT_EQ(ThrownBy([&] { client->RegisterWithAuthenticationProxy(config); }), thrown);
        EXPECT_EQ(ThrownBy([&] { client->TestConnection(Wide(service.BaseUrl())); }), thrown);
        EXPECT_EQ(proxy.Requests().size(), 1u);
        // Below the proxy's own path, behind the path's query, reserved and non-ASCII characters
        // percent-encoded as UTF-8; registration names no lxauth, whatever the type.
        const std::string call = "GET /gate/r?site=7&lxclient=Z%C3%B6e%20%26%20co%20%F0%9F%98%80";
        EXPECT_EQ(Calls(second.Requests()),
                  reachable ? call + "&lxserver=http://h/a%20b?x%3D1%3By%2Bz, " + call +
                                  "&lxserver=" + service.BaseUrl() + "&lxauth=oauth"
                            : "");
    }
}

TEST_F(Connection, UnregistrationUsesOnlyItsArgumentAndChangesNoState) {
    proxy.Enqueue(Answer(200));
    proxy.Enqueue(Version("1.0.0-lxproxy-2.1"));
    client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl()));
    ASSERT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, Connected);
    RecordingServer other;
    other.SetDefault(Answer(500));
    CAuthenticationProxyConfiguration config = Configuration(other.BaseUrl(), 1);
    config.unregistrationPath = L"/bye?x=1";
    config.clientName = L"";

    client->UnregisterFromAuthenticationProxy(config);
    // An empty name is sent empty.
    EXPECT_EQ(Calls(other.Requests()), "GET /bye?x=1&lxclient=");
    // Still forwarded through the proxy the connection test switched to, which keeps its name.
    EXPECT_EQ(NextRequest(),
              "proxy: POST /forward/Import/Authorization?lxclient=desk%201&lxserver=" +
                  service.BaseUrl() + "&lxauth=windows +body; service: ");
}

// The proxy's version answer decides: a proxy-served version (only the digits at positions 0,
// 14 and 16 count) leads to the connect call, whose success makes every later request go through
// the proxy; a version that does not start with "2" is not supported; an answer that cannot be
// read throws, after the service's address has been taken.
TEST_F(Connection, OutcomeFollowsTheVersionAndTheConnectAnswer) {
    struct Case {
        const char* name;
        int type;
        const wchar_t* version; // the proxy's, and so the result's
        int connect;            // status of the connect call; 0 when none is expected
        int status;
        std::optional<ScriptedResponse> answer = {}; // instead of {"version": version}
        Thrown thrown = kNothing;
    };
    const std::string served = "{\"version\":\"1.0.0-lxproxy-2.1\"}";
    const auto no = VersionNotSupported;
    const Case cases[] = {
        {"version call answered 201 is not read", 0, L"", 0, ConnectionFailed,
         Answer(201, "application/json", served)},
        {"version call answered 401", 0, L"", 0, ConnectionFailed, Answer(401)},
        {"1.0.0 is not supported", 0, L"1.0.0", 0, no},
        {"served, connect 200", 0, L"1.0.0-lxproxy-2.1", 200, Connected},
        {"token authentication, connect 401", 1, L"1.0.0-lxproxy-2.1", 401, NotAuthorized},
        {"larger digits, any other type, connect 204", 7, L"9.9.9-lxproxy-9.9", 204,
         ConnectionFailed},
        {"only the characters at 0, 2, 14 and 16 count, a non-digit as 0", 0, L"1axbcdefghijkl2m12",
         200, Connected},
        {"embedded 2.0", 0, L"1.0.0-lxproxy-2.0", 0, no},
        {"embedded 1.9", 0, L"1.0.0-lxproxy-1.9", 0, no},
        {"dotted major 0", 0, L"0.9.9-lxproxy-9.9", 0, no},
        {"position 16 past the end", 0, L"1.0.0-lxproxy-2.", 0, no},
        {"a leading blank hides the 2", 0, L" 2.0.0", 0, no},
        {"non-ASCII version", 0, L"1.0.0-\u00e9", 0, no},
        {"declared as plain text", 0, L"", 0, 0, Answer(200, "text/plain", served),
         Expected<web::http::http_exception>(
             "Incorrect Content-Type: must be textual to extract_string, JSON to extract_json.")},
        {"no version member", 0, L"", 0, 0,
         Answer(200, "application/json", "{\"Version\":\"1.0.0\"}"),
         Expected<web::json::json_exception>("not a string")},
    };
    const std::string serviceUrl = service.BaseUrl() + "/repo?x=1";
    for (const Case& c : cases) {
        NewClient();
        proxy.Enqueue(Answer(200));
        proxy.Enqueue(c.answer.value_or(Version(ToUtf8(c.version))));
        if (c.connect != 0) {
            proxy.Enqueue(Answer(c.connect));
        }
        client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl(), c.type));
        TestConnectionResult result;
        EXPECT_EQ(ThrownBy([&] { result = client->TestConnection(Wide(serviceUrl)); }), c.thrown)
            << "case: " << c.name;
        EXPECT_EQ(result.status, c.status) << "case: " << c.name;
        EXPECT_EQ(result.version, CString(c.version)) << "case: " << c.name;
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
// the token, which every later request carries. The rows run in order on one client: the token is
// kept when a later login fails, and when a later connection goes through the proxy. (What else a
// login can end in is the identity login test's.)
TEST_F(Connection, DirectConnectionLogsInBesideTheServiceAndKeepsTheToken) {
    struct Case {
        const char* name;
        std::string version;
        std::string decision; // of the user at the provider; "" for one who never comes back
        int status;
        CString errorText;
        std::string variation = ""; // of the provider (provider.mjs)
    };
    const Case cases[] = {
        {"connected", "2.0.0", "allow", Connected, L""},
        {"any text that starts with 2, the user refuses the login", "2", "deny",
         AuthenticationFailed, Wide(testsupport::kOidcDeniedText)},
        {"the user never comes back", "2", "", AuthenticationFailed, L"Authentication timeout"},
        // The token is issued, but the login refuses it: it must not reach the service.
        {"the ID token is of another login", "2", "allow", AuthenticationFailed,
         L"The identity server's ID token was issued for another login (nonce mismatch).",
         R"({"idToken":{"nonce":"x"}})"},
    };
    // The identity server under the service's /identity, as deployments have it: the service
    // passes discovery and the token call on to the real provider, whose document is changed to
    // send the token call through here; the browser goes to the provider itself. The answers come
    // back as application/octet-stream, which the login reads all the same. The login
    // authenticates with client_secret_basic, which the provider offers first.
    std::optional<testsupport::OidcProvider> provider;
    service.SetHandler([&](const RecordedRequest& r, auto&) {
        if (r.path.rfind("/identity/", 0) != 0) {
            return Answer(200);
        }
        lxrepo::Request request(lxrepo::http::string_to_verb(r.method), r.target, 11);
        for (const char* field : {"Content-Type", "Authorization"}) {
            request.set(field, r.HeaderValue(field).value_or(""));
        }
        request.body() = r.body;
        const auto answer = lxrepo::SendOnce(*lxrepo::ParseBaseUrl(provider->BaseUrl()), request);
        std::string body = answer.body();
        const std::string token = provider->IdentityUrl() + "/token\"";
        if (const std::size_t at = body.find(token); at != std::string::npos) {
            body.replace(at, token.size(), service.BaseUrl() + "/identity/token\"");
        }
        return Answer(static_cast<int>(answer.result_int()), "application/octet-stream", body);
    });
    client->RegisterWithAuthenticationProxy(Configuration(proxy.BaseUrl()));
    std::string token, variation;
    const std::string basic = "bHhkZXNrdG9wOjVkMGMxZTdhOWIzZjRhNmM4ZTJkN2YxYjBhOWM0ZTM2";
    const auto next = [&] {
        return "proxy: ; service: POST /Import/Authorization Bearer " + token + " +body";
    };
    for (const Case& c : cases) {
        if (!provider || c.variation != variation) {
            provider.emplace(variation = c.variation);
        }
        proxy.Clear();
        service.Clear();
        testsupport::LaunchedBrowser browser([&](const std::string& url) {
            if (!c.decision.empty()) {
                testsupport::TestBrowser(c.decision).Visit(url);
            }
        });
        TableRepositorySetBrowserLauncher(&testsupport::LaunchedBrowser::Launch, &browser);
        // The shortest limit there is for the user who never comes back.
        TableRepositorySetLoginTimeout(c.decision.empty() ? 1 : 20000);
        proxy.Enqueue(Version(c.version));
        const TestConnectionResult result = client->TestConnection(Wide(service.BaseUrl() + "/r"));
        EXPECT_EQ(browser.Finish(), "") << "case: " << c.name;
        TableRepositorySetBrowserLauncher(nullptr, nullptr);
        TableRepositorySetLoginTimeout(0);

        EXPECT_EQ(result.status, c.status) << "case: " << c.name;
        EXPECT_EQ(result.errorText, c.errorText) << "case: " << c.name;
        EXPECT_EQ(result.version, Wide(c.version)) << "case: " << c.name;
        EXPECT_EQ(proxy.Requests().size(), 1u) << "case: " << c.name;
        const auto requests = service.Requests();
        if (c.status == Connected) {
            token = requests.back().HeaderValue("Authorization").value_or("Bearer ").substr(7);
            EXPECT_EQ(provider->ConnectStatus(token), 200) << "case: " << c.name;
        }
        // The identity server is found at the service's host and port, not below its path.
        EXPECT_EQ(
            Calls(requests),
            "GET /identity/.well-known/openid-configuration" +
                (c.decision == "allow" ? ", POST /identity/token Basic " + basic + " +body" : "") +
                (c.status == Connected ? ", GET /r/Import/Connect Bearer " + token : ""))
            << "case: " << c.name;
        EXPECT_EQ(NextRequest(), next()) << "case: " << c.name;
    }
    // A later connection through the proxy leaves the token in charge.
    proxy.Enqueue(Version("1.0.0-lxproxy-2.1"));
    proxy.Enqueue(Answer(200));
    EXPECT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, Connected);
    EXPECT_EQ(NextRequest(), next());
}

} // namespace
