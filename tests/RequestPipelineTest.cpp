// What the request pipeline puts on the wire on the bearer, proxy and plain ways of sending (the
// NTLM way has its own test).
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/RequestPipeline.h"
#include "client/TextConversion.h"
#include "support/RecordingServer.h"

namespace {

using testsupport::RecordingServer;
using web::json::value;

TEST(RequestPipeline, SendsByTheWayTheSettingsChoose) {
    struct Case {
        const char* name;
        const wchar_t* token;    // non-empty: the bearer way, whatever else is set
        int proxyAuthentication; // -1: no proxy configured
        std::string proxyBase;   // below the proxy server's address
        const wchar_t* proxyPath;
        std::string endpoint;   // "{service}" stands for the service's address
        const char* requestUri; // relative to the endpoint, "" for none
        value body;
        bool atProxy;
        std::string path, query, authorization, contentType, sent;
    };
    const std::string proxyQuery =
        "lxclient=Z%C3%B6e%20%26%20co&lxserver=http://repo.example:8080&lxauth=";
    const std::string json = "application/json";
    const Case cases[] = {
        {"bearer: number 0 means no body", L"tok-123", -1, "", L"", "{service}/Import/Tables/x", "",
         value::number(0), false, "/Import/Tables/x", "", "Bearer tok-123", "", ""},
        // The token wins over a configured proxy.
        {"bearer: non-ASCII token, proxy configured", L"tok-\u00e9", 1, "", L"/forward",
         "{service}/Import/Tables", "", value::object(), false, "/Import/Tables", "",
         "Bearer tok-\xc3\xa9", json, "{}"},
        {"proxy: null is a body", L"", 0, "", L"/forward", "{service}/Import/Tables/x", "",
         value::null(), true, "/forward/Import/Tables/x", proxyQuery + "windows", "",
         json + "; charset=utf-8", "null"},
        {"proxy: number 0 means no body, lxauth for tokens", L"", 1, "", L"/forward",
         "{service}/Import/Tables/x", "", value::number(0), true, "/forward/Import/Tables/x",
         proxyQuery + "oauth", "", "", ""},
        // Only the endpoint's path travels; its own host and port are never contacted.
        {"proxy: the endpoint's path below the proxy's base and forwarding path", L"", 7, "/gate",
         L"fwd path", "http://127.0.0.3:9/Import/Tables/Sales%20Q1/End", "", value::object(), true,
         "/gate/fwd%20path/Import/Tables/Sales%20Q1/End", proxyQuery + "windows", "",
         json + "; charset=utf-8", "{}"},
        {"proxy: the request's relative address behind the endpoint", L"", 0, "", L"/forward",
         "{service}", "/Import/Connect", value::number(0), true, "/forward/Import/Connect",
         proxyQuery + "windows", "", "", ""},
        {"plain: non-ASCII text", L"", -1, "", L"", "{service}/Import/Tables/x", "",
         value::string(ToStringT(std::wstring(L"Z\u00fcrich \U0001F600"))), false,
         "/Import/Tables/x", "", "", json, "\"Z\xc3\xbcrich \xf0\x9f\x98\x80\""},
        // Local addresses are sent once, without authentication. cpprestsdk lower-cases the host
        // while parsing, so LOCALHOST is local by the time the pipeline looks at the address.
        {"plain: localhost", L"", -1, "", L"", "http://localhost:{port}/any/path", "",
         value::null(), false, "/any/path", "", "", json, "null"},
        {"plain: LOCALHOST", L"", -1, "", L"", "http://LOCALHOST:{port}/any/path", "",
         value::number(0), false, "/any/path", "", "", "", ""},
    };
    for (const Case& c : cases) {
        RecordingServer service;
        RecordingServer proxy;
        AuthenticationSettings settings;
        settings.accessToken = c.token;
        if (c.proxyAuthentication >= 0) {
            settings.proxyConfiguration.proxyBaseUri =
                CString((proxy.BaseUrl() + c.proxyBase).c_str());
            settings.proxyConfiguration.proxyPath = c.proxyPath;
            settings.proxyConfiguration.clientName = L"Z\u00f6e & co";
            settings.proxyConfiguration.serverName = L"http://repo.example:8080";
            settings.proxyConfiguration.authenticationType = c.proxyAuthentication;
        }
        std::string endpoint = c.endpoint;
        for (const auto& [marker, text] :
             {std::pair<std::string, std::string>{"{service}", service.BaseUrl()},
              {"{port}", std::to_string(service.Port())}}) {
            if (endpoint.find(marker) != std::string::npos) {
                endpoint.replace(endpoint.find(marker), marker.size(), text);
            }
        }
        web::http::client::http_client client{
            web::uri(utility::conversions::to_string_t(endpoint))};
        web::http::http_request request(web::http::methods::POST);
        if (*c.requestUri != '\0') {
            request.set_request_uri(utility::conversions::to_string_t(c.requestUri));
        }
        if (*c.token != L'\0') {
            request.headers().add(U("Authorization"), U("Basic stale")); // replaced, never added to
        }
        EXPECT_EQ(ExecuteRequest(settings, client, request, c.body).get().status_code(), 200)
            << "case: " << c.name;

        EXPECT_EQ((c.atProxy ? service : proxy).Requests().size(), 0u) << "case: " << c.name;
        const auto requests = (c.atProxy ? proxy : service).Requests();
        ASSERT_EQ(requests.size(), 1u) << "case: " << c.name;
        const auto& r = requests[0];
        EXPECT_EQ(r.method, "POST") << "case: " << c.name;
        EXPECT_EQ(r.path, c.path) << "case: " << c.name;
        EXPECT_EQ(r.query, c.query) << "case: " << c.name;
        EXPECT_EQ(r.HeaderCount("Authorization"), c.authorization.empty() ? 0u : 1u)
            << "case: " << c.name;
        EXPECT_EQ(r.HeaderValue("Authorization").value_or(""), c.authorization)
            << "case: " << c.name;
        EXPECT_EQ(r.HeaderCount("Content-Type"), c.contentType.empty() ? 0u : 1u)
            << "case: " << c.name;
        EXPECT_EQ(r.HeaderValue("Content-Type").value_or(""), c.contentType) << "case: " << c.name;
        EXPECT_EQ(r.body, c.sent) << "case: " << c.name;
    }
}

} // namespace
