#include "support/RecordingServer.h"

#include "HttpServer.h"
#include "Tls.h"

#include <boost/asio/write.hpp>
#include <boost/beast/core/string.hpp>

#include <deque>
#include <mutex>

namespace testsupport {

namespace {

RecordedRequest Record(const lxrepo::Request& request, std::size_t connectionId) {
    RecordedRequest r;
    r.method = std::string(request.method_string());
    r.target = std::string(request.target());
    const auto mark = r.target.find('?');
    r.path = r.target.substr(0, mark);
    r.query = mark == std::string::npos ? "" : r.target.substr(mark + 1);
    for (const auto& field : request) {
        r.headers.push_back({std::string(field.name_string()), std::string(field.value())});
    }
    r.body = request.body();
    r.connectionId = connectionId;
    return r;
}

} // namespace

std::optional<std::string> RecordedRequest::HeaderValue(std::string_view name) const {
    for (const auto& h : headers) {
        if (boost::beast::iequals(h.name, boost::beast::string_view(name.data(), name.size()))) {
            return h.value;
        }
    }
    return std::nullopt;
}

struct RecordingServer::Impl {
    std::string address;
    mutable std::mutex mutex;
    std::mutex handling; // handlers were written for one call at a time
    std::vector<RecordedRequest> requests;
    std::deque<ScriptedResponse> queue;
    ScriptedResponse fallback;
    Handler handler;
    std::unique_ptr<lxrepo::HttpServer> http;

    lxrepo::Response Answer(lxrepo::Request& request, ConnectionContext& connection) {
        const RecordedRequest recorded = Record(request, connection.id);
        ScriptedResponse scripted;
        Handler call;
        {
            std::lock_guard<std::mutex> lock(mutex);
            requests.push_back(recorded);
            call = handler;
            if (!call && !queue.empty()) {
                scripted = std::move(queue.front());
                queue.pop_front();
            } else if (!call) {
                scripted = fallback;
            }
        }
        if (call) {
            std::lock_guard<std::mutex> lock(handling);
            scripted = call(recorded, connection);
        }
        lxrepo::Response response{static_cast<lxrepo::http::status>(scripted.status),
                                  request.version()};
        if (scripted.raw) {
            boost::system::error_code ec;
            boost::asio::write(*connection.socket, boost::asio::buffer(*scripted.raw), ec);
            connection.socket->shutdown(boost::asio::ip::tcp::socket::shutdown_both, ec);
            response.keep_alive(false);
            return response;
        }
        bool hasLength = false;
        for (const auto& h : scripted.headers) {
            response.insert(h.name, h.value);
            hasLength = hasLength || boost::beast::iequals(h.name, "Content-Length");
        }
        response.body() = scripted.body;
        if (!hasLength) {
            response.prepare_payload();
        }
        response.keep_alive(!scripted.closeAfter && request.keep_alive());
        return response;
    }
};

RecordingServer::RecordingServer(std::string bindAddress, const TlsFiles* tls)
    : impl_(std::make_unique<Impl>()) {
    impl_->address = bindAddress;
    lxrepo::HttpServer::Settings settings;
    settings.address = std::move(bindAddress);
    if (tls) {
        settings.tls = lxrepo::ServerTlsContext(tls->certificate, tls->key);
    }
    impl_->http = std::make_unique<lxrepo::HttpServer>(
        settings, [impl = impl_.get()](lxrepo::Request& request, ConnectionContext& connection) {
            return impl->Answer(request, connection);
        });
    impl_->http->Start();
}

RecordingServer::~RecordingServer() { impl_->http->Stop(); }

unsigned short RecordingServer::Port() const { return impl_->http->Port(); }

std::string RecordingServer::BaseUrl() const {
    const bool v6 = impl_->address.find(':') != std::string::npos;
    return (impl_->http->Secure() ? "https://" : "http://") +
           (v6 ? "[" + impl_->address + "]" : impl_->address) + ":" + std::to_string(Port());
}

void RecordingServer::SetDefault(ScriptedResponse response) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->fallback = std::move(response);
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
    return impl_->requests;
}

void RecordingServer::Clear() {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->requests.clear();
}

} // namespace testsupport
