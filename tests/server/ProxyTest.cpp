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
                                        recorder.BaseUrl()};
        proxy = std::make_unique<RunningServer>(options);
    }

    Answer Call(const std::string& path, const Fields& query) {
        return Send(proxy->Url(), WithQuery(path, query));
    }

    TempDirectory directory;
    RunningServer service{DefaultOptions(directory.File("repo.sqlite"), lxrepo::Role::Service)};
    testsupport::RecordingServer recorder;
    std::unique_ptr<RunningServer> proxy;
};

TEST_F(Proxy, ConnectNeedsARegisteredClientAndAnAllowedServer) {
    const std::string desk = "desk \xC3\xBC";
    const struct {
        const char* name;
        bool registered;
        bool unregistered;
        std::string server;
        std::string auth;
        int status;
    } cases[] = {
        {"registered, allowed", true, false, service.Url(), "windows", 200},
        {"never registered", false, false, service.Url(), "windows", 401},
        {"registered, then unregistered", true, true, service.Url(), "windows", 401},
        {"server not allowed", true, false, "http://127.0.0.1:1", "windows", 401},
        {"unknown authentication kind", true, false, service.Url(), "basic", 400},
    };
    for (const auto& c : cases) {
        Call("/unregister", {{"lxclient", desk}});
        if (c.registered) {
            ASSERT_EQ(Call("/register", {{"lxclient", desk}, {"lxserver", service.Url()}}).status,
                      200);
        }
        if (c.unregistered) {
            ASSERT_EQ(Call("/unregister", {{"lxclient", desk}}).status, 200);
        }
        const Answer answer = Call("/connect", Via(desk, c.server, c.auth));
        EXPECT_EQ(answer.status, c.status) << "case: " << c.name << ": " << answer.body;
    }
}

TEST_F(Proxy, ForwardRelaysTheServiceAnswersAndRefusesOthers) {
    ASSERT_EQ(Call("/register", {{"lxclient", "desk"}, {"lxserver", service.Url()}}).status, 200);
    const struct {
        const char* name;
        Fields query;
        std::string body;
        int status;
        const char* errorPart;
    } cases[] = {
        {"service's 201", Via("desk", service.Url()),
         R"({"recordCount":1,"tableClass":"c","tableDescription":"","tableName":"F","tableOverwrite":false})",
         201, ""},
        {"service's 400 with its message", Via("desk", service.Url()), "{\"tableName\":", 400,
         "malformed JSON"},
        {"server not on the allow-list", Via("desk", "http://127.0.0.1:9"), "{}", 403,
         "does not forward to http://127.0.0.1:9"},
        {"allowed host, other port", Via("desk", proxy->Url()), "{}", 403, "does not forward"},
        {"unregistered client", Via("intruder", service.Url()), "{}", 401, "not registered"},
        {"lxserver not a URL", Via("desk", "repository"), "{}", 400, "http:// URL"},
        {"oauth without a configured OpenID client", Via("desk", service.Url(), "oauth"), "{}", 502,
         "no OpenID client"},
        {"no proxy parameters", {}, "{}", 400, "lxclient"},
    };
    for (const auto& c : cases) {
        const Answer answer =
            Send(proxy->Url(), WithQuery("/forward/Import/Tables", c.query), c.body);
        EXPECT_EQ(answer.status, c.status) << "case: " << c.name << ": " << answer.body;
        EXPECT_EQ(answer.contentType.rfind("application/json", 0), 0u) << "case: " << c.name;
        EXPECT_NE(answer.Error().find(c.errorPart), std::string::npos)
            << "case: " << c.name << ": " << answer.body;
    }
    // Each role serves only its own paths.
    EXPECT_EQ(Send(proxy->Url(), "/Import/Connect").status, 404);
    EXPECT_EQ(Send(service.Url(), WithQuery("/register", Via("desk", service.Url()))).status, 404);
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
