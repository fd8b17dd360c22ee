// The HTTP vocabulary every part of the server shares.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http.hpp>

#include <any>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace lxrepo {

namespace http = boost::beast::http;

using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

// State that lives as long as one TCP connection: the NTLM handshake is bound to it.
struct ConnectionState {
    std::uint64_t id = 0;
    std::any authentication;
    // For a handler that answers below HTTP (the tests' recording server sends broken answers);
    // once it shuts the socket down, the connection ends after the handler returns.
    boost::asio::ip::tcp::socket* socket = nullptr;
    bool secure = false; // TLS
};

// Thrown anywhere below a route; the dispatcher turns it into {"error": message}.
class HttpError : public std::runtime_error {
public:
    HttpError(http::status status, const std::string& message)
        : std::runtime_error(message), status_(status) {}
    http::status Status() const { return status_; }

private:
    http::status status_;
};

// An answer with a JSON body; "version" of the request is taken over so keep-alive works.
Response JsonResponse(const Request& request, http::status status, std::string json);
// {"error": message}
Response ErrorResponse(const Request& request, http::status status, std::string_view message);

// The value of a header, or "" when it is absent.
std::string HeaderValue(const Request& request, std::string_view name);

} // namespace lxrepo
