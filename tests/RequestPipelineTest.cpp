// What the request pipeline puts on the wire for the bearer, proxy and plain ways of sending.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/RequestPipeline.h"
#include "client/TextConversion.h"
#include "support/RecordingServer.h"

using testsupport::RecordedRequest;
using testsupport::RecordingServer;
using web::http::http_request;
using web::http::methods;
using web::http::client::http_client;
using web::json::value;

namespace {

enum class Path { Bearer, Proxy, Plain };

const char* Name(Path path) {
    switch (path) {
    case Path::Bearer:
        return "bearer";
    case Path::Proxy:
        return "proxy";
    default:
        return "plain";
    }
}

class RequestPipeline : public ::testing::Test {
protected:
    // Sends one POST with body by the chosen path to service/Import/Tables/x and returns what
    // arrived at whichever server received it.
    RecordedRequest Send(Path path, const value& body, const std::string& endpointPath = "/Import/Tables/x") {
        AuthenticationSettings settings;
        if (path == Path::Bearer) {
            settings.accessToken = L"tok-123";
        }
        if (path == Path::Proxy) {
            UseProxy(settings, 0);
        }
        http_client client(web::uri(service.BaseUrl() + endpointPath));
        http_request request(methods::POST);
        const auto response = ExecuteRequest(settings, client, request, body).get();
        EXPECT_EQ(response.status_code(), 200);
        RecordingServer& receiver = path == Path::Proxy ? proxy : service;
        EXPECT_EQ(receiver.Requests().size(), 1u);
        EXPECT_TRUE((path == Path::Proxy ? service : proxy).Requests().empty());
        return receiver.Requests().at(0);
    }

    void UseProxy(AuthenticationSettings& settings, int authenticationType) {
        settings.proxyConfiguration.proxyBaseUri = CString(proxy.BaseUrl().c_str());
        settings.proxyConfiguration.proxyPath = L"/forward";
        settings.proxyConfiguration.clientName = L"desk-1";
        settings.proxyConfiguration.serverName = L"http://repo.example:8080";
        settings.proxyConfiguration.authenticationType = authenticationType;
    }

    RecordingServer service;
    RecordingServer proxy;
};

struct BodyCase {
    const char* name;
    value body;
    bool sent;
    std::string text;
};

TEST_F(RequestPipeline, BodyAndContentTypeFollowTheBodyMarkerOnEveryPath) {
    const BodyCase cases[] = {
        {"number 0 means no body", value::number(0), false, ""},
        {"null is sent as text", value::null(), true, "null"},
        {"empty object", value::object(), true, "{}"},
        {"non-ASCII text", value::string(ToStringT(std::wstring(L"Z\u00fcrich \U0001F600"))), true,
         "\"Z\xc3\xbcrich \xf0\x9f\x98\x80\""},
    };
    for (Path path : {Path::Bearer, Path::Proxy, Path::Plain}) {
        for (const BodyCase& c : cases) {
            service.Clear();
            proxy.Clear();
            const RecordedRequest r = Send(path, c.body);
            SCOPED_TRACE(std::string(Name(path)) + ": " + c.name);
            EXPECT_EQ(r.body, c.text);
            if (c.sent) {
                EXPECT_EQ(r.HeaderCount("Content-Type"), 1u);
                EXPECT_EQ(r.HeaderValue("Content-Type").value_or(""),
                          path == Path::Proxy ? "application/json; charset=utf-8"
                                              : "application/json");
            } else {
                EXPECT_EQ(r.HeaderCount("Content-Type"), 0u);
                EXPECT_NE(r.HeaderValue("Content-Length").value_or("0"), "4");
            }
        }
    }
}

TEST_F(RequestPipeline, BearerPathSendsExactlyOneBearerHeaderAndTheTokenWinsOverTheProxy) {
    AuthenticationSettings settings;
    settings.accessToken = L"tok-\u00e9";
    UseProxy(settings, 1);
    http_client client(web::uri(service.BaseUrl() + "/Import/Tables"));
    http_request request(methods::POST);
    request.headers().add(U("Authorization"), U("Basic stale"));
    EXPECT_EQ(ExecuteRequest(settings, client, request, value::object()).get().status_code(), 200);

    ASSERT_EQ(service.Requests().size(), 1u);
    EXPECT_TRUE(proxy.Requests().empty());
    const RecordedRequest r = service.Requests().at(0);
    EXPECT_EQ(r.HeaderCount("Authorization"), 1u);
    EXPECT_EQ(r.HeaderValue("Authorization").value_or(""), "Bearer tok-\xc3\xa9");
    EXPECT_EQ(r.path, "/Import/Tables");
}

TEST_F(RequestPipeline, ProxyPathRewritesTheAddressAndAddsTheQueryInOrder) {
    struct Case {
        int authenticationType;
        const char* lxauth;
    };
    for (const Case c : {Case{1, "oauth"}, Case{0, "windows"}, Case{2, "windows"},
                         Case{-1, "windows"}, Case{7, "windows"}}) {
        proxy.Clear();
        AuthenticationSettings settings;
        UseProxy(settings, c.authenticationType);
        settings.proxyConfiguration.proxyBaseUri = CString((proxy.BaseUrl() + "/gate").c_str());
        settings.proxyConfiguration.proxyPath = L"fwd path";
        settings.proxyConfiguration.clientName = L"Z\u00f6e & co";
        // The endpoint's own host and port are never contacted; only its path travels.
        http_client client(web::uri(U("http://127.0.0.3:9/Import/Tables/Sales%20Q1/End")));
        http_request request(methods::POST);
        ExecuteRequest(settings, client, request, value::null()).get();

        SCOPED_TRACE(c.authenticationType);
        ASSERT_EQ(proxy.Requests().size(), 1u);
        const RecordedRequest r = proxy.Requests().at(0);
        EXPECT_EQ(r.path, "/gate/fwd%20path/Import/Tables/Sales%20Q1/End");
        EXPECT_EQ(r.query, std::string("lxclient=Z%C3%B6e%20%26%20co&lxserver=http://repo.example:8080"
                                       "&lxauth=") + c.lxauth);
        EXPECT_EQ(r.HeaderCount("Authorization"), 0u);
    }
}

TEST_F(RequestPipeline, ProxyPathKeepsTheRequestsRelativeAddressBehindTheEndpoint) {
    AuthenticationSettings settings;
    UseProxy(settings, 0);
    http_client client(web::uri(service.BaseUrl()));
    http_request request(methods::GET);
    request.set_request_uri(U("/Import/Connect"));
    ExecuteRequest(settings, client, request, value::number(0)).get();
    ASSERT_EQ(proxy.Requests().size(), 1u);
    EXPECT_EQ(proxy.Requests()[0].method, "GET");
    EXPECT_EQ(proxy.Requests()[0].path, "/forward/Import/Connect");
    EXPECT_EQ(proxy.Requests()[0].query.rfind("lxclient=desk-1&", 0), 0u);
}

TEST(RequestPipelineLocal, LocalAddressesAreSentOnceWithoutAuthorization) {
    // cpprestsdk lower-cases the host while parsing, so LOCALHOST is local by the time the
    // pipeline looks at the address text.
    for (const char* host : {"localhost", "LOCALHOST", "127.0.0.1"}) {
        RecordingServer service;
        const std::string url =
            std::string("http://") + host + ":" + std::to_string(service.Port()) + "/any/path";
        http_client client{web::uri(url)};
        http_request request(methods::POST);
        AuthenticationSettings settings;
        EXPECT_EQ(ExecuteRequest(settings, client, request, value::null()).get().status_code(), 200)
            << host;
        ASSERT_EQ(service.Requests().size(), 1u) << host;
        EXPECT_EQ(service.Requests()[0].HeaderCount("Authorization"), 0u) << host;
        EXPECT_EQ(service.Requests()[0].path, "/any/path") << host;
    }
}

} // namespace
