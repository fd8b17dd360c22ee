#include "HttpClient.h"

#include "Tls.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>

#include <sys/socket.h>
#include <sys/time.h>

namespace lxrepo {

namespace beast = boost::beast;
namespace ssl = boost::asio::ssl;
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
    if (!ec) {
        timeval timeout{};
        timeout.tv_sec = answerTimeoutSeconds;
        setsockopt(socket_.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
    if (!ec && url_.secure) {
        tls_ = OutgoingTlsContext();
        secure_ = std::make_unique<ssl::stream<tcp::socket&>>(socket_, *tls_);
        // A bracketed IPv6 literal is checked, and named, without its brackets.
        std::string host = url_.host;
        if (host.size() > 1 && host.front() == '[') {
            host = host.substr(1, host.size() - 2);
        }
        SSL_set_tlsext_host_name(secure_->native_handle(), host.c_str());
        secure_->set_verify_callback(ssl::host_name_verification(host));
        secure_->handshake(ssl::stream_base::client, ec);
    }
    if (ec) {
        throw HttpError(http::status::bad_gateway,
                        "cannot reach " + url_.Origin() + ": " + ec.message());
    }
}

Response HttpConnection::Send(Request& request) {
    return secure_ ? Exchange(*secure_, request) : Exchange(socket_, request);
}

template <class Stream> Response HttpConnection::Exchange(Stream& stream, Request& request) {
    request.set(http::field::host, url_.host + ":" + url_.port);
    request.prepare_payload();
    beast::error_code ec;
    http::write(stream, request, ec);
    http::response_parser<http::string_body> parser;
    parser.body_limit(maxAnswerBytes);
    if (!ec) {
        http::read(stream, buffer_, parser, ec);
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
