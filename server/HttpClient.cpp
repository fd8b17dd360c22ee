#include "HttpClient.h"

#include <boost/asio/connect.hpp>

#include <sys/socket.h>
#include <sys/time.h>

namespace lxrepo {

namespace beast = boost::beast;
using boost::asio::ip::tcp;

namespace {

constexpr int answerTimeoutSeconds = 300;
constexpr std::uint64_t maxAnswerBytes = 1024ull * 1024 * 1024;

} // namespace

HttpConnection::HttpConnection(const BaseUrl& url) : url_(url), socket_(context_) {
    beast::error_code ec;
    tcp::resolver resolver(context_);
    const auto endpoints = resolver.resolve(url_.host, url_.port, ec);
    if (!ec) {
        boost::asio::connect(socket_, endpoints, ec);
    }
    if (ec) {
        throw HttpError(http::status::bad_gateway,
                        "cannot reach " + url_.Origin() + ": " + ec.message());
    }
    timeval timeout{};
    timeout.tv_sec = answerTimeoutSeconds;
    setsockopt(socket_.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

Response HttpConnection::Send(Request& request) {
    request.set(http::field::host, url_.host + ":" + url_.port);
    request.prepare_payload();
    beast::error_code ec;
    http::write(socket_, request, ec);
    http::response_parser<http::string_body> parser;
    parser.body_limit(maxAnswerBytes);
    if (!ec) {
        http::read(socket_, buffer_, parser, ec);
    }
    if (ec) {
        throw HttpError(http::status::bad_gateway,
                        "exchange with " + url_.Origin() + " failed: " + ec.message());
    }
    return parser.release();
}

Response SendOnce(const BaseUrl& url, Request& request) {
    HttpConnection connection(url);
    request.keep_alive(false);
    return connection.Send(request);
}

} // namespace lxrepo
