#include "Http.h"

#include <nlohmann/json.hpp>

namespace lxrepo {

Response JsonResponse(const Request& request, http::status status, std::string json) {
    Response response(status, request.version());
    response.set(http::field::content_type, "application/json");
    response.keep_alive(request.keep_alive());
    response.body() = std::move(json);
    response.prepare_payload();
    return response;
}

Response ErrorResponse(const Request& request, http::status status, std::string_view message) {
    const nlohmann::json body = {{"error", message}};
    // Messages quote client input, which need not be valid UTF-8.
    return JsonResponse(request, status,
                        body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

std::string HeaderValue(const Request& request, std::string_view name) {
    const auto found = request.find(boost::beast::string_view(name.data(), name.size()));
    return found == request.end() ? std::string() : std::string(found->value());
}

} // namespace lxrepo
