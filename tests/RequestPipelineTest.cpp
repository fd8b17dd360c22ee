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

// Which server got the request, and what of it: the target, the headers the ways of sending
// set (each as often as it came), the body.
std::string Wire(const RecordingServer& service, const RecordingServer& proxy) {
    std::string wire;
    for (const RecordingServer* server : {&service, &proxy}) {
        for (const auto& r : server->Requests()) {
            wire += (server == &proxy ? "proxy " : "service ") + r.method + " " + r.target;
            for (const auto& header : r.headers) {
                if (header.name == "Authorization" || header.name == "Content-Type") {
                    wire += ", " + header.name + ": " + header.value;
                }
            }
            wire += r.body.empty() ? "" : ", " + r.body;
        }
    }
    return wire;
}

TEST(RequestPipeline, SendsByTheWayTheSettingsChoose) {
    struct Case {
        const char* name;
        const wchar_t* token; // non-empty: the bearer way, whatever else is set
        int proxyType;        // -1: no proxy configured
        std::string proxyBase;
        const wchar_t* proxyPath;
        std::string endpoint; // "{port}" stands for the service's port
        const char* requestUri;
        value body;
        std::string wire;
    };
    const std::string query =
        "lxclient=Z%C3%B6e%20%26%20co&lxserver=http://repo.example:8080&lxauth=";
    const std::string service = "http://127.0.0.1:{port}";
    const std::string proxyJson = ", Content-Type: application/json; charset=utf-8";
    const Case cases[] = {
        // A stale Authorization header is replaced, not added to.
        {"bearer: number 0 means no body", L"tok-123", -1, "", L"", service + "/Import/T", "",
         value::number(0), "service POST /Import/T, Authorization: Bearer tok-123"},
        {"bearer: non-ASCII token, wins over a configured proxy", L"tok-\u00e9", 1, "", L"/f",
         service + "/Import/T", "", value::object(),
         "service POST /Import/T, Authorization: Bearer tok-\xc3\xa9, Content-Type: "
         "application/json, {}"},
        {"proxy: null is a body", L"", 0, "", L"/forward", service + "/Import/T", "", value::null(),
         "proxy POST /forward/Import/T?" + query + "windows" + proxyJson + ", null"},
        {"proxy: number 0 means no body, lxauth for tokens", L"", 1, "", L"/forward",
         service + "/Import/T", "", value::number(0),
         "proxy POST /forward/Import/T?" + query + "oauth"},
        // Only the endpoint's path travels; its own host and port are never contacted.
        {"proxy: the endpoint's path below the proxy's base and forwarding path", L"", 7, "/gate",
         L"fwd path", "http://127.0.0.3:9/Import/Tables/Sales%20Q1/End", "", value::object(),
         "proxy POST /gate/fwd%20path/Import/Tables/Sales%20Q1/End?" + query + "windows" +
             proxyJson + ", {}"},
        {"proxy: the request's relative address behind the endpoint", L"", 0, "", L"/forward",
         service, "/Import/Connect", value::number(0),
         "proxy POST /forward/Import/Connect?" + query + "windows"},
        {"plain: non-ASCII text", L"", -1, "", L"", service + "/Import/T", "",
         value::string(ToStringT(std::wstring(L"Z\u00fcrich \U0001F600"))),
         "service POST /Import/T, Content-Type: application/json, \"Z\xc3\xbcrich "
         "\xf0\x9f\x98\x80\""},
        // Local addresses are sent once, without authentication. cpprestsdk lower-cases the host
        // while parsing, so LOCALHOST is local by the time the pipeline looks at the address.
        {"plain: localhost", L"", -1, "", L"", "http://localhost:{port}/a", "", value::null(),
         "service POST /a, Content-Type: application/json, null"},
        {"plain: LOCALHOST", L"", -1, "", L"", "http://LOCALHOST:{port}/a", "", value::number(0),
         "service POST /a"},
    };
    for (const Case& c : cases) {
        RecordingServer service;
        RecordingServer proxy;
        AuthenticationSettings settings;
        settings.accessToken = c.token;
        if (c.proxyType >= 0) {
            settings.proxyConfiguration.proxyBaseUri =
                CString((proxy.BaseUrl() + c.proxyBase).c_str());
            settings.proxyConfiguration.proxyPath = c.proxyPath;
            settings.proxyConfiguration.clientName = L"Z\u00f6e & co";
            settings.proxyConfiguration.serverName = L"http://repo.example:8080";
            settings.proxyConfiguration.authenticationType = c.proxyType;
        }
        std::string endpoint = c.endpoint;
        if (endpoint.find("{port}") != std::string::npos) {
            endpoint.replace(endpoint.find("{port}"), 6, std::to_string(service.Port()));
        }
        web::http::client::http_client client{
            web::uri(utility::conversions::to_string_t(endpoint))};
        web::http::http_request request(web::http::methods::POST);
        if (*c.requestUri != '\0') {
            request.set_request_uri(utility::conversions::to_string_t(c.requestUri));
        }
        if (*c.token != L'\0') {
            request.headers().add(U("Authorization"), U("Basic stale"));
        }
        EXPECT_EQ(ExecuteRequest(settings, client, request, c.body).get().status_code(), 200)
            << "case: " << c.name;
        EXPECT_EQ(Wire(service, proxy), c.wire) << "case: " << c.name;
    }
}

} // namespace
