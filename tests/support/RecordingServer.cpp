#include "support/RecordingServer.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <exception>
#include <future>
#include <limits>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace testsupport {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;

namespace {

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
    return beast::iequals(beast::string_view(a.data(), a.size()), beast::string_view(b.data(), b.size()));
}

bool HasHeader(const std::vector<Header>& headers, std::string_view name) {
    for (const auto& h : headers) {
        if (EqualsIgnoreCase(h.name, name)) return true;
    }
    return false;
}

// How long a closing connection waits for the client to close its side before it is closed
// hard. Closing at once could reset the connection while the client still reads the answer.
constexpr std::chrono::seconds kLingerTimeout{2};
// Large enough for Negotiate/Kerberos tokens in one header.
constexpr std::uint32_t kHeaderLimit = 1u << 20;

}  // namespace

std::optional<std::string> RecordedRequest::HeaderValue(std::string_view name) const {
    for (const auto& h : headers) {
        if (EqualsIgnoreCase(h.name, name)) return h.value;
    }
    return std::nullopt;
}

std::size_t RecordedRequest::HeaderCount(std::string_view name) const {
    std::size_t n = 0;
    for (const auto& h : headers) {
        if (EqualsIgnoreCase(h.name, name)) ++n;
    }
    return n;
}

// Collects a request exactly as it arrives. Beast's own parser keeps fields in a container
// that groups repeated names together, which loses the arrival order; this one does not.
class RequestParser : public http::basic_parser<true> {
public:
    RecordedRequest request;

private:
    void on_request_impl(http::verb, beast::string_view method, beast::string_view target, int,
                         error_code&) override {
        request.method = std::string(method);
        request.target = std::string(target);
    }
    void on_response_impl(int, beast::string_view, int, error_code&) override {}
    void on_field_impl(http::field, beast::string_view name, beast::string_view value, error_code&) override {
        if (!headerDone_) request.headers.push_back({std::string(name), std::string(value)});  // not trailers
    }
    void on_header_impl(error_code&) override { headerDone_ = true; }
    void on_body_init_impl(const boost::optional<std::uint64_t>& length, error_code&) override {
        if (length) request.body.reserve(static_cast<std::size_t>(*length));
    }
    std::size_t on_body_impl(beast::string_view body, error_code&) override {
        request.body.append(body.data(), body.size());
        return body.size();
    }
    void on_chunk_header_impl(std::uint64_t, beast::string_view, error_code&) override {}
    std::size_t on_chunk_body_impl(std::uint64_t, beast::string_view body, error_code&) override {
        request.body.append(body.data(), body.size());
        return body.size();
    }
    void on_finish_impl(error_code&) override {}

    bool headerDone_ = false;
};

class Session;

struct RecordingServer::Impl {
    explicit Impl(std::string address) : bindAddress(std::move(address)), acceptor(ioc) {}

    // --- fixed after construction ---
    std::string bindAddress;
    unsigned short port = 0;

    // --- server thread only ---
    asio::io_context ioc;
    tcp::acceptor acceptor;
    std::vector<std::weak_ptr<Session>> sessions;
    bool stopping = false;
    std::thread thread;

    // --- shared, guarded by mutex ---
    mutable std::mutex mutex;
    mutable std::condition_variable arrived;
    std::vector<std::shared_ptr<const RecordedRequest>> requests;
    std::deque<ScriptedResponse> queue;
    ScriptedResponse defaultResponse;
    Handler handler;
    std::size_t connectionCount = 0;

    void Accept();
    void Record(std::shared_ptr<const RecordedRequest> request);
    ScriptedResponse Answer(const RecordedRequest& request, ConnectionContext& context);
    void StopOnServerThread();
};

// One accepted TCP connection: reads requests one after the other, answers each.
class Session : public std::enable_shared_from_this<Session> {
public:
    Session(RecordingServer::Impl& server, tcp::socket socket, std::size_t id)
        : server_(server), stream_(std::move(socket)) {
        context_.id = id;
    }

    void Start() { ReadHeader(); }

    // Closes at once; every pending operation completes with an error and ends the session.
    void Abort() {
        closing_ = true;
        error_code ec;
        stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
        stream_.close();
    }

private:
    void ReadHeader() {
        if (server_.stopping) return;
        parser_.emplace();
        // Unlimited (tests send 100 MB bodies). Not boost::none: Beast 1.74 compares the length
        // against the optional and then rejects every body.
        parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
        parser_->header_limit(kHeaderLimit);
        http::async_read_header(stream_, buffer_, *parser_,
                                [self = shared_from_this()](error_code ec, std::size_t) { self->OnHeader(ec); });
    }

    void OnHeader(error_code ec) {
        if (ec) return OnReadError(ec);
        const auto expect = parser_->request.HeaderValue("Expect");
        if (expect && EqualsIgnoreCase(*expect, "100-continue") && !parser_->is_done()) {
            continueLine_ = "HTTP/1.1 100 Continue\r\n\r\n";
            asio::async_write(stream_, asio::buffer(continueLine_),
                              [self = shared_from_this()](error_code wec, std::size_t) {
                                  if (wec) return self->Abort();
                                  self->ReadBody();
                              });
            return;
        }
        ReadBody();
    }

    void ReadBody() {
        if (server_.stopping) return;
        http::async_read(stream_, buffer_, *parser_,
                         [self = shared_from_this()](error_code ec, std::size_t) { self->OnRequest(ec); });
    }

    void OnReadError(error_code ec) {
        if (closing_ || server_.stopping) return;
        // The client closed between requests (or the connection broke): nothing to answer.
        if (ec == http::error::end_of_stream || ec == asio::error::eof || ec == asio::error::connection_reset ||
            ec == asio::error::operation_aborted) {
            return Abort();
        }
        // Anything else is a request the parser rejected: say so and close.
        ScriptedResponse bad;
        bad.status = 400;
        bad.headers = {{"Content-Type", "text/plain"}};
        bad.body = "RecordingServer could not parse the request: " + ec.message();
        bad.closeAfter = true;
        Write(bad, false);
    }

    void OnRequest(error_code ec) {
        if (ec) return OnReadError(ec);
        auto rec = std::make_shared<RecordedRequest>(std::move(parser_->request));
        const bool clientKeepsAlive = parser_->keep_alive();
        parser_.reset();
        const auto q = rec->target.find('?');
        rec->path = rec->target.substr(0, q);
        rec->query = q == std::string::npos ? std::string() : rec->target.substr(q + 1);
        rec->connectionId = context_.id;
        const bool isHead = rec->method == "HEAD";

        server_.Record(rec);
        ScriptedResponse answer = server_.Answer(*rec, context_);
        if (!clientKeepsAlive) answer.closeAfter = true;
        Write(answer, isHead);
    }

    void Write(const ScriptedResponse& answer, bool isHead) {
        closeAfterWrite_ = answer.closeAfter || answer.raw.has_value();
        std::array<asio::const_buffer, 2> buffers;
        if (answer.raw) {
            outHead_ = *answer.raw;
            outBody_.clear();
        } else {
            const auto status = static_cast<unsigned>(answer.status);
            beast::string_view reason = http::obsolete_reason(static_cast<http::status>(status));
            if (reason == "<unknown-status>") reason = "Unknown";
            outHead_ = "HTTP/1.1 " + std::to_string(answer.status) + " " + std::string(reason) + "\r\n";
            for (const auto& h : answer.headers) outHead_ += h.name + ": " + h.value + "\r\n";
            const bool noBody = (status >= 100 && status < 200) || status == 204 || status == 304;
            if (!noBody && !HasHeader(answer.headers, "Content-Length") &&
                !HasHeader(answer.headers, "Transfer-Encoding")) {
                outHead_ += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
            }
            if (closeAfterWrite_ && !HasHeader(answer.headers, "Connection")) outHead_ += "Connection: close\r\n";
            outHead_ += "\r\n";
            outBody_ = (noBody || isHead) ? std::string() : answer.body;
        }
        buffers[0] = asio::buffer(outHead_);
        buffers[1] = asio::buffer(outBody_);
        asio::async_write(stream_, buffers,
                          [self = shared_from_this()](error_code ec, std::size_t) { self->OnWrite(ec); });
    }

    void OnWrite(error_code ec) {
        outHead_.clear();
        outHead_.shrink_to_fit();
        outBody_.clear();
        outBody_.shrink_to_fit();
        if (ec) return Abort();
        if (closeAfterWrite_) return CloseGracefully();
        ReadHeader();
    }

    // Sends FIN, then waits (bounded) for the client to close before closing the socket, so
    // that unread request bytes do not turn the close into a reset that loses the answer.
    void CloseGracefully() {
        closing_ = true;
        error_code ec;
        stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
        if (ec) return Abort();
        stream_.expires_after(kLingerTimeout);
        Drain();
    }

    void Drain() {
        if (server_.stopping) return;
        stream_.async_read_some(asio::buffer(drain_), [self = shared_from_this()](error_code ec, std::size_t) {
            if (ec) return self->Abort();
            self->Drain();
        });
    }

    RecordingServer::Impl& server_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    std::optional<RequestParser> parser_;
    ConnectionContext context_;
    std::string continueLine_;
    std::string outHead_;
    std::string outBody_;
    std::array<char, 4096> drain_{};
    bool closeAfterWrite_ = false;
    bool closing_ = false;
};

void RecordingServer::Impl::Accept() {
    acceptor.async_accept([this](error_code ec, tcp::socket socket) {
        if (stopping) return;
        if (!ec) {
            std::size_t id;
            {
                std::lock_guard<std::mutex> lock(mutex);
                id = ++connectionCount;
            }
            error_code ignored;
            socket.set_option(tcp::no_delay(true), ignored);
            auto session = std::make_shared<Session>(*this, std::move(socket), id);
            // Forget sessions that have ended, so the list does not grow without bound.
            sessions.erase(std::remove_if(sessions.begin(), sessions.end(),
                                          [](const std::weak_ptr<Session>& w) { return w.expired(); }),
                           sessions.end());
            sessions.push_back(session);
            session->Start();
        } else if (ec == asio::error::operation_aborted || !acceptor.is_open()) {
            return;
        }
        Accept();
    });
}

void RecordingServer::Impl::Record(std::shared_ptr<const RecordedRequest> request) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        requests.push_back(std::move(request));
    }
    arrived.notify_all();
}

ScriptedResponse RecordingServer::Impl::Answer(const RecordedRequest& request, ConnectionContext& context) {
    Handler h;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!handler) {
            if (queue.empty()) return defaultResponse;
            ScriptedResponse next = std::move(queue.front());
            queue.pop_front();
            return next;
        }
        h = handler;  // called without the lock, so it may use the server's own API
    }
    try {
        return h(request, context);
    } catch (const std::exception& e) {
        ScriptedResponse failed;
        failed.status = 500;
        failed.headers = {{"Content-Type", "text/plain"}};
        failed.body = std::string("RecordingServer handler threw: ") + e.what();
        failed.closeAfter = true;
        return failed;
    } catch (...) {
        ScriptedResponse failed;
        failed.status = 500;
        failed.body = "RecordingServer handler threw";
        failed.closeAfter = true;
        return failed;
    }
}

void RecordingServer::Impl::StopOnServerThread() {
    stopping = true;
    error_code ignored;
    acceptor.close(ignored);
    for (auto& weak : sessions) {
        if (auto session = weak.lock()) session->Abort();
    }
    sessions.clear();
}

RecordingServer::RecordingServer(std::string bindAddress) : impl_(std::make_unique<Impl>(std::move(bindAddress))) {
    try {
        const tcp::endpoint endpoint(asio::ip::make_address(impl_->bindAddress), 0);
        impl_->acceptor.open(endpoint.protocol());
        impl_->acceptor.set_option(tcp::acceptor::reuse_address(true));
        impl_->acceptor.bind(endpoint);
        impl_->acceptor.listen(asio::socket_base::max_listen_connections);
        impl_->port = impl_->acceptor.local_endpoint().port();
    } catch (const boost::system::system_error& e) {
        throw std::system_error(e.code().value(), std::system_category(),
                                "RecordingServer cannot listen on " + impl_->bindAddress);
    }
    impl_->Accept();
    impl_->thread = std::thread([impl = impl_.get()] {
        for (;;) {
            try {
                impl->ioc.run();
                return;
            } catch (...) {
                // A handler must not take the server down; keep serving.
            }
        }
    });
}

RecordingServer::~RecordingServer() {
    asio::post(impl_->ioc, [impl = impl_.get()] { impl->StopOnServerThread(); });
    // Closing everything ends all work, so run() returns. Should something still hold the
    // io_context busy (a handler that does not return cannot be helped), stop it outright.
    auto& thread = impl_->thread;
    std::promise<void> joined;
    auto done = joined.get_future();
    std::thread joiner([&thread, &joined] {
        thread.join();
        joined.set_value();
    });
    if (done.wait_for(std::chrono::seconds(10)) != std::future_status::ready) impl_->ioc.stop();
    joiner.join();
}

unsigned short RecordingServer::Port() const { return impl_->port; }

std::string RecordingServer::BaseUrl() const {
    const bool v6 = impl_->bindAddress.find(':') != std::string::npos;
    return "http://" + (v6 ? "[" + impl_->bindAddress + "]" : impl_->bindAddress) + ":" + std::to_string(impl_->port);
}

void RecordingServer::SetDefault(ScriptedResponse response) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->defaultResponse = std::move(response);
}

void RecordingServer::Enqueue(ScriptedResponse response) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->queue.push_back(std::move(response));
}

void RecordingServer::SetHandler(Handler handler) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->handler = std::move(handler);
}

std::vector<RecordedRequest> RecordingServer::Requests() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    std::vector<RecordedRequest> out;
    out.reserve(impl_->requests.size());
    for (const auto& r : impl_->requests) out.push_back(*r);
    return out;
}

std::size_t RecordingServer::ConnectionCount() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->connectionCount;
}

bool RecordingServer::WaitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->arrived.wait_for(lock, timeout, [&] { return impl_->requests.size() >= count; });
}

void RecordingServer::Clear() {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->requests.clear();
}

}  // namespace testsupport
