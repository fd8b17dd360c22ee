#include "client/RequestPipeline.h"

#include "auth/NtlmHandshake.h"
#include "auth/ProxyCall.h"
#include "client/TextConversion.h"

#include <cpprest/rawptrstream.h>

#include <cstdint>
#include <utility>

using web::http::header_names;
using web::http::http_request;
using web::http::http_response;
using web::http::client::http_client;

namespace {

// The number 0 serialises to exactly this; a JSON null is a body and goes out as "null".
bool MeansNoBody(const JsonText& body) { return body.Text() == "0"; }

void AttachJsonBody(http_request& request, JsonText body, const utility::string_t& contentType) {
    if (MeansNoBody(body)) {
        return;
    }
    // set_body names a content type of its own but keeps one that is already there, so the
    // header set first is the one that goes out. Owned text is moved into the request's stream
    // and borrowed text is read from where it lies: a chunk's body is never held twice.
    request.headers().set_content_type(contentType);
    if (body.IsBorrowed()) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(body.borrowed.data());
        request.set_body(Concurrency::streams::rawptr_stream<std::uint8_t>::open_istream(
                             bytes, body.borrowed.size()),
                         body.borrowed.size(), U("application/json"));
    } else {
        request.set_body(std::move(body.utf8), "application/json");
    }
}

bool IsLocalEndpoint(const http_client& client) {
    // Case-sensitive on purpose; cpprestsdk has lower-cased the host already.
    const utility::string_t address = client.base_uri().to_string();
    return address.find(U("://localhost")) != utility::string_t::npos ||
           address.find(U("://127.0.0.1")) != utility::string_t::npos;
}

pplx::task<http_response> SendPlain(http_client& client, http_request& request) {
    return client.request(request);
}

pplx::task<http_response> SendWithBearerToken(const AuthenticationSettings& settings,
                                              http_client& client, http_request& request,
                                              JsonText body) {
    AttachJsonBody(request, std::move(body), U("application/json"));
    request.headers().remove(header_names::authorization);
    utility::string_t token = ToStringT(settings.accessToken);
    utility::string_t value = U("Bearer ");
    value += token;
    request.headers().add(header_names::authorization, value);
    WipeSecret(token);
    WipeSecret(value);
    return client.request(request);
}

// The endpoint's path travels behind the proxy's forwarding path; its scheme, host and port are
// replaced by the proxy's, and the proxy learns the real target from the query.
pplx::task<http_response> SendThroughAuthenticationProxy(const AuthenticationSettings& settings,
                                                         http_client& client, http_request& request,
                                                         JsonText body) {
    const CAuthenticationProxyConfiguration& proxy = settings.proxyConfiguration;
    AttachJsonBody(request, std::move(body), U("application/json; charset=utf-8"));
    web::uri_builder address(web::uri(ToStringT(proxy.proxyBaseUri)));
    address.append_path(ToStringT(proxy.proxyPath), true);
    address.append_path(client.base_uri().path());
    address.append_query(U("lxclient"), ToStringT(proxy.clientName));
    address.append_query(U("lxserver"), ToStringT(proxy.serverName));
    address.append_query(U("lxauth"),
                         utility::string_t(ProxyAuthenticationKind(proxy.authenticationType)));
    // The operation's client settings (only its transfer chunk size ever differs from the
    // default) carry over to the client that goes through the proxy.
    http_client proxyClient(address.to_uri(), client.client_config());
    return proxyClient.request(request);
}

pplx::task<http_response> SendWithNtlmHandshake(http_client& client, http_request& request,
                                                JsonText body) {
    AttachJsonBody(request, std::move(body), U("application/json"));
    if (IsLocalEndpoint(client)) {
        return SendPlain(client, request);
    }
    return RunNtlmHandshake(client, request);
}

} // namespace

pplx::task<http_response> ExecuteRequest(const AuthenticationSettings& settings,
                                         http_client& client, http_request& request,
                                         JsonText body) {
    if (!settings.accessToken.empty()) {
        return SendWithBearerToken(settings, client, request, std::move(body));
    }
    if (!settings.proxyConfiguration.proxyBaseUri.IsEmpty()) {
        return SendThroughAuthenticationProxy(settings, client, request, std::move(body));
    }
    return SendWithNtlmHandshake(client, request, std::move(body));
}

pplx::task<http_response> ExecuteRequest(const AuthenticationSettings& settings,
                                         http_client& client, http_request& request,
                                         const web::json::value& body) {
    // The value's own comparison decides, as it always has; "0" then carries that decision.
    JsonText text{body == web::json::value::number(0)
                      ? std::string("0")
                      : utility::conversions::to_utf8string(body.serialize())};
    return ExecuteRequest(settings, client, request, std::move(text));
}
