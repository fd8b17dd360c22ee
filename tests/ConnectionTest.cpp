// Registration with the authentication proxy, the connection test and the authorization check,
// driven through the public client object against loopback servers that record what arrives.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "IdentityLoginSettings.h"
#include "TableRepositoryImport.h"
#include "client/TextConversion.h"
#include "support/ConnectedClient.h"
#include "support/OidcProvider.h"
#include "support/RecordingServer.h"

#include <cpprest/base_uri.h>
#include <cpprest/http_client.h>
#include <cpprest/http_msg.h>
#include <cpprest/json.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeindex>
#include <typeinfo>
#include <vector>

using testsupport::ConnectedClient;
using testsupport::RecordedRequest;
using testsupport::RecordingServer;
using testsupport::ScriptedResponse;
using testsupport::Wide;

namespace {

ScriptedResponse Answer(int status) { return {status, {}, "", false, {}}; }

ScriptedResponse Answer(int status, const std::string& contentType, const std::string& body) {
    return {status, {{"Content-Type", contentType}}, body, false, {}};
}

ScriptedResponse VersionAnswer(const std::string& version) {
    return Answer(200, "application/json", "{\"version\":\"" + version + "\"}");
}

// A port that was just free: the server that held it is gone, so connecting is refused.
unsigned short PortNobodyListensOn() {
    RecordingServer holder;
    return holder.Port();
}

std::string RefusedUrl() { return "http://127.0.0.1:" + std::to_string(PortNobodyListensOn()); }

std::vector<std::string> Paths(const std::vector<RecordedRequest>& requests) {
    std::vector<std::string> paths;
    for (const RecordedRequest& r : requests) {
        paths.push_back(r.path);
    }
    return paths;
}

// The exception a call threw, by its dynamic type and message; the host catches by type, so both
// are pinned.
struct Thrown {
    std::string type;
    std::string message;
    bool operator==(const Thrown& other) const {
        return type == other.type && message == other.message;
    }
};

std::ostream& operator<<(std::ostream& out, const Thrown& thrown) {
    return out << thrown.type << " \"" << thrown.message << "\"";
}

template <class Exception> Thrown Expected(const std::string& message) {
    return {typeid(Exception).name(), message};
}

std::optional<Thrown> ThrownBy(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::exception& e) {
        return Thrown{typeid(e).name(), e.what()};
    }
    return std::nullopt;
}

const Thrown kRefused =
    Expected<web::http::http_exception>("Failed to connect to any resolved endpoint");
const Thrown kNoHostname = Expected<std::invalid_argument>("URI must contain a hostname.");

// A client object as the host gets it, with a proxy and a service to talk to.
class Connection : public ::testing::Test {
protected:
    Connection() { NewClient(); }

    void NewClient() {
        client.reset(static_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
        proxy.Clear();
        service.Clear();
    }

    CAuthenticationProxyConfiguration Configuration(const RecordingServer& at,
                                                    int authenticationType = 0) const {
        CAuthenticationProxyConfiguration config;
        config.proxyBaseUri = Wide(at.BaseUrl());
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
    TestConnectionResult Connect(const std::vector<ScriptedResponse>& proxyAnswers,
                                 const std::string& serviceUrl) {
        proxy.Enqueue(Answer(200));
        for (const ScriptedResponse& answer : proxyAnswers) {
            proxy.Enqueue(answer);
        }
        client->RegisterWithAuthenticationProxy(Configuration(proxy));
        return client->TestConnection(Wide(serviceUrl));
    }

    RecordingServer proxy;
    RecordingServer service;
    std::unique_ptr<CTableRepositoryImport> client;
};

// ---------------------------------------------------------------------------------------------
// Registration and unregistration

TEST_F(Connection, RegistrationAnnouncesClientAndServerAndNothingElse) {
    struct Case {
        const char* name;
        std::string proxyBasePath;
        const wchar_t* registrationPath;
        const wchar_t* clientName;
        const wchar_t* serverName;
        int authenticationType;
        std::string path;
        std::string query;
    };
    const Case cases[] = {
        {"plain names", "", L"/register", L"desk-1", L"http://repo.example:8080", 0, "/register",
         "lxclient=desk-1&lxserver=http://repo.example:8080"},
        {"token authentication adds no lxauth", "", L"/register", L"desk-1", L"srv", 1, "/register",
         "lxclient=desk-1&lxserver=srv"},
        {"reserved and non-ASCII characters travel percent-encoded as UTF-8", "", L"/register",
         L"Z\u00f6e & co \U0001F600", L"http://h/a b?x=1;y+z", 7, "/register",
         "lxclient=Z%C3%B6e%20%26%20co%20%F0%9F%98%80&lxserver=http://h/a%20b?x%3D1%3By%2Bz"},
        {"a path with a query keeps it in front", "", L"/register?site=7&mode=a", L"desk-1", L"srv",
         0, "/register", "site=7&mode=a&lxclient=desk-1&lxserver=srv"},
        {"empty names are sent empty", "", L"/register", L"", L"", 0, "/register",
         "lxclient=&lxserver="},
        {"the path goes below the proxy's own path", "/gate", L"/register", L"desk-1", L"srv", 0,
         "/gate/register", "lxclient=desk-1&lxserver=srv"},
    };
    for (const Case& c : cases) {
        NewClient();
        CAuthenticationProxyConfiguration config = Configuration(proxy, c.authenticationType);
        config.proxyBaseUri = Wide(proxy.BaseUrl() + c.proxyBasePath);
        config.registrationPath = c.registrationPath;
        config.clientName = c.clientName;
        config.serverName = c.serverName;
        client->RegisterWithAuthenticationProxy(config);

        ASSERT_EQ(proxy.Requests().size(), 1u) << "case: " << c.name;
        const RecordedRequest r = proxy.Requests()[0];
        EXPECT_EQ(r.method, "GET") << "case: " << c.name;
        EXPECT_EQ(r.path, c.path) << "case: " << c.name;
        EXPECT_EQ(r.query, c.query) << "case: " << c.name;
        EXPECT_EQ(r.HeaderCount("Authorization"), 0u) << "case: " << c.name;
        EXPECT_EQ(r.HeaderCount("Content-Type"), 0u) << "case: " << c.name;
        EXPECT_EQ(r.body, "") << "case: " << c.name;
        EXPECT_TRUE(service.Requests().empty()) << "case: " << c.name;
    }
}

TEST_F(Connection, RegistrationRefusedByTheProxyReturnsAndTheConnectionTestUsesItsConfiguration) {
    proxy.Enqueue(Answer(500, "application/json", "{\"error\":\"unknown client\"}"));
    client->RegisterWithAuthenticationProxy(Configuration(proxy, 1));

    proxy.Enqueue(VersionAnswer("1.0.0"));
    EXPECT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, VersionNotSupported);
    const std::vector<RecordedRequest> requests = proxy.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].path, "/register");
    EXPECT_EQ(requests[1].query,
              "lxclient=desk%201&lxserver=" + service.BaseUrl() + "&lxauth=oauth");
}

TEST_F(Connection, RegistrationThatCannotReachTheProxyThrowsButHasStoredTheConfiguration) {
    struct Case {
        const char* name;
        std::string proxyBaseUri;
        Thrown thrown;
    };
    const Case cases[] = {
        {"nobody listens", RefusedUrl(), kRefused},
        {"empty proxy address", "", kNoHostname},
        {"proxy address without a host", "http:///only/a/path", kNoHostname},
    };
    for (const Case& c : cases) {
        NewClient();
        client->RegisterWithAuthenticationProxy(Configuration(proxy));
        CAuthenticationProxyConfiguration unusable = Configuration(proxy);
        unusable.proxyBaseUri = Wide(c.proxyBaseUri);
        EXPECT_EQ(ThrownBy([&] { client->RegisterWithAuthenticationProxy(unusable); }), c.thrown)
            << "case: " << c.name;
        // The connection test asks the proxy of the failed registration, not the earlier one.
        EXPECT_EQ(ThrownBy([&] { client->TestConnection(Wide(service.BaseUrl())); }), c.thrown)
            << "case: " << c.name;
        EXPECT_EQ(proxy.Requests().size(), 1u) << "case: " << c.name;
    }
}

TEST_F(Connection, UnregistrationUsesOnlyItsArgumentAndChangesNoState) {
    ASSERT_EQ(Connect({VersionAnswer("1.0.0-lxproxy-2.1"), Answer(200)}, service.BaseUrl()).status,
              Connected);
    proxy.Clear();

    RecordingServer otherProxy;
    otherProxy.SetDefault(Answer(500));
    CAuthenticationProxyConfiguration other = Configuration(otherProxy, 1);
    other.unregistrationPath = L"/bye?x=1";
    other.clientName = L"other \u00e9";
    other.serverName = L"http://other.example";
    const CAuthenticationProxyResult result = client->UnregisterFromAuthenticationProxy(other);

    EXPECT_TRUE(result.message.IsEmpty());
    EXPECT_TRUE(proxy.Requests().empty());
    ASSERT_EQ(otherProxy.Requests().size(), 1u);
    const RecordedRequest r = otherProxy.Requests()[0];
    EXPECT_EQ(r.method, "GET");
    EXPECT_EQ(r.path, "/bye");
    EXPECT_EQ(r.query, "x=1&lxclient=other%20%C3%A9");
    EXPECT_EQ(r.HeaderCount("Authorization"), 0u);
    EXPECT_EQ(r.body, "");

    // Still forwarded through the proxy the connection test switched to.
    EXPECT_EQ(client->IsAuthorized(L"Sales"), 1);
    ASSERT_EQ(Paths(proxy.Requests()), std::vector<std::string>{"/forward/Import/Authorization"});
    EXPECT_TRUE(service.Requests().empty());

    // And the stored configuration is the registered one, not the unregistered one.
    proxy.Clear();
    proxy.Enqueue(VersionAnswer("1.0.0"));
    EXPECT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, VersionNotSupported);
    ASSERT_EQ(proxy.Requests().size(), 1u);
    EXPECT_EQ(proxy.Requests()[0].path, "/register");
    EXPECT_EQ(proxy.Requests()[0].query,
              "lxclient=desk%201&lxserver=" + service.BaseUrl() + "&lxauth=windows");
    EXPECT_EQ(otherProxy.Requests().size(), 1u);
}

TEST_F(Connection, UnregistrationThatCannotReachTheProxyThrows) {
    CAuthenticationProxyConfiguration config = Configuration(proxy);
    config.proxyBaseUri = Wide(RefusedUrl());
    EXPECT_EQ(ThrownBy([&] { client->UnregisterFromAuthenticationProxy(config); }), kRefused);
}

// ---------------------------------------------------------------------------------------------
// Connection test

TEST_F(Connection, ProxyCallsNameTheGivenServerAndTheAuthenticationKind) {
    struct Case {
        const char* name;
        int authenticationType;
        const char* lxauth;
    };
    const Case cases[] = {
        {"token", 1, "oauth"},      {"zero", 0, "windows"},     {"two", 2, "windows"},
        {"seven", 7, "windows"},    {"negative", -1, "windows"},
    };
    const std::string serviceUrl = service.BaseUrl() + "/repo?x=1";
    const std::string query = "lxclient=desk%201&lxserver=" + service.BaseUrl() + "/repo?x%3D1";
    for (const Case& c : cases) {
        NewClient();
        proxy.Enqueue(Answer(200));
        proxy.Enqueue(VersionAnswer("1.0.0-lxproxy-2.1"));
        proxy.Enqueue(Answer(200));
        client->RegisterWithAuthenticationProxy(Configuration(proxy, c.authenticationType));
        EXPECT_EQ(client->TestConnection(Wide(serviceUrl)).status, Connected) << "case: " << c.name;

        const std::vector<RecordedRequest> requests = proxy.Requests();
        ASSERT_EQ(Paths(requests), (std::vector<std::string>{"/register", "/register", "/connect"}))
            << "case: " << c.name;
        // Registration names the registered server; the connection test the one it was given.
        EXPECT_EQ(requests[0].query, "lxclient=desk%201&lxserver=http://registered.example")
            << "case: " << c.name;
        for (std::size_t i = 1; i < requests.size(); ++i) {
            EXPECT_EQ(requests[i].method, "GET") << "case: " << c.name;
            EXPECT_EQ(requests[i].query, query + "&lxauth=" + c.lxauth) << "case: " << c.name;
            EXPECT_EQ(requests[i].HeaderCount("Authorization"), 0u) << "case: " << c.name;
            EXPECT_EQ(requests[i].body, "") << "case: " << c.name;
        }
        EXPECT_TRUE(service.Requests().empty()) << "case: " << c.name;
    }
}

TEST_F(Connection, OutcomeFollowsTheVersionAndTheConnectAnswer) {
    struct Case {
        const char* name;
        std::vector<ScriptedResponse> proxyAnswers; // version call, then the connect call if any
        int status;
        const wchar_t* version;
        bool connectCalled;
        bool forwardedAfterwards;
    };
    const std::string served = "{\"version\":\"1.0.0-lxproxy-2.1\"}";
    const Case cases[] = {
        {"version call answered 500 is not read",
         {Answer(500, "application/json", served)}, ConnectionFailed, L"", false, false},
        {"version call answered 201 is not read",
         {Answer(201, "application/json", served)}, ConnectionFailed, L"", false, false},
        {"version call answered 401", {Answer(401)}, ConnectionFailed, L"", false, false},
        {"version 1.0.0 is not supported", {VersionAnswer("1.0.0")}, VersionNotSupported,
         L"1.0.0", false, false},
        {"proxy served, connect 200", {VersionAnswer("1.0.0-lxproxy-2.1"), Answer(200)},
         Connected, L"1.0.0-lxproxy-2.1", true, true},
        {"newer proxy served, connect 200", {VersionAnswer("9.9.9-lxproxy-9.9"), Answer(200)},
         Connected, L"9.9.9-lxproxy-9.9", true, true},
        {"proxy served, connect 401", {VersionAnswer("1.0.0-lxproxy-2.1"), Answer(401)},
         NotAuthorized, L"1.0.0-lxproxy-2.1", true, false},
        {"proxy served, connect 500", {VersionAnswer("1.0.0-lxproxy-2.1"), Answer(500)},
         ConnectionFailed, L"1.0.0-lxproxy-2.1", true, false},
        {"proxy served, connect 204", {VersionAnswer("1.0.0-lxproxy-2.1"), Answer(204)},
         ConnectionFailed, L"1.0.0-lxproxy-2.1", true, false},
        {"embedded second number 0", {VersionAnswer("1.0.0-lxproxy-2.0")}, VersionNotSupported,
         L"1.0.0-lxproxy-2.0", false, false},
        {"dotted major 0", {VersionAnswer("0.9.0-lxproxy-2.1")}, VersionNotSupported,
         L"0.9.0-lxproxy-2.1", false, false},
        {"empty version", {VersionAnswer("")}, VersionNotSupported, L"", false, false},
        {"a leading blank hides the 2", {VersionAnswer(" 2.0.0")}, VersionNotSupported,
         L" 2.0.0", false, false},
        {"non-ASCII version text", {VersionAnswer("1.0.0-\xc3\xa9")}, VersionNotSupported,
         L"1.0.0-\u00e9", false, false},
    };
    for (const Case& c : cases) {
        NewClient();
        const TestConnectionResult result = Connect(c.proxyAnswers, service.BaseUrl());
        EXPECT_EQ(result.status, c.status) << "case: " << c.name;
        EXPECT_EQ(result.version, CString(c.version)) << "case: " << c.name;
        EXPECT_TRUE(result.details.IsEmpty()) << "case: " << c.name;
        EXPECT_TRUE(result.errorText.IsEmpty()) << "case: " << c.name;
        std::vector<std::string> expectedPaths{"/register", "/register"};
        if (c.connectCalled) {
            expectedPaths.push_back("/connect");
        }
        EXPECT_EQ(Paths(proxy.Requests()), expectedPaths) << "case: " << c.name;
        EXPECT_TRUE(service.Requests().empty()) << "case: " << c.name;

        // The next operation shows whether the connection test activated the proxy.
        proxy.Clear();
        EXPECT_EQ(client->IsAuthorized(L"Sales"), 1) << "case: " << c.name;
        RecordingServer& receiver = c.forwardedAfterwards ? proxy : service;
        RecordingServer& other = c.forwardedAfterwards ? service : proxy;
        ASSERT_EQ(receiver.Requests().size(), 1u) << "case: " << c.name;
        EXPECT_TRUE(other.Requests().empty()) << "case: " << c.name;
        const RecordedRequest r = receiver.Requests()[0];
        if (c.forwardedAfterwards) {
            EXPECT_EQ(r.path, "/forward/Import/Authorization") << "case: " << c.name;
            EXPECT_EQ(r.query,
                      "lxclient=desk%201&lxserver=" + service.BaseUrl() + "&lxauth=windows")
                << "case: " << c.name;
        } else {
            EXPECT_EQ(r.path, "/Import/Authorization") << "case: " << c.name;
            EXPECT_EQ(r.query, "") << "case: " << c.name;
        }
        EXPECT_EQ(r.HeaderCount("Authorization"), 0u) << "case: " << c.name;
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
        {"declared as plain text", Proxy::Answers,
         Answer(200, "text/plain", "{\"version\":\"1.0.0-lxproxy-2.1\"}"),
         Expected<web::http::http_exception>(
             "Incorrect Content-Type: must be textual to extract_string, JSON to extract_json.")},
        {"declared as JSON but is not", Proxy::Answers,
         Answer(200, "application/json", "version=1.0.0"),
         jsonError("* Line 1, Column 2 Syntax error: Malformed token")},
        {"no body and no content type: read as null", Proxy::Answers, Answer(200),
         jsonError("not a string")},
        {"no version member", Proxy::Answers,
         Answer(200, "application/json", "{\"Version\":\"1.0.0\"}"), jsonError("not a string")},
        {"numeric version", Proxy::Answers, Answer(200, "application/json", "{\"version\":2}"),
         jsonError("not a string")},
        {"null version", Proxy::Answers, Answer(200, "application/json", "{\"version\":null}"),
         jsonError("not a string")},
        {"an array instead of an object", Proxy::Answers,
         Answer(200, "application/json", "[\"1.0.0\"]"), jsonError("not an object")},
        {"never registered: no proxy address to create a client for", Proxy::NeverRegistered,
         Answer(200), kNoHostname},
        {"registered proxy that nobody listens on", Proxy::NobodyListens, Answer(200), kRefused},
    };
    for (const Case& c : cases) {
        NewClient();
        if (c.proxyState == Proxy::Answers) {
            proxy.Enqueue(Answer(200));
            proxy.Enqueue(c.answer);
            client->RegisterWithAuthenticationProxy(Configuration(proxy));
        }
        if (c.proxyState == Proxy::NobodyListens) {
            CAuthenticationProxyConfiguration config = Configuration(proxy);
            config.proxyBaseUri = Wide(RefusedUrl());
            EXPECT_EQ(ThrownBy([&] { client->RegisterWithAuthenticationProxy(config); }), kRefused)
                << "case: " << c.name;
        }
        EXPECT_EQ(ThrownBy([&] { client->TestConnection(Wide(service.BaseUrl() + "/repo")); }),
                  c.thrown)
            << "case: " << c.name;
        const std::size_t askedProxy = proxy.Requests().size();
        EXPECT_EQ(askedProxy, c.proxyState == Proxy::Answers ? 2u : 0u) << "case: " << c.name;

        // The address was taken before the proxy was asked.
        EXPECT_EQ(client->IsAuthorized(L"Sales"), 1) << "case: " << c.name;
        EXPECT_EQ(Paths(service.Requests()), std::vector<std::string>{"/Import/Authorization"})
            << "case: " << c.name;
        EXPECT_EQ(proxy.Requests().size(), askedProxy) << "case: " << c.name;
    }
}

// ---------------------------------------------------------------------------------------------
// Direct connection: login at the identity server beside the service, then "/Import/Connect"

// The service with its identity server beside it, as deployments have them: one host and port,
// the identity server under /identity. Its login answers are scripted.
testsupport::RecordingServer::Handler ServiceWithIdentityServer(const std::string& baseUrl,
                                                                ScriptedResponse tokenAnswer,
                                                                int connectStatus) {
    const std::string identity = baseUrl + "/identity";
    const std::string discovery = "{\"issuer\":\"" + identity + "\",\"authorization_endpoint\":\"" +
                                  identity + "/authorize\",\"token_endpoint\":\"" + identity +
                                  "/token\"}";
    return [=](const RecordedRequest& r, testsupport::ConnectionContext&) {
        if (r.path == "/identity/.well-known/openid-configuration") {
            return Answer(200, "application/json", discovery);
        }
        if (r.path == "/identity/authorize") {
            return Answer(200, "text/html", "<p>Log in</p>");
        }
        if (r.path == "/identity/token") {
            return tokenAnswer;
        }
        if (r.path.size() >= 15 && r.path.compare(r.path.size() - 15, 15, "/Import/Connect") == 0) {
            return Answer(connectStatus);
        }
        return Answer(200);
    };
}

ScriptedResponse TokenAnswer(const std::string& token) {
    return Answer(200, "application/json",
                  "{\"access_token\":\"" + token + "\",\"token_type\":\"Bearer\"}");
}

// The user's browser during a login, installed as the host's launcher: it opens the login page
// and comes back to the library's loopback listener the way the identity server sends it back.
class ScriptedBrowser {
public:
    // LogsIn and Refuses come back with a scripted answer; AtProvider, the user decides at a
    // real identity server's login page.
    enum class User { LogsIn, Refuses, NeverComesBack, LogsInAtProvider, RefusesAtProvider };

    explicit ScriptedBrowser(User user) : m_user(user) {
        TableRepositorySetLoginTimeout(user == User::NeverComesBack ? 300 : 30000);
        TableRepositorySetBrowserLauncher(&ScriptedBrowser::Launch, this);
    }
    ~ScriptedBrowser() {
        TableRepositorySetBrowserLauncher(nullptr, nullptr);
        TableRepositorySetLoginTimeout(0);
        if (m_visit.joinable()) {
            m_visit.join();
        }
    }
    ScriptedBrowser(const ScriptedBrowser&) = delete;
    ScriptedBrowser& operator=(const ScriptedBrowser&) = delete;

    // Waits for the visit to end; what went wrong in it, if anything.
    std::string Finish() {
        if (m_visit.joinable()) {
            m_visit.join();
        }
        return m_failure;
    }

private:
    static int Launch(const wchar_t* url, void* context) {
        auto* self = static_cast<ScriptedBrowser*>(context);
        if (self->m_user != User::NeverComesBack) {
            const std::string page = ToUtf8(std::wstring(url));
            self->m_visit = std::thread([self, page] { self->Visit(page); });
        }
        return 1;
    }

    void Visit(const std::string& loginPage) {
        try {
            if (m_user == User::LogsInAtProvider || m_user == User::RefusesAtProvider) {
                const testsupport::BrowserPage last =
                    testsupport::TestBrowser(m_user == User::LogsInAtProvider ? "allow" : "deny")
                        .Visit(loginPage);
                if (last.status != 200) {
                    m_failure = "the login ended on a page with status " +
                                std::to_string(last.status) + ": " + last.url;
                }
                return;
            }
            const web::uri page(loginPage);
            web::http::client::http_client(page).request(web::http::methods::GET).get();
            auto query = web::uri::split_query(page.query());
            web::uri_builder back(web::uri::decode(query[U("redirect_uri")]));
            if (m_user == User::LogsIn) {
                back.append_query(U("code"), U("code-1"));
            } else {
                back.append_query(U("error"), U("access_denied"));
                back.append_query(U("error_description"), U("alice said no"));
            }
            back.append_query(U("state"), web::uri::decode(query[U("state")]), false);
            web::http::client::http_client(back.to_uri()).request(web::http::methods::GET).get();
        } catch (const std::exception& e) {
            m_failure = e.what();
        }
    }

    User m_user;
    std::thread m_visit;
    std::string m_failure;
};

TEST_F(Connection, DirectConnectionLogsInBesideTheServiceAndConnectsWithTheToken) {
    using User = ScriptedBrowser::User;
    struct Case {
        const char* name;
        std::string version;
        User user;
        ScriptedResponse tokenAnswer;
        int connectStatus;
        int status;
        const wchar_t* errorText;
        bool connectCalled;
    };
    const ScriptedResponse token = TokenAnswer("tok-1");
    const Case cases[] = {
        {"connected", "2.0.0", User::LogsIn, token, 200, Connected, L"", true},
        {"any text that starts with 2", "2", User::LogsIn, token, 200, Connected, L"", true},
        {"connect answered 401", "2.0.0", User::LogsIn, token, 401, NotAuthorized, L"", true},
        {"connect answered 500", "2.0.0", User::LogsIn, token, 500, ConnectionFailed, L"", true},
        {"connect answered 204", "2.0.0", User::LogsIn, token, 204, ConnectionFailed, L"", true},
        {"the user refuses the login", "2.0.0", User::Refuses, token, 200, AuthenticationFailed,
         L"alice said no", false},
        {"the identity server refuses the code", "2.0.0", User::LogsIn,
         Answer(400, "application/json",
                "{\"error\":\"invalid_grant\",\"error_description\":\"code used before\"}"),
         200, AuthenticationFailed, L"code used before", false},
        {"the user never comes back", "2.0.0", User::NeverComesBack, token, 200,
         AuthenticationFailed, L"Authentication timeout", false},
    };
    for (const Case& c : cases) {
        NewClient();
        service.SetHandler(
            ServiceWithIdentityServer(service.BaseUrl(), c.tokenAnswer, c.connectStatus));
        ScriptedBrowser browser(c.user);
        const TestConnectionResult result =
            Connect({VersionAnswer(c.version)}, service.BaseUrl() + "/repo");
        EXPECT_EQ(browser.Finish(), "") << "case: " << c.name;

        EXPECT_EQ(result.status, c.status) << "case: " << c.name;
        EXPECT_EQ(result.errorText, CString(c.errorText)) << "case: " << c.name;
        EXPECT_EQ(result.version, Wide(c.version)) << "case: " << c.name;
        EXPECT_TRUE(result.details.IsEmpty()) << "case: " << c.name;
        EXPECT_EQ(Paths(proxy.Requests()), (std::vector<std::string>{"/register", "/register"}))
            << "case: " << c.name;

        // The identity server is found at the service's host and port, not below its path.
        const std::vector<RecordedRequest> requests = service.Requests();
        ASSERT_FALSE(requests.empty()) << "case: " << c.name;
        EXPECT_EQ(requests[0].path, "/identity/.well-known/openid-configuration")
            << "case: " << c.name;
        std::vector<RecordedRequest> connects;
        for (const RecordedRequest& r : requests) {
            if (r.path.find("/Import/") != std::string::npos) {
                connects.push_back(r);
            }
        }
        ASSERT_EQ(connects.size(), c.connectCalled ? 1u : 0u) << "case: " << c.name;
        if (c.connectCalled) {
            EXPECT_EQ(connects[0].method, "GET") << "case: " << c.name;
            EXPECT_EQ(connects[0].path, "/repo/Import/Connect") << "case: " << c.name;
            EXPECT_EQ(connects[0].HeaderValue("Authorization").value_or(""), "Bearer tok-1")
                << "case: " << c.name;
            EXPECT_EQ(connects[0].HeaderCount("Content-Type"), 0u) << "case: " << c.name;
            EXPECT_EQ(connects[0].body, "") << "case: " << c.name;
        }

        // The token is kept for every later request, whatever the connect call answered.
        service.Clear();
        EXPECT_EQ(client->IsAuthorized(L"Sales"), 1) << "case: " << c.name;
        ASSERT_EQ(Paths(service.Requests()), std::vector<std::string>{"/Import/Authorization"})
            << "case: " << c.name;
        EXPECT_EQ(service.Requests()[0].HeaderValue("Authorization").value_or("none"),
                  c.connectCalled ? "Bearer tok-1" : "none")
            << "case: " << c.name;
    }
}

// The same against a real OpenID provider that also plays the service's "/Import/Connect": it
// accepts only an access token it issued for the import service.
TEST_F(Connection, DirectConnectionAtARealOpenIdProvider) {
    using User = ScriptedBrowser::User;
    struct Case {
        const char* name;
        User user;
        int status;
        CString errorText;
    };
    const Case cases[] = {
        {"alice logs in", User::LogsInAtProvider, Connected, L""},
        {"alice refuses", User::RefusesAtProvider, AuthenticationFailed,
         Wide(testsupport::kOidcDeniedText)},
    };
    testsupport::OidcProvider provider;
    for (const Case& c : cases) {
        NewClient();
        ScriptedBrowser browser(c.user);
        const TestConnectionResult result = Connect({VersionAnswer("2.0.0")}, provider.BaseUrl());
        EXPECT_EQ(browser.Finish(), "") << "case: " << c.name;
        EXPECT_EQ(result.status, c.status) << "case: " << c.name;
        EXPECT_EQ(result.errorText, c.errorText) << "case: " << c.name;
    }
}

TEST_F(Connection, ATokenOutlivesAFailedLoginAndALaterProxyConnection) {
    using User = ScriptedBrowser::User;
    service.SetHandler(ServiceWithIdentityServer(service.BaseUrl(), TokenAnswer("tok-1"), 200));
    {
        ScriptedBrowser browser(User::LogsIn);
        ASSERT_EQ(Connect({VersionAnswer("2.0.0")}, service.BaseUrl()).status, Connected);
    }
    const auto authorizationOfNextRequest = [&] {
        service.Clear();
        proxy.Clear();
        EXPECT_EQ(client->IsAuthorized(L"Sales"), 1);
        EXPECT_TRUE(proxy.Requests().empty());
        const std::vector<RecordedRequest> requests = service.Requests();
        return requests.size() == 1 ? requests[0].HeaderValue("Authorization").value_or("none")
                                    : "requests: " + std::to_string(requests.size());
    };

    {
        ScriptedBrowser browser(User::Refuses);
        proxy.Enqueue(VersionAnswer("2.0.0"));
        EXPECT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, AuthenticationFailed);
    }
    EXPECT_EQ(authorizationOfNextRequest(), "Bearer tok-1");

    proxy.Enqueue(VersionAnswer("1.0.0-lxproxy-2.1"));
    proxy.Enqueue(Answer(200));
    EXPECT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, Connected);
    EXPECT_EQ(authorizationOfNextRequest(), "Bearer tok-1");

    service.SetHandler(ServiceWithIdentityServer(service.BaseUrl(), TokenAnswer("tok-2"), 200));
    {
        ScriptedBrowser browser(User::LogsIn);
        proxy.Enqueue(VersionAnswer("2.0.0"));
        EXPECT_EQ(client->TestConnection(Wide(service.BaseUrl())).status, Connected);
    }
    EXPECT_EQ(authorizationOfNextRequest(), "Bearer tok-2");
}

// ---------------------------------------------------------------------------------------------
// Authorization check

TEST(IsAuthorized, PostsTheTableClassToTheAuthorizationEndpointAtTheRootOfTheHost) {
    struct Case {
        const char* name;
        std::string servicePath;
        const wchar_t* tableClass;
        std::string body;
        std::string query;
    };
    const Case cases[] = {
        {"plain", "", L"Sales", "{\"tableClass\":\"Sales\"}", ""},
        {"an empty class is sent as the empty string", "", L"", "{\"tableClass\":\"\"}", ""},
        {"the service path is replaced, not extended", "/repo", L" Sales ",
         "{\"tableClass\":\" Sales \"}", ""},
        {"the service address's query is kept", "/repo/v1?tenant=a%20b&x=1", L"sales",
         "{\"tableClass\":\"sales\"}", "tenant=a%20b&x=1"},
        {"non-ASCII and JSON escapes", "", L"Z\u00fcrich \"Q1\"\\",
         "{\"tableClass\":\"Z\xc3\xbcrich \\\"Q1\\\"\\\\\"}", ""},
    };
    RecordingServer service;
    for (const Case& c : cases) {
        ConnectedClient client(service.BaseUrl() + c.servicePath);
        service.Clear();
        EXPECT_EQ(client->IsAuthorized(c.tableClass), 1) << "case: " << c.name;
        ASSERT_EQ(service.Requests().size(), 1u) << "case: " << c.name;
        const RecordedRequest r = service.Requests()[0];
        EXPECT_EQ(r.method, "POST") << "case: " << c.name;
        EXPECT_EQ(r.path, "/Import/Authorization") << "case: " << c.name;
        EXPECT_EQ(r.query, c.query) << "case: " << c.name;
        EXPECT_EQ(r.body, c.body) << "case: " << c.name;
        EXPECT_EQ(r.HeaderValue("Content-Type").value_or(""), "application/json")
            << "case: " << c.name;
    }
}

TEST(IsAuthorized, OnlyStatus200Authorizes) {
    struct Case {
        int status;
        int authorized;
    };
    const Case cases[] = {{200, 1}, {201, 0}, {202, 0}, {204, 0}, {400, 0},
                          {401, 0}, {403, 0}, {404, 0}, {500, 0}};
    RecordingServer service;
    ConnectedClient client(service.BaseUrl());
    for (const Case& c : cases) {
        service.Enqueue(Answer(c.status, "application/json", "{\"authorized\":true}"));
        EXPECT_EQ(client->IsAuthorized(L"Sales"), c.authorized) << "case: " << c.status;
    }
    EXPECT_EQ(service.Requests().size(), std::size(cases));
}

TEST(IsAuthorized, ARefusedConnectionThrowsInsteadOfAnsweringNo) {
    ConnectedClient client(RefusedUrl());
    EXPECT_EQ(ThrownBy([&] { client->IsAuthorized(L"Sales"); }), kRefused);
}

} // namespace
