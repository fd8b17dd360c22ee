// The authentication proxy in the exact query form of the client library: registration with
// its version, connect, unregistration, and forwarding to an allowed service. Proxy and service
// run as two servers (roles proxy and service), as in a deployment with a separate proxy.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <nlohmann/json.hpp>

#include <string>

namespace {

using namespace servertest;

class Proxy : public ::testing::Test {
protected:
    Proxy() {
        auto serviceOptions = DefaultOptions(database);
        serviceOptions.role = lxrepo::Role::Service;
        service = std::make_unique<RunningServer>(serviceOptions);
        auto proxyOptions = DefaultOptions(directory.File("unused.sqlite"));
        proxyOptions.role = lxrepo::Role::Proxy;
        // Spelt differently from what clients send: the allow-list compares origins.
        proxyOptions.proxy.allowedServers = {"HTTP://127.0.0.1:" + std::to_string(service->Port()) +
                                             "/"};
        proxyOptions.proxy.version = "1.0.0-lxproxy-2.1";
        proxy = std::make_unique<RunningServer>(proxyOptions);
    }

    // The registration path with its query, as the library's registration builds it.
    Answer Register(const std::string& client, const std::string& server) {
        return Send(proxy->Url(), "GET", {Word("/register")}, std::nullopt,
                    {{"lxclient", client}, {"lxserver", server}});
    }
    Answer Call(const std::string& path, const Query& query) {
        return Send(proxy->Url(), "GET", {Word(path)}, std::nullopt, query);
    }
    Via Forwarded(const std::string& client, const std::string& server,
                  const std::string& auth = "windows") {
        return Via(proxy->Url(), "/forward",
                   {{"lxclient", client}, {"lxserver", server}, {"lxauth", auth}});
    }

    TempDirectory directory;
    std::string database = directory.File("repo.sqlite");
    std::unique_ptr<RunningServer> service;
    std::unique_ptr<RunningServer> proxy;
};

TEST_F(Proxy, RegistrationAnswersTheVersionAsJson) {
    // The connection test asks for the version with all three parameters.
    const Answer version =
        Send(proxy->Url(), "GET", {Word("/register")}, std::nullopt,
             {{"lxclient", "desk 01"}, {"lxserver", service->Url()}, {"lxauth", "windows"}});
    EXPECT_EQ(version.status, 200);
    EXPECT_EQ(version.contentType.rfind("application/json", 0), 0u) << version.contentType;
    EXPECT_EQ(nlohmann::json::parse(version.body).at("version"), "1.0.0-lxproxy-2.1");
    EXPECT_EQ(Call("/register", {{"lxserver", service->Url()}}).status, 400);
}

TEST_F(Proxy, ConnectNeedsARegisteredClientAndAnAllowedServer) {
    const std::string other = "http://127.0.0.1:1";
    struct Case {
        const char* name;
        std::string registerAs; // "" registers nobody
        bool unregister;
        std::string server;
        std::string auth;
        int status;
    };
    const Case cases[] = {
        {"registered, allowed", "desk \xC3\xBC", false, service->Url(), "windows", 200},
        {"registered, allowed, other spelling", "desk \xC3\xBC", false, service->Url() + "/",
         "windows", 200},
        {"never registered", "", false, service->Url(), "windows", 401},
        {"registered, then unregistered", "desk \xC3\xBC", true, service->Url(), "windows", 401},
        {"server not allowed", "desk \xC3\xBC", false, other, "windows", 401},
        {"unknown authentication kind", "desk \xC3\xBC", false, service->Url(), "basic", 400},
    };
    for (const auto& c : cases) {
        Call("/unregister", {{"lxclient", "desk \xC3\xBC"}});
        if (!c.registerAs.empty()) {
            ASSERT_EQ(Register(c.registerAs, service->Url()).status, 200) << "case: " << c.name;
        }
        if (c.unregister) {
            ASSERT_EQ(Call("/unregister", {{"lxclient", c.registerAs}}).status, 200);
        }
        const Answer answer =
            Call("/connect",
                 {{"lxclient", "desk \xC3\xBC"}, {"lxserver", c.server}, {"lxauth", c.auth}});
        EXPECT_EQ(answer.status, c.status) << "case: " << c.name << ": " << answer.body;
    }
}

TEST_F(Proxy, ForwardsAWholeImportAndNamesTheClientToTheService) {
    ASSERT_EQ(Register("desk 01 \xC3\xBC", service->Url()).status, 200);
    const TableData table = {"Via proxy #1",
                             {"A b", "C%d"},
                             {{"x", "y"}, {"1", "2", "3"}},
                             {{0, 1, -1, 0}, {2, -1, 1, 0}}};
    ASSERT_EQ(ImportWholeTable(Forwarded("desk 01 \xC3\xBC", service->Url()), table), 200);

    const auto rows = QueryRows(database, "select * from \"Via proxy #1\" order by rowid");
    const std::vector<Row> expected = {
        {"x", "3"}, {"y", std::nullopt}, {std::nullopt, "2"}, {"x", "1"}};
    EXPECT_EQ(rows, expected);
    EXPECT_EQ(QueryRows(database, "select client from lxrepo_tables")[0][0], "desk 01 \xC3\xBC");
}

TEST_F(Proxy, ForwardRelaysTheServiceAnswersAndRefusesOthers) {
    ASSERT_EQ(Register("desk", service->Url()).status, 200);
    struct Case {
        const char* name;
        Via via;
        std::string body;
        int status;
        const char* errorPart; // in the error text, "" for success
    };
    const Case cases[] = {
        {"service's 201", Forwarded("desk", service->Url()),
         R"({"recordCount":1,"tableClass":"c","tableDescription":"","tableName":"F","tableOverwrite":false})",
         201, ""},
        {"service's 400 with its message", Forwarded("desk", service->Url()),
         "{\"tableName\":", 400, "malformed JSON"},
        {"server not on the allow-list", Forwarded("desk", "http://127.0.0.1:9"), "{}", 403,
         "does not forward to http://127.0.0.1:9"},
        {"allowed host, other port",
         Forwarded("desk", "http://127.0.0.1:" + std::to_string(proxy->Port())), "{}", 403,
         "does not forward"},
        {"unregistered client", Forwarded("intruder", service->Url()), "{}", 401, "not registered"},
        {"lxserver not a URL", Forwarded("desk", "repository"), "{}", 400, "http:// URL"},
        {"oauth without a configured OpenID client", Forwarded("desk", service->Url(), "oauth"),
         "{}", 502, "no OpenID client"},
        {"no proxy parameters", Via(proxy->Url(), "/forward", {}), "{}", 400, "lxclient"},
    };
    for (const auto& c : cases) {
        const Answer answer = Send(c.via, "POST", {Word("/Import/Tables")}, c.body);
        EXPECT_EQ(answer.status, c.status) << "case: " << c.name << ": " << answer.body;
        EXPECT_EQ(answer.contentType.rfind("application/json", 0), 0u) << "case: " << c.name;
        if (*c.errorPart != '\0') {
            const auto body = nlohmann::json::parse(answer.body, nullptr, false);
            ASSERT_TRUE(body.is_object() && body.contains("error")) << "case: " << c.name;
            EXPECT_NE(body["error"].get<std::string>().find(c.errorPart), std::string::npos)
                << "case: " << c.name << ": " << answer.body;
        }
    }
}

TEST_F(Proxy, EachRoleServesOnlyItsOwnPaths) {
    EXPECT_EQ(Send(proxy->Url(), "GET", {Word("/Import/Connect")}, std::nullopt).status, 404);
    EXPECT_EQ(Send(service->Url(), "GET", {Word("/register")}, std::nullopt,
                   {{"lxclient", "a"}, {"lxserver", "b"}})
                  .status,
              404);
    // Role both serves both.
    auto bothOptions = DefaultOptions(directory.File("both.sqlite"));
    RunningServer both(bothOptions);
    EXPECT_EQ(Send(both.Url(), "GET", {Word("/Import/Connect")}, std::nullopt).status, 200);
    EXPECT_EQ(Send(both.Url(), "GET", {Word("/register")}, std::nullopt,
                   {{"lxclient", "a"}, {"lxserver", "b"}})
                  .status,
              200);
}

} // namespace
