#include "HttpServer.h"

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/string.hpp>

#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <exception>

namespace lxrepo {

namespace beast = boost::beast;
namespace ssl = boost::asio::ssl;
using boost::asio::ip::tcp;

namespace {

constexpr std::size_t maxHeaderBytes = 64 * 1024;
// After a 413 the rest of an oversized body is read and thrown away, up to this much, so that
// the client reads our answer instead of a connection reset.
constexpr std::size_t maxDrainBytes = 256 * 1024 * 1024;

void SetReceiveTimeout(int handle, int seconds) {
    timeval timeout{};
    timeout.tv_sec = seconds;
    setsockopt(handle, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

Response PlainError(http::status status, std::string_view message) {
    Request request;
    request.keep_alive(false);
    Response response = ErrorResponse(request, status, message);
    response.keep_alive(false);
    return response;
}

tcp::socket& Socket(tcp::socket& socket) { return socket; }
tcp::socket& Socket(ssl::stream<tcp::socket&>& stream) { return stream.next_layer(); }

// Over TLS the drained bytes are records, never decrypted: the answer is all that matters.
template <class Stream> void AnswerAndDrain(Stream& stream, const Response& response) {
    beast::error_code ec;
    http::write(stream, response, ec);
    tcp::socket& socket = Socket(stream);
    socket.shutdown(tcp::socket::shutdown_send, ec);
    SetReceiveTimeout(socket.native_handle(), 1);
    std::array<char, 64 * 1024> scratch{};
    std::size_t drained = 0;
    while (!ec && drained < maxDrainBytes) {
        drained += socket.read_some(boost::asio::buffer(scratch), ec);
    }
}

} // namespace

HttpServer::HttpServer(Settings settings, Handler handler)
    : settings_(std::move(settings)), handler_(std::move(handler)), acceptor_(context_) {
    const tcp::endpoint endpoint(boost::asio::ip::make_address(settings_.address), settings_.port);
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(tcp::acceptor::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen();
    port_ = acceptor_.local_endpoint().port();
}

HttpServer::~HttpServer() { Stop(); }

void HttpServer::Start() {
    acceptThread_ = std::thread([this] { AcceptLoop(); });
}

void HttpServer::Stop() {
    if (stopping_.exchange(true)) {
        return;
    }
    // Wakes the blocking accept(); closing the descriptor from here would race with it.
    ::shutdown(acceptor_.native_handle(), SHUT_RDWR);
    if (acceptThread_.joinable()) {
        acceptThread_.join();
    }
    std::unique_lock<std::mutex> lock(mutex_);
    // Only the reading side: a request being handled still gets its answer written.
    for (const auto& [id, handle] : openSockets_) {
        ::shutdown(handle, SHUT_RD);
    }
    allEnded_.wait(lock, [this] { return openSockets_.empty(); });
    beast::error_code ec;
    acceptor_.close(ec);
}

void HttpServer::AcceptLoop() {
    while (!stopping_) {
        auto context = std::make_unique<boost::asio::io_context>(1);
        tcp::socket socket(*context);
        beast::error_code ec;
        acceptor_.accept(socket, ec);
        if (ec) {
            if (stopping_) {
                return;
            }
            continue;
        }
        std::uint64_t id = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (openSockets_.size() < settings_.maxConnections) {
                id = nextId_++;
                openSockets_[id] = socket.native_handle();
            }
        }
        if (id == 0) {
            AnswerAndDrain(
                socket, PlainError(http::status::service_unavailable, "too many open connections"));
            continue;
        }
        std::thread([this, id, c = Connection{std::move(context), std::move(socket)}]() mutable {
            Serve(std::move(c), id);
        }).detach();
    }
}

template <class Stream>
std::optional<Request> HttpServer::ReadRequest(Stream& socket, beast::flat_buffer& buffer) {
    http::request_parser<http::string_body> parser;
    parser.header_limit(maxHeaderBytes);
    parser.body_limit(settings_.maxBodyBytes);
    beast::error_code ec;
    http::read_header(socket, buffer, parser, ec);
    if (!ec && beast::iequals(parser.get()[http::field::expect], "100-continue")) {
        http::response<http::empty_body> proceed(http::status::continue_, 11);
        http::write(socket, proceed, ec);
    }
    if (!ec) {
        http::read(socket, buffer, parser, ec);
    }
    // Beast refuses a Content-Length above the limit with the header, a chunked body on the way.
    if (ec == http::error::body_limit) {
        AnswerAndDrain(socket, PlainError(http::status::payload_too_large,
                                          "request body exceeds the limit of " +
                                              std::to_string(settings_.maxBodyBytes) + " bytes"));
        return std::nullopt;
    }
    const bool brokenRequest =
        ec && ec.category() == http::make_error_code(http::error::bad_target).category() &&
        ec != http::error::end_of_stream && ec != http::error::partial_message;
    if (brokenRequest) {
        AnswerAndDrain(socket, PlainError(http::status::bad_request,
                                          "malformed HTTP request: " + ec.message()));
    }
    if (ec) {
        return std::nullopt; // also the peer's close, the idle timeout and Stop()
    }
    return parser.release();
}

void HttpServer::Serve(Connection connection, std::uint64_t id) {
    tcp::socket& socket = connection.socket;
    SetReceiveTimeout(socket.native_handle(), settings_.idleSeconds);
    ConnectionState state;
    state.id = id;
    state.socket = &socket;
    beast::error_code ec;
    if (settings_.tls) {
        // The handshake runs here rather than in the accept loop, so a client that never
        // finishes it holds up only its own connection, for the idle time at most.
        ssl::stream<tcp::socket&> stream(socket, *settings_.tls);
        stream.handshake(ssl::stream_base::server, ec);
        if (!ec) {
            state.secure = true;
            ServeRequests(stream, state);
        }
    } else {
        ServeRequests(socket, state);
    }
    socket.shutdown(tcp::socket::shutdown_both, ec);
    // Closed under the lock: Stop() shuts down the descriptors it finds in openSockets_, and a
    // descriptor number closed outside it could already belong to someone else.
    std::lock_guard<std::mutex> lock(mutex_);
    socket.close(ec);
    openSockets_.erase(id);
    allEnded_.notify_all();
}

template <class Stream> void HttpServer::ServeRequests(Stream& socket, ConnectionState& state) {
    beast::flat_buffer buffer;
    beast::error_code ec;
    while (!stopping_ && !ec) {
        std::optional<Request> next = ReadRequest(socket, buffer);
        if (!next) {
            break;
        }
        Request& request = *next;
        Response response;
        try {
            response = handler_(request, state);
        } catch (const HttpError& error) {
            response = ErrorResponse(request, error.Status(), error.what());
        } catch (const std::exception& error) {
            response = ErrorResponse(request, http::status::internal_server_error, error.what());
        }
        const bool keepAlive = response.keep_alive() && request.keep_alive() && !stopping_;
        response.keep_alive(keepAlive);
        http::write(socket, response, ec);
        if (!keepAlive) {
            break;
        }
    }
}

} // namespace lxrepo
