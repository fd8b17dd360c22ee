// Tests of the loopback test server itself, driven by plain Boost.Asio/Beast client code so that
// they do not depend on the library under test.
#include "support/RecordingServer.h"

#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <any>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using testsupport::ConnectionContext;
using testsupport::RecordedRequest;
using testsupport::RecordingServer;
using testsupport::ScriptedResponse;

// A blocking client connection to the server.
class Client {
public:
    explicit Client(const RecordingServer& server, const std::string& address = "127.0.0.1") : socket_(ioc_) {
        socket_.connect(tcp::endpoint(asio::ip::make_address(address), server.Port()));
    }

    void Send(const std::string& bytes) { asio::write(socket_, asio::buffer(bytes)); }

    http::response<http::string_body> ReadResponse() {
        http::response_parser<http::string_body> parser;
        parser.body_limit(std::numeric_limits<std::uint64_t>::max());
        http::read(socket_, buffer_, parser);
        return parser.release();
    }

    // Everything until the server closes the connection.
    std::string ReadToEnd() {
        std::string all(static_cast<const char*>(buffer_.data().data()), buffer_.size());
        buffer_.clear();
        boost::system::error_code ec;
        char chunk[4096];
        for (;;) {
            const std::size_t n = socket_.read_some(asio::buffer(chunk), ec);
            all.append(chunk, n);
            if (ec) break;
        }
        EXPECT_EQ(ec, asio::error::eof);
        return all;
    }

    bool ServerClosed() { return buffer_.size() == 0 && ReadToEnd().empty(); }

private:
    asio::io_context ioc_;
    tcp::socket socket_;
    boost::beast::flat_buffer buffer_;
};

std::string Get(const std::string& target, const std::string& extra = "") {
    return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + extra + "\r\n";
}

TEST(RecordingServer, RecordsRequestExactly) {
    RecordingServer server;
    EXPECT_EQ(server.BaseUrl(), "http://127.0.0.1:" + std::to_string(server.Port()));

    const std::string body = std::string("a\0b", 3) + "\xC3\xA9\xE2\x82\xAC{\"k\":1}";  // NUL, é, €
    Client client(server);
    client.Send("POST /a/b%20c?x=1&y=%C3%A9 HTTP/1.1\r\n"
                "Host: localhost\r\n"
                "X-Custom: one\r\n"
                "Content-Type: application/json; charset=utf-8\r\n"
                "x-CUSTOM: two\r\n"
                "Content-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body);
    const auto response = client.ReadResponse();
    EXPECT_EQ(response.result_int(), 200);
    EXPECT_EQ(response[http::field::content_length], "0");
    EXPECT_EQ(response.body(), "");

    client.Send(Get("/plain"));
    client.ReadResponse();

    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    const RecordedRequest& post = requests[0];
    EXPECT_EQ(post.method, "POST");
    EXPECT_EQ(post.target, "/a/b%20c?x=1&y=%C3%A9");
    EXPECT_EQ(post.path, "/a/b%20c");
    EXPECT_EQ(post.query, "x=1&y=%C3%A9");
    ASSERT_EQ(post.headers.size(), 5u);
    EXPECT_EQ(post.headers[0].name, "Host");
    EXPECT_EQ(post.headers[1].name, "X-Custom");
    EXPECT_EQ(post.headers[1].value, "one");
    EXPECT_EQ(post.headers[2].name, "Content-Type");
    EXPECT_EQ(post.headers[3].name, "x-CUSTOM");
    EXPECT_EQ(post.headers[3].value, "two");
    EXPECT_EQ(post.HeaderValue("x-custom"), "one");
    EXPECT_EQ(post.HeaderCount("X-CUSTOM"), 2u);
    EXPECT_EQ(post.HeaderValue("content-type"), "application/json; charset=utf-8");
    EXPECT_EQ(post.HeaderValue("Authorization"), std::nullopt);
    EXPECT_EQ(post.HeaderCount("Authorization"), 0u);
    EXPECT_EQ(post.body.size(), body.size());
    EXPECT_EQ(post.body, body);

    EXPECT_EQ(requests[1].method, "GET");
    EXPECT_EQ(requests[1].path, "/plain");
    EXPECT_EQ(requests[1].query, "");
    EXPECT_EQ(requests[1].body, "");

    server.Clear();
    EXPECT_TRUE(server.Requests().empty());
    EXPECT_EQ(server.ConnectionCount(), 1u);
}

TEST(RecordingServer, ReadsLargeAndChunkedBodies) {
    RecordingServer server;
    std::string big(100u * 1024 * 1024, 'x');
    big[0] = '\0';
    big[big.size() - 1] = 'z';
    Client client(server);
    client.Send("POST /big HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: " +
                std::to_string(big.size()) + "\r\n\r\n");
    EXPECT_EQ(client.ReadResponse().result_int(), 100);
    client.Send(big);
    EXPECT_EQ(client.ReadResponse().result_int(), 200);
    client.Send("POST /chunked HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
    EXPECT_EQ(client.ReadResponse().result_int(), 200);

    ASSERT_TRUE(server.WaitForRequests(2, std::chrono::seconds(5)));
    const auto requests = server.Requests();
    EXPECT_TRUE(requests[0].body == big);  // not EXPECT_EQ: a failure would print 100 MB
    EXPECT_EQ(requests[1].body, "abcde");
}

TEST(RecordingServer, KeepAliveSharesConnectionIdAndNewSocketGetsNewId) {
    RecordingServer server;
    Client first(server);
    first.Send(Get("/1"));
    first.ReadResponse();
    first.Send(Get("/2") + Get("/3"));  // pipelined
    first.ReadResponse();
    first.ReadResponse();
    Client second(server);
    second.Send(Get("/4"));
    second.ReadResponse();
    first.Send(Get("/5"));
    first.ReadResponse();

    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 5u);
    EXPECT_EQ(requests[0].connectionId, 1u);
    EXPECT_EQ(requests[1].connectionId, 1u);
    EXPECT_EQ(requests[2].connectionId, 1u);
    EXPECT_EQ(requests[2].path, "/3");
    EXPECT_EQ(requests[3].connectionId, 2u);
    EXPECT_EQ(requests[4].connectionId, 1u);
    EXPECT_EQ(server.ConnectionCount(), 2u);
}

TEST(RecordingServer, AnswersFromQueueThenDefault) {
    RecordingServer server;
    ScriptedResponse notFound;
    notFound.status = 404;
    notFound.body = "default";
    server.SetDefault(notFound);
    ScriptedResponse created;
    created.status = 201;
    created.headers = {{"Content-Type", "application/json"}, {"X-Trace", "a"}, {"X-Trace", "b"}};
    created.body = "{\"id\":1}";
    server.Enqueue(created);
    ScriptedResponse unknown;
    unknown.status = 599;
    server.Enqueue(unknown);

    Client client(server);
    client.Send(Get("/q"));
    auto r1 = client.ReadResponse();
    EXPECT_EQ(r1.result_int(), 201);
    EXPECT_EQ(r1[http::field::content_type], "application/json");
    EXPECT_EQ(r1[http::field::content_length], "8");
    EXPECT_EQ(std::distance(r1.equal_range("X-Trace").first, r1.equal_range("X-Trace").second), 2);
    EXPECT_EQ(r1.body(), "{\"id\":1}");
    client.Send(Get("/q"));
    EXPECT_EQ(client.ReadResponse().result_int(), 599);
    for (int i = 0; i < 2; ++i) {
        client.Send(Get("/q"));
        auto r = client.ReadResponse();
        EXPECT_EQ(r.result_int(), 404);
        EXPECT_EQ(r.body(), "default");
    }
}

TEST(RecordingServer, HandlerKeepsStatePerConnection) {
    RecordingServer server;
    server.Enqueue(ScriptedResponse{});  // ignored: the handler decides
    server.SetHandler([&server](const RecordedRequest& request, ConnectionContext& connection) {
        if (!connection.state.has_value()) connection.state = 0;
        int& count = std::any_cast<int&>(connection.state);
        ++count;
        ScriptedResponse answer;
        answer.status = 202;
        // Recorded before the handler runs.
        const bool recorded = server.Requests().back().target == request.target;
        answer.body = std::to_string(connection.id) + ":" + std::to_string(count) + (recorded ? "" : "!");
        return answer;
    });

    Client a(server);
    Client b(server);
    a.Send(Get("/x"));
    EXPECT_EQ(a.ReadResponse().body(), "1:1");
    a.Send(Get("/y"));
    EXPECT_EQ(a.ReadResponse().body(), "1:2");
    b.Send(Get("/z"));
    EXPECT_EQ(b.ReadResponse().body(), "2:1");
    a.Send(Get("/w"));
    auto last = a.ReadResponse();
    EXPECT_EQ(last.result_int(), 202);
    EXPECT_EQ(last.body(), "1:3");
}

TEST(RecordingServer, WritesRawBytesVerbatimThenCloses) {
    RecordingServer server;
    ScriptedResponse raw;
    raw.raw = std::string("HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\ntrunc\0ated", 48);
    server.Enqueue(raw);
    Client client(server);
    client.Send(Get("/raw"));
    EXPECT_EQ(client.ReadToEnd(), *raw.raw);
}

TEST(RecordingServer, CloseAfterAndClientCloseEndTheConnection) {
    RecordingServer server;
    ScriptedResponse closing;
    closing.body = "bye";
    closing.closeAfter = true;
    server.Enqueue(closing);

    Client client(server);
    client.Send(Get("/close"));
    auto response = client.ReadResponse();
    EXPECT_EQ(response.body(), "bye");
    EXPECT_EQ(response[http::field::connection], "close");
    EXPECT_TRUE(client.ServerClosed());

    Client asking(server);
    asking.Send(Get("/close", "Connection: close\r\n"));
    EXPECT_EQ(asking.ReadResponse().result_int(), 200);
    EXPECT_TRUE(asking.ServerClosed());
    EXPECT_EQ(server.ConnectionCount(), 2u);
}

TEST(RecordingServer, BindsAnotherLoopbackAddressAndStopsWhileClientHoldsConnection) {
    auto server = std::make_unique<RecordingServer>("127.0.0.2");
    EXPECT_EQ(server->BaseUrl(), "http://127.0.0.2:" + std::to_string(server->Port()));
    Client client(*server, "127.0.0.2");
    client.Send(Get("/held"));
    EXPECT_EQ(client.ReadResponse().result_int(), 200);
    Client idle(*server, "127.0.0.2");  // connected, never sends

    const auto start = std::chrono::steady_clock::now();
    server.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_TRUE(client.ServerClosed());
}

}  // namespace
