#include "ClientCredentials.h"

#include "Base64.h"
#include "HttpClient.h"
#include "Url.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace lxrepo {

std::string FormEncode(const std::vector<std::pair<std::string, std::string>>& fields) {
    std::string form;
    for (const auto& [name, value] : fields) {
        form += (form.empty() ? "" : "&") + PercentEncode(name) + "=" + PercentEncode(value);
    }
    return form;
}

ClientCredentials::ClientCredentials(ClientCredentialsSettings settings)
    : settings_(std::move(settings)) {}

std::string ClientCredentials::AccessToken() {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (!token_.empty() && now < renewAt_) {
        return token_;
    }
    const auto url = ParseBaseUrl(settings_.tokenUrl);
    if (!url) {
        throw HttpError(http::status::bad_gateway, "the proxy has no usable token URL");
    }
    std::vector<std::pair<std::string, std::string>> fields = {
        {"grant_type", "client_credentials"}};
    if (!settings_.scope.empty()) {
        fields.emplace_back("scope", settings_.scope);
    }
    if (!settings_.resource.empty()) {
        fields.emplace_back("resource", settings_.resource);
    }
    Request request(http::verb::post, url->path.empty() ? "/" : url->path, 11);
    request.set(http::field::content_type, "application/x-www-form-urlencoded");
    request.set(http::field::accept, "application/json");
    request.set(http::field::authorization,
                "Basic " + EncodeBase64(PercentEncode(settings_.clientId) + ":" +
                                        PercentEncode(settings_.clientSecret)));
    request.body() = FormEncode(fields);
    const Response answer = SendOnce(*url, request);
    const auto body = nlohmann::json::parse(answer.body(), nullptr, false);
    if (answer.result() != http::status::ok || !body.is_object() ||
        !body.contains("access_token") || !body["access_token"].is_string()) {
        throw HttpError(http::status::bad_gateway,
                        "the OpenID provider gave the proxy no token (status " +
                            std::to_string(answer.result_int()) + "): " + answer.body());
    }
    token_ = body["access_token"].get<std::string>();
    const auto expires = body.find("expires_in");
    const int lifetime =
        expires != body.end() && expires->is_number_integer() ? expires->get<int>() : 60;
    renewAt_ = now + std::chrono::seconds(std::max(0, lifetime - 30));
    return token_;
}

} // namespace lxrepo
