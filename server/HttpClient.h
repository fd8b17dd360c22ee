// Blocking HTTP/1.1 client for the server's own outgoing calls: the proxy's forwards, token
// introspection, the client-credentials grant and the identity pass-through.
#pragma once

#include "Http.h"
#include "Url.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>

#include <memory>

namespace lxrepo {

// One TCP connection to one origin, over TLS for https (the peer's certificate checked against
// OutgoingTlsContext, its name against the URL's host); the requests sent on it share it, which
// the NTLM handshake needs. Every failure is thrown as HttpError 502 naming the origin, since for
// our callers an unreachable upstream is a bad gateway.
class HttpConnection {
public:
    explicit HttpConnection(const BaseUrl& url);
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    // Sets Host and Content-Length, sends, and reads the whole answer.
    Response Send(Request& request);

private:
    template <class Stream> Response Exchange(Stream& stream, Request& request);

    BaseUrl url_;
    boost::asio::io_context context_;
    boost::asio::ip::tcp::socket socket_;
    std::shared_ptr<boost::asio::ssl::context> tls_;
    std::unique_ptr<boost::asio::ssl::stream<boost::asio::ip::tcp::socket&>> secure_;
    boost::beast::flat_buffer buffer_;
};

// A request on a connection of its own.
Response SendOnce(const BaseUrl& url, Request& request);

} // namespace lxrepo
