// The HTTP layer on raw sockets, so that a misreading shared by the client library and the
// server cannot hide: requests in small pieces, pipelined, chunked, after 100-continue, broken
// and oversized; and a stop that does not wait for idle connections.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace servertest;
using boost::asio::ip::tcp;

// Writes the pieces of text (split at each '|') a moment apart, ends the sending side, and
// returns every answer's status code up to the server's close, each followed by "j" when its body
// is JSON.
std::string Exchange(unsigned short port, const std::string& text) {
    boost::asio::io_context context;
    tcp::socket socket(context);
    socket.connect({boost::asio::ip::make_address("127.0.0.1"), port});
    boost::system::error_code ec;
    for (std::size_t at = 0, end = 0; at <= text.size(); at = end + 1) {
        end = std::min(text.find('|', at), text.size());
        boost::asio::write(socket, boost::asio::buffer(text.substr(at, end - at)), ec);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    socket.shutdown(tcp::socket::shutdown_send, ec);
    std::string answers;
    char chunk[4096];
    while (!ec) {
        answers.append(chunk, socket.read_some(boost::asio::buffer(chunk), ec));
    }
    std::string statuses;
    for (auto at = answers.find("HTTP/1.1 "); at != std::string::npos;) {
        const auto next = answers.find("HTTP/1.1 ", at + 1);
        const std::string answer = answers.substr(at, next - at);
        statuses += answer.substr(9, 3) +
                    (answer.find("application/json") != std::string::npos ? "j " : " ");
        at = next;
    }
    return statuses;
}

TEST(HttpServer, ReadsRequestsHoweverTheyArriveAndRefusesBrokenOnes) {
    TempDirectory directory;
    auto options = DefaultOptions(directory.File("repo.sqlite"));
    options.http.maxBodyBytes = 200;
    options.http.idleSeconds = 600;
    RunningServer server(options);
    const std::string connect = "GET /Import/Connect HTTP/1.1\r\nHost: x\r\n\r\n";
    const std::string post = "POST /Import/Authorization HTTP/1.1\r\nHost: x\r\n";
    const std::string chunked = post + "Transfer-Encoding: chunked\r\n\r\n";
    const struct {
        const char* name;
        std::string text;
        const char* statuses;
    } cases[] = {
        {"request in pieces",
         "POST /Imp|ort/Authorization HTTP/1.1\r\nHo|st: x\r\nContent-Length: "
         "18\r\n\r\n{\"tab|leClass\":\"c\"}",
         "200j "},
        {"two pipelined requests", connect + connect, "200j 200j "},
        {"chunked body in two chunks",
         chunked + "5\r\n{\"tab\r\nd\r\nleClass\":\"c\"}\r\n0\r\n\r\n", "200j "},
        {"Expect: 100-continue",
         post + "Content-Length: 18\r\nExpect: 100-continue\r\n\r\n|{\"tableClass\":\"c\"}",
         "100 200j "},
        {"body cut short by the client", post + "Content-Length: 150\r\n\r\n[\"sec", ""},
        {"not HTTP at all", "HELLO THERE\r\n\r\n", "400j "},
        {"header without a colon", "GET / HTTP/1.1\r\nHost x\r\n\r\n", "400j "},
        {"declared length over the limit", post + "Content-Length: 201\r\n\r\n", "413j "},
        {"chunked body over the limit",
         chunked + "c8\r\n" + std::string(200, ' ') + "\r\n1\r\n \r\n0\r\n\r\n", "413j "},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Exchange(server.Port(), c.text), c.statuses) << "case: " << c.name;
    }

    // An idle keep-alive connection does not hold the stop up for its ten minutes.
    boost::asio::io_context context;
    tcp::socket idle(context);
    idle.connect({boost::asio::ip::make_address("127.0.0.1"), server.Port()});
    ASSERT_EQ(Send(server.Url(), "/Import/Connect").status, 200);
    const auto before = std::chrono::steady_clock::now();
    server.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    char byte;
    boost::system::error_code ec;
    idle.read_some(boost::asio::buffer(&byte, 1), ec);
    EXPECT_TRUE(ec) << "the idle connection is closed";
}

} // namespace
