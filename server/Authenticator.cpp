#include "Authenticator.h"

namespace lxrepo {

Response Unauthorized(const Request& request, const std::string& wwwAuthenticate,
                      const std::string& message) {
    Response response = ErrorResponse(request, http::status::unauthorized, message);
    response.set(http::field::www_authenticate, wwwAuthenticate);
    return response;
}

} // namespace lxrepo
