// A small HTTP/1.1 server: one thread per connection, blocking Beast reads and writes. Each
// connection keeps its own state (the NTLM handshake is bound to it), and a request that
// forwards to this same process never waits for a free worker.
#pragma once

#include "Http.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/flat_buffer.hpp>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace lxrepo {

class HttpServer {
public:
    using Handler = std::function<Response(Request&, ConnectionState&)>;

    struct Settings {
        std::string address = "127.0.0.1";
        unsigned short port = 0;
        std::size_t maxBodyBytes = 256 * 1024 * 1024;
        std::size_t maxConnections = 256;
        int idleSeconds = 120;
        // Set: every connection speaks TLS (see Tls.h); a client that does not is dropped.
        std::shared_ptr<boost::asio::ssl::context> tls;
    };

    // Binds and listens at once (so Port() is known); serving starts with Start().
    // Throws boost::system::system_error when the address cannot be bound.
    HttpServer(Settings settings, Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    unsigned short Port() const { return port_; }
    bool Secure() const { return settings_.tls != nullptr; }
    void Start();
    // Stops accepting, ends every connection's wait for its next request, lets requests that
    // are being handled finish, and returns when every connection thread has ended.
    void Stop();

private:
    // Each connection has an io_context of its own, so a connection thread that outlives Stop()
    // by a few instructions touches nothing of this object.
    struct Connection {
        std::unique_ptr<boost::asio::io_context> context;
        boost::asio::ip::tcp::socket socket;
    };

    void AcceptLoop();
    void Serve(Connection connection, std::uint64_t id);
    template <class Stream> void ServeRequests(Stream& stream, ConnectionState& state);
    // The next request of a connection; nullopt when the connection is over (a broken or
    // oversized request has then been answered).
    template <class Stream>
    std::optional<Request> ReadRequest(Stream& stream, boost::beast::flat_buffer& buffer);

    Settings settings_;
    Handler handler_;
    boost::asio::io_context context_;
    boost::asio::ip::tcp::acceptor acceptor_;
    unsigned short port_ = 0;
    std::thread acceptThread_;
    std::atomic<bool> stopping_{false};

    std::mutex mutex_;
    std::condition_variable allEnded_;
    std::map<std::uint64_t, int> openSockets_; // connection id -> native handle
    std::uint64_t nextId_ = 1;
};

} // namespace lxrepo
