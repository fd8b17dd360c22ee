#include "Introspection.h"

#include "Base64.h"
#include "ClientCredentials.h"
#include "HttpClient.h"
#include "Url.h"

#include <nlohmann/json.hpp>

#include <ctime>
#include <stdexcept>

namespace lxrepo {

namespace {

constexpr std::chrono::seconds keepAnswers{30};
constexpr std::size_t maxKnownTokens = 10000;

} // namespace

Introspection::Introspection(IntrospectionSettings settings) : settings_(std::move(settings)) {
    if (!ParseBaseUrl(settings_.url)) {
        throw std::invalid_argument("--introspection-url needs an http:// or https:// URL, not " +
                                    settings_.url);
    }
}

Authentication Introspection::Authenticate(const Request& request, ConnectionState&) {
    const std::string header = HeaderValue(request, "Authorization");
    if (header.size() <= 7 || header.compare(0, 7, "Bearer ") != 0) {
        return {std::nullopt, Unauthorized(request, "Bearer", "a bearer token is required")};
    }
    const std::string token = header.substr(7);
    const auto now = std::chrono::steady_clock::now();
    std::string user;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = known_.find(token);
        if (found != known_.end() && now < found->second.until) {
            user = found->second.user;
        } else {
            auto until = now + keepAnswers;
            user = Ask(token, until);
            if (known_.size() >= maxKnownTokens) {
                known_.clear();
            }
            known_[token] = {user, until};
        }
    }
    if (user.empty()) {
        return {std::nullopt, Unauthorized(request, "Bearer error=\"invalid_token\"",
                                           "the bearer token is not active")};
    }
    return {user, std::nullopt};
}

// Runs under mutex_, so one token is asked about once however many requests carry it.
std::string Introspection::Ask(const std::string& token,
                               std::chrono::steady_clock::time_point& until) {
    const auto url = ParseBaseUrl(settings_.url);
    Request request(http::verb::post, url->path.empty() ? "/" : url->path, 11);
    request.set(http::field::content_type, "application/x-www-form-urlencoded");
    request.set(http::field::accept, "application/json");
    request.set(http::field::authorization,
                "Basic " + EncodeBase64(PercentEncode(settings_.clientId) + ":" +
                                        PercentEncode(settings_.clientSecret)));
    request.body() = FormEncode({{"token", token}, {"token_type_hint", "access_token"}});
    const Response answer = SendOnce(*url, request);
    const auto body = nlohmann::json::parse(answer.body(), nullptr, false);
    if (answer.result() != http::status::ok || !body.is_object()) {
        throw HttpError(http::status::bad_gateway, "token introspection failed with status " +
                                                       std::to_string(answer.result_int()) + ": " +
                                                       answer.body());
    }
    const auto active = body.find("active");
    if (active == body.end() || !active->is_boolean() || !active->get<bool>()) {
        return {};
    }
    const auto exp = body.find("exp");
    if (exp != body.end() && exp->is_number_integer()) {
        const auto left = std::chrono::seconds(exp->get<std::int64_t>() - std::time(nullptr));
        until = std::min(until, std::chrono::steady_clock::now() + left);
    }
    for (const char* claim : {"sub", "client_id"}) {
        const auto found = body.find(claim);
        if (found != body.end() && found->is_string() && !found->get<std::string>().empty()) {
            return found->get<std::string>();
        }
    }
    return {};
}

} // namespace lxrepo
