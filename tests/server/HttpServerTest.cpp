// The HTTP layer on raw sockets, so that a misreading shared by the client library and the
// server cannot hide: requests in small pieces, pipelined, chunked, after 100-continue, broken
// and oversized.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include <chrono>
#include <cstdio>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace servertest;
using boost::asio::ip::tcp;

// Writes the pieces with a pause between them, ends the sending side, and returns the status
// codes of every answer up to the server's close and how many of them carried JSON.
std::pair<std::vector<std::string>, int> Exchange(unsigned short port,
                                                  const std::vector<std::string>& pieces) {
    boost::asio::io_context context;
    tcp::socket socket(context);
    socket.connect({boost::asio::ip::make_address("127.0.0.1"), port});
    boost::system::error_code ec;
    for (const std::string& piece : pieces) {
        boost::asio::write(socket, boost::asio::buffer(piece), ec);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    socket.shutdown(tcp::socket::shutdown_send, ec);
    std::string answer;
    char chunk[4096];
    while (!ec) {
        answer.append(chunk, socket.read_some(boost::asio::buffer(chunk), ec));
    }
    std::vector<std::string> statuses;
    const std::regex statusLine("HTTP/1\\.1 (\\d{3}) ");
    for (auto m = std::sregex_iterator(answer.begin(), answer.end(), statusLine);
         m != std::sregex_iterator(); ++m) {
        statuses.push_back((*m)[1]);
    }
    int json = 0;
    for (auto at = answer.find("Content-Type: application/json"); at != std::string::npos;
         at = answer.find("Content-Type: application/json", at + 1)) {
        ++json;
    }
    return {statuses, json};
}

std::vector<std::string> Pieces(const std::string& bytes, std::size_t size) {
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at < bytes.size(); at += size) {
        pieces.push_back(bytes.substr(at, size));
    }
    return pieces;
}

TEST(HttpServer, ReadsRequestsHoweverTheyArriveAndRefusesBrokenOnes) {
    TempDirectory directory;
    auto options = DefaultOptions(directory.File("repo.sqlite"));
    options.http.maxBodyBytes = 200;
    options.http.idleSeconds = 5;
    RunningServer server(options);
    const std::string connect = "GET /Import/Connect HTTP/1.1\r\nHost: x\r\n\r\n";
    const std::string post =
        "POST /Import/Tables HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n";
    // Each creation names a table of its own: a second pending import of one name is refused.
    const auto create = [](const char* table) {
        return std::string(
                   R"({"recordCount":1,"tableClass":"c","tableDescription":"","tableName":")") +
               table + R"(","tableOverwrite":false})";
    };
    const auto length = [](const std::string& body) {
        return "Content-Length: " + std::to_string(body.size()) + "\r\n";
    };
    const auto chunk = [](const std::string& text) {
        char size[16];
        std::snprintf(size, sizeof size, "%zx\r\n", text.size());
        return size + text + "\r\n";
    };
    struct Case {
        const char* name;
        std::vector<std::string> pieces;
        std::vector<std::string> statuses;
    };
    const Case cases[] = {
        {"request in pieces of three bytes",
         Pieces(post + length(create("A")) + "\r\n" + create("A"), 3),
         {"201"}},
        {"two pipelined requests", {connect + connect}, {"200", "200"}},
        {"chunked body in two chunks",
         {post + "Transfer-Encoding: chunked\r\n\r\n" + chunk(create("B").substr(0, 5)) +
          chunk(create("B").substr(5)) + "0\r\n\r\n"},
         {"201"}},
        {"Expect: 100-continue",
         {post + length(create("C")) + "Expect: 100-continue\r\n\r\n", create("C")},
         {"100", "201"}},
        {"body cut short by the client",
         {post + "Content-Length: 150\r\n\r\n[\"first value\", \"sec"},
         {}},
        {"not HTTP at all", {"HELLO THERE\r\n\r\n"}, {"400"}},
        {"header without a colon", {"GET / HTTP/1.1\r\nHost x\r\n\r\n"}, {"400"}},
        {"declared length over the limit",
         {post + "Content-Length: 201\r\n\r\n" + std::string(201, ' ')},
         {"413"}},
        {"chunked body over the limit",
         {post + "Transfer-Encoding: chunked\r\n\r\nc8\r\n" + std::string(200, ' ') +
          "\r\n1\r\n \r\n0\r\n\r\n"},
         {"413"}},
    };
    for (const auto& c : cases) {
        const auto [statuses, json] = Exchange(server.Port(), c.pieces);
        EXPECT_EQ(statuses, c.statuses) << "case: " << c.name;
        EXPECT_EQ(json, static_cast<int>(c.statuses.size()) -
                            (statuses.empty() || statuses[0] != "100" ? 0 : 1))
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
    ASSERT_EQ(Send(server.Url(), "/Import/Connect").status, 200);

    const auto before = std::chrono::steady_clock::now();
    server.Server().Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    char byte;
    boost::system::error_code ec;
    idle.read_some(boost::asio::buffer(&byte, 1), ec);
    EXPECT_TRUE(ec) << "the idle connection is closed";
}

} // namespace
