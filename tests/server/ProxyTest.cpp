// The authentication proxy in the exact query form of the client library: registration,
// connect, unregistration, and forwarding to an allowed service. Proxy and service run as two
// servers (roles proxy and service), as in a deployment with a separate proxy.
#include <gtest/gtest.h>

#include "ServerFixture.h"
#include "support/RecordingServer.h"

#include <string>

namespace {

using namespace servertest;

Fields Via(const std::string& client, const std::string& server,
           const std::string& auth = "windows") {
    return {{"lxclient", client}, {"lxserver", server}, {"lxauth", auth}};
}

class Proxy : public ::testing::Test {
protected:
    Proxy() {
        auto options = DefaultOptions(directory.File("unused.sqlite"), lxrepo::Role::Proxy);
        // Spelt differently from what clients send: the allow-list compares origins.
        options.proxy.allowedServers = {"HTTP://127.0.0.1:" + std::to_string(service.Port()) + "/",
                                        recorder.BaseUrl(), unknown.BaseUrl(), otherName.BaseUrl()};
        proxy = std::make_unique<RunningServer>(options);
    }

    Answer Call(const std::string& path, const Fields& query) {
        return Send(proxy->Url(), WithQuery(path, query));
    }

    TempDirectory directory;
    RunningServer service{DefaultOptions(directory.File("repo.sqlite"), lxrepo::Role::Service)};
    testsupport::RecordingServer recorder;
    // TLS servers the proxy must not trust.
    testsupport::RecordingServer unknown{"127.0.0.1", &testsupport::Certificates().otherAuthority};
    testsupport::RecordingServer otherName{"127.0.0.1", &testsupport::Certificates().otherName};
    std::unique_ptr<RunningServer> proxy;
};

// Connect and forward for "desk \xC3\xBC", registered, and "gone", registered and unregistered.
TEST_F(Proxy, ConnectAndForwardNeedARegisteredClientAndAnAllowedServer) {
    const std::string desk = "desk \xC3\xBC";
    for (const char* client : {"desk \xC3\xBC", "gone"}) {
        ASSERT_EQ(Call("/register", {{"lxclient", client}, {"lxserver", service.Url()}}).status,
                  200);
    }
    ASSERT_EQ(Call("/unregister", {{"lxclient", "gone"}}).status, 200);
    const std::string forward = "/forward/Import/Tables";
    const struct {
        const char* name;
        std::string path;
        Fields query;
        std::optional<std::string> body;
        int status;
        const char* errorPart;
    } cases[] = {
        {"connect", "/connect", Via(desk, service.Url()), std::nullopt, 200, ""},
        {"connect, never registered", "/connect", Via("intruder", service.Url()), std::nullopt, 401,
         "not registered"},
        {"connect, server not allowed", "/connect", Via(desk, "http://127.0.0.1:1"), std::nullopt,
         401, ""},
        {"connect, unknown authentication kind", "/connect", Via(desk, service.Url(), "basic"),
         std::nullopt, 400, ""},
        {"service's 201", forward, Via(desk, service.Url()),
         R"({"recordCount":1,"tableClass":"c","tableDescription":"","tableName":"F","tableOverwrite":false})",
         201, ""},
        {"service's 400 with its message", forward, Via(desk, service.Url()),
         "{\"tableName\":", 400, "malformed JSON"},
        {"server not on the allow-list", forward, Via(desk, "http://127.0.0.1:9"), "{}", 403,
         "does not forward to http://127.0.0.1:9"},
        {"allowed host, other port", forward, Via(desk, proxy->Url()), "{}", 403,
         "does not forward"},
        {"service's certificate by an unknown authority", forward, Via(desk, unknown.BaseUrl()),
         "{}", 502, "certificate verify failed"},
        {"service's certificate for another name", forward, Via(desk, otherName.BaseUrl()), "{}",
         502, "certificate verify failed"},
        {"unregistered client", forward, Via("gone", service.Url()), "{}", 401, "not registered"},
        {"lxserver not a URL", forward, Via(desk, "repository"), "{}", 400, "https:// URL"},
        {"oauth without a configured OpenID client", forward, Via(desk, service.Url(), "oauth"),
         "{}", 502, "no OpenID client"},
        {"no proxy parameters", forward, {}, "{}", 400, "lxclient"},
        {"a proxy has no import paths", "/Import/Connect", {}, std::nullopt, 404, ""},
    };
    for (const auto& c : cases) {
        const Answer answer = Send(proxy->Url(), WithQuery(c.path, c.query), c.body);
        EXPECT_EQ(answer.status, c.status) << "case: " << c.name << ": " << answer.body;
        EXPECT_EQ(answer.contentType.rfind("application/json", 0), 0u) << "case: " << c.name;
        EXPECT_EQ(answer.Error().empty(), c.status < 400) << "case: " << c.name;
        EXPECT_NE(answer.Error().find(c.errorPart), std::string::npos)
            << "case: " << c.name << ": " << answer.body;
    }
    // A service has no proxy paths.
    EXPECT_EQ(Send(service.Url(), WithQuery("/register", Via(desk, service.Url()))).status, 404);
}

// The service gets its own query parameters as they came, without the proxy's, and the client's
// name encoded in a header of its own.
TEST_F(Proxy, ForwardPassesOnTheServiceQueryAndNamesTheClient) {
    ASSERT_EQ(Call("/register", Via("desk \xC3\xBC", recorder.BaseUrl())).status, 200);
    const Answer answer = Call("/forward/Import/Connect", {{"keep", "1 2"},
                                                           {"lxclient", "desk \xC3\xBC"},
                                                           {"lxserver", recorder.BaseUrl()},
                                                           {"x", ""},
                                                           {"lxauth", "windows"}});
    EXPECT_EQ(answer.status, 200) << answer.body;
    const auto requests = recorder.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].target, "/Import/Connect?keep=1%202&x=");
    EXPECT_EQ(requests[0].HeaderValue("X-Lxrepo-Client"), "desk%20%C3%BC");
}

} // namespace
