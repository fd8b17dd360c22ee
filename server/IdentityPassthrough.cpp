#include "IdentityPassthrough.h"

#include "HttpClient.h"

#include <boost/beast/core/string.hpp>

#include <stdexcept>

namespace lxrepo {

namespace {

// Headers of one hop only (RFC 9110 7.6.1), plus the ones the client library recomputes.
bool HopByHop(boost::beast::string_view name) {
    for (const char* hop : {"connection", "keep-alive", "proxy-connection", "te", "trailer",
                            "transfer-encoding", "upgrade", "host", "content-length"}) {
        if (boost::beast::iequals(name, hop)) {
            return true;
        }
    }
    return false;
}

template <class Message, class Source> void CopyHeaders(Message& to, const Source& from) {
    for (const auto& field : from) {
        if (!HopByHop(field.name_string())) {
            to.insert(field.name_string(), field.value());
        }
    }
}

} // namespace

IdentityPassthrough::IdentityPassthrough(const std::string& upstream) {
    const auto url = ParseBaseUrl(upstream);
    if (!url) {
        throw std::invalid_argument("--identity-upstream needs an http:// or https:// URL, not " +
                                    upstream);
    }
    upstream_ = *url;
}

bool IdentityPassthrough::Owns(const std::string& path) {
    const std::string base = prefix;
    return path == base || path.rfind(base + "/", 0) == 0;
}

Response IdentityPassthrough::Handle(const Request& request, const Target& target,
                                     bool secure) const {
    std::string path = upstream_.path + target.path.substr(std::string(prefix).size());
    if (path.empty()) {
        path = "/";
    }
    Request outgoing(request.method(), path + (target.query.empty() ? "" : "?" + target.query), 11);
    CopyHeaders(outgoing, request);
    const std::string host = HeaderValue(request, "Host");
    if (!host.empty()) {
        outgoing.set("X-Forwarded-Host", host);
    }
    outgoing.set("X-Forwarded-Proto", secure ? "https" : "http");
    outgoing.body() = request.body();
    const Response answer = SendOnce(upstream_, outgoing);

    Response response(answer.result(), request.version());
    CopyHeaders(response, answer);
    response.keep_alive(request.keep_alive());
    response.body() = answer.body();
    response.prepare_payload();
    return response;
}

} // namespace lxrepo
