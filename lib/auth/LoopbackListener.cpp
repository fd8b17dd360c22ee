#include "auth/LoopbackListener.h"
#include "auth/FormEncoding.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>

#include <utility>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

// Browsers send cookies of every 127.0.0.1 port to this one, and those may be long.
constexpr std::uint32_t kHeaderLimit = 64 * 1024;
constexpr std::uint64_t kBodyLimit = 16 * 1024;

std::string PageResponse(const char* statusLine, const char* sentence) {
    const std::string page = std::string("<!DOCTYPE html><html><head><meta charset=\"utf-8\">"
                                         "<title>Table repository login</title></head><body><p>") +
                             sentence + "</p></body></html>";
    return std::string("HTTP/1.1 ") + statusLine +
           "\r\nContent-Type: text/html; charset=utf-8\r\nCache-Control: no-store\r\n"
           "Connection: close\r\nContent-Length: " +
           std::to_string(page.size()) + "\r\n\r\n" + page;
}

std::string LoginEndedResponse(bool loggedIn) {
    return PageResponse("200 OK", loggedIn ? "The login is done: you can close this window."
                                           : "The login failed: you can close this window.");
}

} // namespace

struct LoopbackListener::Impl {
    asio::io_context io;
    tcp::acceptor acceptor{io};
    std::string callbackPath;
    std::string expectedState;
    std::optional<Fields> redirect;
    std::optional<tcp::socket> browser; // the connection that brought the redirect

    void Accept();
    void Serve(tcp::socket socket);
    // Empty when the request is the redirect (its fields are then kept); otherwise the answer.
    std::string Judge(const std::string& target);
};

namespace {

// One browser connection: reads a request, then either hands the socket over as the redirect
// or answers with a page and closes.
struct Connection : std::enable_shared_from_this<Connection> {
    explicit Connection(tcp::socket s) : socket(std::move(s)) {
        parser.header_limit(kHeaderLimit);
        parser.body_limit(kBodyLimit);
    }

    tcp::socket socket;
    beast::flat_buffer buffer;
    http::request_parser<http::string_body> parser;
    std::string answer;

    void Reply(std::string response) {
        answer = std::move(response);
        asio::async_write(socket, asio::buffer(answer),
                          [self = shared_from_this()](boost::system::error_code, std::size_t) {
                              boost::system::error_code ignored;
                              self->socket.shutdown(tcp::socket::shutdown_both, ignored);
                          });
    }
};

} // namespace

void LoopbackListener::Impl::Accept() {
    acceptor.async_accept([this](boost::system::error_code error, tcp::socket socket) {
        if (error == asio::error::operation_aborted) {
            return;
        }
        if (!error) {
            Serve(std::move(socket));
        }
        Accept();
    });
}

void LoopbackListener::Impl::Serve(tcp::socket socket) {
    auto connection = std::make_shared<Connection>(std::move(socket));
    http::async_read(connection->socket, connection->buffer, connection->parser,
                     [this, connection](boost::system::error_code error, std::size_t) {
                         if (error) {
                             return;
                         }
                         std::string rejection = Judge(std::string(connection->parser.get().target()));
                         if (!rejection.empty()) {
                             connection->Reply(std::move(rejection));
                             return;
                         }
                         browser.emplace(std::move(connection->socket));
                         io.stop();
                     });
}

std::string LoopbackListener::Impl::Judge(const std::string& target) {
    const std::size_t queryStart = target.find('?');
    if (target.substr(0, queryStart) != callbackPath) {
        return PageResponse("404 Not Found", "There is nothing here.");
    }
    Fields fields = ParseFormFields(queryStart == std::string::npos ? std::string()
                                                                    : target.substr(queryStart + 1));
    // Anything on this machine can call the port; only the answer to our own request counts.
    const auto state = fields.find("state");
    if (state == fields.end() || state->second != expectedState) {
        return PageResponse("400 Bad Request", "This page belongs to no login in progress.");
    }
    redirect = std::move(fields);
    return std::string();
}

LoopbackListener::LoopbackListener(std::string callbackPath) : impl_(std::make_unique<Impl>()) {
    impl_->callbackPath = std::move(callbackPath);
    impl_->acceptor.open(tcp::v4());
    // The listener closes the browser's connections first, which leaves them in TIME_WAIT on
    // this port for a minute. Without the option those would keep anyone else from binding the
    // port that long, although nothing listens on it any more. (A second listener on the port
    // still cannot bind; the state and PKCE make a stolen redirect worthless anyway.)
    impl_->acceptor.set_option(tcp::acceptor::reuse_address(true));
    impl_->acceptor.bind(tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    impl_->acceptor.listen();
    impl_->Accept();
}

LoopbackListener::~LoopbackListener() {
    boost::system::error_code ignored;
    impl_->acceptor.close(ignored);
}

std::string LoopbackListener::RedirectUri() const {
    return "http://127.0.0.1:" + std::to_string(impl_->acceptor.local_endpoint().port()) +
           impl_->callbackPath;
}

std::optional<LoopbackListener::Fields>
LoopbackListener::WaitForRedirect(const std::string& state, std::chrono::milliseconds limit) {
    impl_->expectedState = state;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!impl_->redirect && !impl_->io.stopped() &&
           std::chrono::steady_clock::now() < deadline) {
        impl_->io.run_one_until(deadline);
    }
    return impl_->redirect;
}

void LoopbackListener::AnswerBrowser(bool loggedIn) {
    if (!impl_->browser) {
        return;
    }
    // A few hundred bytes fit the socket's buffer, so this write does not wait for the browser.
    const std::string response = LoginEndedResponse(loggedIn);
    boost::system::error_code ignored;
    asio::write(*impl_->browser, asio::buffer(response), ignored);
    impl_->browser->shutdown(tcp::socket::shutdown_both, ignored);
    impl_->browser->close(ignored);
    impl_->browser.reset();
}
