// What the request pipeline puts on the wire on the bearer, proxy and plain ways of sending (the
// NTLM way has its own test).
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/RequestPipeline.h"
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
        const wchar_t* token;  // non-empty: the bearer way, whatever else is set
        std::string proxyBase; // "": no proxy configured; its forwarding path is "fwd path"
        std::string endpoint;
        value body;
        std::string wire;
    };
    RecordingServer service;
    RecordingServer proxy;
    const std::string at = service.BaseUrl();
    const Case cases[] = {
        // A stale Authorization header is replaced, not added to.
        {"bearer: number 0 means no body", L"tok-123", "", at + "/Import/T", value::number(0),
         "service POST /Import/T, Authorization: Bearer tok-123"},
        {"bearer: non-ASCII token, wins over a configured proxy", L"tok-\u00e9", proxy.BaseUrl(),
         at + "/Import/T", value::object(),
         "service POST /Import/T, Authorization: Bearer tok-\xc3\xa9, Content-Type: "
         "application/json, {}"},
        // Only the endpoint's path travels; its own host and port are never contacted.
        {"proxy: the endpoint's path below the proxy's base and forwarding path, lxauth for tokens",
         L"", proxy.BaseUrl() + "/gate", "http://127.0.0.3:9/Import/Tables/Sales%20Q1/End",
         value::null(),
         "proxy POST /gate/fwd%20path/Import/Tables/Sales%20Q1/End?lxclient=Z%C3%B6e%20%26%20co&"
         "lxserver=http://repo.example:8080&lxauth=oauth, Content-Type: application/json; "
         "charset=utf-8, null"},
        // Local addresses are sent once, without authentication. cpprestsdk lower-cases the host
        // while parsing, so LOCALHOST is local by the time the pipeline looks at the address.
        {"plain: LOCALHOST", L"", "", "http://LOCALHOST:" + std::to_string(service.Port()) + "/a",
         value::number(0), "service POST /a"},
    };
    for (const Case& c : cases) {
        service.Clear();
        proxy.Clear();
        AuthenticationSettings settings;
        settings.accessToken = c.token;
        if (!c.proxyBase.empty()) {
            settings.proxyConfiguration.proxyBaseUri = CString(c.proxyBase.c_str());
            settings.proxyConfiguration.proxyPath = L"fwd path";
            settings.proxyConfiguration.clientName = L"Z\u00f6e & co";
            settings.proxyConfiguration.serverName = L"http://repo.example:8080";
            settings.proxyConfiguration.authenticationType = 1;
        }
        web::http::client::http_client client{
            web::uri(utility::conversions::to_string_t(c.endpoint))};
        web::http::http_request request(web::http::methods::POST);
        if (*c.token != L'\0') {
            request.headers().add(U("Authorization"), U("Basic stale"));
        }
        EXPECT_EQ(ExecuteRequest(settings, client, request, c.body).get().status_code(), 200)
            << "case: " << c.name;
        EXPECT_EQ(Wire(service, proxy), c.wire) << "case: " << c.name;
    }
}

} // namespace
