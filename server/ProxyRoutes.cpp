#include "ProxyRoutes.h"

#include "HttpClient.h"

#include <nlohmann/json.hpp>

#include <stdexcept>

namespace lxrepo {

namespace {

constexpr const char* clientParameter = "lxclient";
constexpr const char* serverParameter = "lxserver";
constexpr const char* authParameter = "lxauth";

bool IsProxyParameter(const std::string& name) {
    return name == clientParameter || name == serverParameter || name == authParameter;
}

// The query without the proxy's own parameters, pieces kept as they came.
std::string ServiceQuery(const std::string& query) {
    std::string kept;
    std::size_t start = 0;
    while (start < query.size()) {
        const std::size_t end = std::min(query.find('&', start), query.size());
        const std::string piece = query.substr(start, end - start);
        start = end + 1;
        const auto name = PercentDecode(piece.substr(0, piece.find('=')));
        if (!piece.empty() && !(name && IsProxyParameter(*name))) {
            kept += (kept.empty() ? "" : "&") + piece;
        }
    }
    return kept;
}

Response Relay(const Request& request, const Response& answer) {
    Response response(answer.result(), request.version());
    const auto type = answer.find(http::field::content_type);
    if (type != answer.end()) {
        response.set(http::field::content_type, type->value());
    }
    response.keep_alive(request.keep_alive());
    response.body() = answer.body();
    response.prepare_payload();
    return response;
}

} // namespace

struct ProxyRoutes::Call {
    std::string client;
    std::string server;
    std::string auth;
    bool hasServer = false;
    bool hasAuth = false;
};

ProxyRoutes::ProxyRoutes(ProxySettings settings, std::shared_ptr<ClientCredentials> tokens)
    : settings_(std::move(settings)), tokens_(std::move(tokens)) {
    for (const auto& server : settings_.allowedServers) {
        const auto url = ParseBaseUrl(server);
        if (!url) {
            throw std::invalid_argument("--proxy-allow needs an http:// or https:// URL, not " +
                                        server);
        }
        allowedOrigins_.insert(url->Origin());
    }
}

bool ProxyRoutes::Owns(const std::string& path) const {
    return path == settings_.registrationPath || path == settings_.unregistrationPath ||
           path == settings_.connectPath || path.rfind(settings_.forwardPrefix + "/", 0) == 0 ||
           path == settings_.forwardPrefix;
}

Response ProxyRoutes::Handle(const Request& request, const Target& target) {
    const auto parameters = ParseQuery(target.query);
    if (!parameters) {
        throw HttpError(http::status::bad_request, "malformed query string");
    }
    Call call;
    bool hasClient = false;
    for (const auto& [name, value] : *parameters) {
        if (name == clientParameter) {
            call.client = value;
            hasClient = true;
        } else if (name == serverParameter) {
            call.server = value;
            call.hasServer = true;
        } else if (name == authParameter) {
            call.auth = value;
            call.hasAuth = true;
        }
    }
    if (!hasClient) {
        throw HttpError(http::status::bad_request, "the query lacks \"lxclient\"");
    }
    if (target.path == settings_.unregistrationPath) {
        return Unregister(request, call);
    }
    if (!call.hasServer) {
        throw HttpError(http::status::bad_request, "the query lacks \"lxserver\"");
    }
    if (target.path == settings_.registrationPath) {
        return Register(request, call);
    }
    if (!call.hasAuth) {
        throw HttpError(http::status::bad_request, "the query lacks \"lxauth\"");
    }
    if (call.auth != "windows" && call.auth != "oauth") {
        throw HttpError(http::status::bad_request,
                        "\"lxauth\" must be windows or oauth, not \"" + call.auth + "\"");
    }
    if (target.path == settings_.connectPath) {
        return Connect(request, call);
    }
    return Forward(request, target, call);
}

// Also the version call: the client asks for the version with the registration path.
Response ProxyRoutes::Register(const Request& request, const Call& call) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        clients_[call.client] = call.server;
    }
    return JsonResponse(request, http::status::ok,
                        nlohmann::json{{"version", settings_.version}}.dump());
}

Response ProxyRoutes::Unregister(const Request& request, const Call& call) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        clients_.erase(call.client);
    }
    return JsonResponse(request, http::status::ok, "{}");
}

void ProxyRoutes::RequireRegistered(const std::string& client) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (clients_.count(client) == 0) {
        throw HttpError(http::status::unauthorized,
                        "the client \"" + client + "\" is not registered with the proxy");
    }
}

BaseUrl ProxyRoutes::AllowedService(const Call& call, http::status refusal) const {
    const auto url = ParseBaseUrl(call.server);
    if (!url) {
        throw HttpError(http::status::bad_request,
                        "\"lxserver\" must be an http:// or https:// URL, not \"" + call.server +
                            "\"");
    }
    if (allowedOrigins_.count(url->Origin()) == 0) {
        throw HttpError(refusal, "the proxy does not forward to " + url->Origin());
    }
    return *url;
}

// Registered and allowed is not enough: the proxy also proves that the service accepts its
// credentials, so a client learns of a misconfigured proxy at connection time.
Response ProxyRoutes::Connect(const Request& request, const Call& call) {
    RequireRegistered(call.client);
    const BaseUrl service = AllowedService(call, http::status::unauthorized);
    Request probe(http::verb::get, "/Import/Connect", 11);
    const Response answer = SendToService(service, call.auth, call.client, std::move(probe));
    if (answer.result() == http::status::ok) {
        return JsonResponse(request, http::status::ok, answer.body());
    }
    if (answer.result() == http::status::unauthorized) {
        throw HttpError(http::status::unauthorized, "the service at " + service.Origin() +
                                                        " refused the proxy's " + call.auth +
                                                        " credentials");
    }
    throw HttpError(http::status::bad_gateway, "the service at " + service.Origin() +
                                                   " answered the connection test with " +
                                                   std::to_string(answer.result_int()));
}

Response ProxyRoutes::Forward(const Request& request, const Target& target, const Call& call) {
    const BaseUrl service = AllowedService(call, http::status::forbidden);
    RequireRegistered(call.client);
    std::string path = target.path.substr(settings_.forwardPrefix.size());
    if (path.empty()) {
        path = "/";
    }
    const std::string query = ServiceQuery(target.query);
    Request outgoing(request.method(), path + (query.empty() ? "" : "?" + query), 11);
    for (const auto field : {http::field::content_type, http::field::accept}) {
        const auto found = request.find(field);
        if (found != request.end()) {
            outgoing.set(field, found->value());
        }
    }
    outgoing.body() = request.body();
    return Relay(request, SendToService(service, call.auth, call.client, std::move(outgoing)));
}

Response ProxyRoutes::SendToService(const BaseUrl& service, const std::string& authKind,
                                    const std::string& client, Request outgoing) {
    outgoing.set("X-Lxrepo-Client", PercentEncode(client));
    HttpConnection connection(service);
    if (authKind == "windows") {
        return SendWithNtlm(connection, std::move(outgoing), service.host,
                            settings_.ntlmCredentials);
    }
    if (!tokens_) {
        throw HttpError(http::status::bad_gateway,
                        "the proxy has no OpenID client configured for lxauth=oauth");
    }
    outgoing.set(http::field::authorization, "Bearer " + tokens_->AccessToken());
    return connection.Send(outgoing);
}

} // namespace lxrepo
