// The HTTP layer on raw sockets: what a well-behaved client never sends.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <chrono>
#include <string>

namespace {

using namespace servertest;
using boost::asio::ip::tcp;

// Writes the bytes, then reads until the server closes or the answer's head and declared body
// are in; returns what arrived.
std::string RawExchange(unsigned short port, const std::string& bytes) {
    boost::asio::io_context context;
    tcp::socket socket(context);
    socket.connect({boost::asio::ip::make_address("127.0.0.1"), port});
    boost::system::error_code ec;
    boost::asio::write(socket, boost::asio::buffer(bytes), ec);
    std::string answer;
    char chunk[4096];
    while (!ec) {
        const std::size_t n = socket.read_some(boost::asio::buffer(chunk), ec);
        answer.append(chunk, n);
        const auto head = answer.find("\r\n\r\n");
        const auto length = answer.find("Content-Length: ");
        if (head != std::string::npos && length != std::string::npos &&
            answer.size() >= head + 4 + std::stoul(answer.substr(length + 16))) {
            break;
        }
    }
    return answer;
}

TEST(HttpServer, BrokenAndOversizedRequestsGetJsonErrors) {
    TempDirectory directory;
    auto options = DefaultOptions(directory.File("repo.sqlite"));
    options.http.maxBodyBytes = 64;
    RunningServer server(options);
    struct Case {
        const char* name;
        std::string request;
        std::string statusLine;
    };
    const std::string post = "POST /Import/Tables HTTP/1.1\r\nHost: x\r\n";
    const Case cases[] = {
        {"not HTTP at all", "HELLO THERE\r\n\r\n", "HTTP/1.1 400"},
        {"header without a colon", "GET / HTTP/1.1\r\nHost x\r\n\r\n", "HTTP/1.1 400"},
        {"declared length over the limit",
         post + "Content-Length: 65\r\n\r\n" + std::string(65, ' '), "HTTP/1.1 413"},
        {"chunked body over the limit",
         post + "Transfer-Encoding: chunked\r\n\r\n40\r\n" + std::string(64, ' ') +
             "\r\n1\r\n \r\n0\r\n\r\n",
         "HTTP/1.1 413"},
        {"chunked body within the limit",
         post + "Transfer-Encoding: chunked\r\n\r\n2\r\n[]\r\n0\r\n\r\n", "HTTP/1.1 400"},
        {"keep-alive request", "GET /Import/Connect HTTP/1.1\r\nHost: x\r\n\r\n",
         "HTTP/1.1 200"},
    };
    for (const auto& c : cases) {
        const std::string answer = RawExchange(server.Port(), c.request);
        EXPECT_EQ(answer.rfind(c.statusLine, 0), 0u) << "case: " << c.name << ":\n" << answer;
        EXPECT_NE(answer.find("Content-Type: application/json"), std::string::npos)
            << "case: " << c.name;
    }
}

TEST(HttpServer, StopEndsIdleKeepAliveConnectionsAtOnce) {
    TempDirectory directory;
    auto options = DefaultOptions(directory.File("repo.sqlite"));
    options.http.idleSeconds = 600;
    RunningServer server(options);
    boost::asio::io_context context;
    tcp::socket idle(context);
    idle.connect({boost::asio::ip::make_address("127.0.0.1"), server.Port()});
    ASSERT_EQ(Send(server.Url(), "GET", {Word("/Import/Connect")}, std::nullopt).status, 200);

    const auto before = std::chrono::steady_clock::now();
    server.Server().Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    char byte;
    boost::system::error_code ec;
    idle.read_some(boost::asio::buffer(&byte, 1), ec);
    EXPECT_TRUE(ec) << "the idle connection is closed";
}

} // namespace
