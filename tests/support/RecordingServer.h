// A loopback HTTP/1.1 server for wire-level tests: it records every request exactly as it
// arrived and answers from a script (a FIFO queue, then a default) or from a handler.
//
// The server runs on its own thread (one io_context, async accept/read/write), serves any
// number of concurrent keep-alive connections and reads request bodies of any size.
// Everything here is thread-safe; the handler runs on the server thread.
#pragma once

#include <any>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace testsupport {

struct Header {
    std::string name;
    std::string value;
};

struct RecordedRequest {
    std::string method;           // "GET", "POST"
    std::string target;           // raw request-target as received, e.g. "/a/b%20c?x=1&y=2"
    std::string path;             // target before '?', still percent-encoded
    std::string query;            // target after '?', without '?', still encoded ("" if none)
    std::vector<Header> headers;  // in arrival order, names as received
    std::string body;             // exact body bytes (chunked bodies de-chunked)
    std::size_t connectionId = 0; // 1 for the first accepted TCP connection, 2 for the next, ...

    // Value of the first header with this name (case-insensitive), if any.
    std::optional<std::string> HeaderValue(std::string_view name) const;
    // How many headers carry this name (case-insensitive).
    std::size_t HeaderCount(std::string_view name) const;
};

struct ScriptedResponse {
    int status = 200;
    // Sent as given, in this order. The server adds Content-Length (unless one is given here,
    // or Transfer-Encoding is) and "Connection: close" when it closes (unless Connection is given).
    std::vector<Header> headers;
    std::string body;
    bool closeAfter = false;         // close the connection after this answer
    std::optional<std::string> raw;  // if set: write exactly these bytes instead, then close
};

// Per-connection state for handlers that bind something to the TCP connection (an NTLM
// acceptor does). One per accepted connection; lives as long as the connection.
struct ConnectionContext {
    std::size_t id = 0;
    std::any state;
};

class RecordingServer {
public:
    using Handler = std::function<ScriptedResponse(const RecordedRequest&, ConnectionContext&)>;

    // Binds a free port (port 0) on bindAddress (any address of 127/8 works on Linux, as
    // does "::1") and starts serving at once. Throws std::system_error if it cannot bind.
    explicit RecordingServer(std::string bindAddress = "127.0.0.1");
    // Stops accepting, closes every connection (also ones a client holds open), joins.
    ~RecordingServer();

    RecordingServer(const RecordingServer&) = delete;
    RecordingServer& operator=(const RecordingServer&) = delete;

    unsigned short Port() const;
    std::string BaseUrl() const;  // "http://<bindAddress>:<port>" ("http://[::1]:<port>" for IPv6)

    void SetDefault(ScriptedResponse);  // answer when queue empty and no handler; initially 200, empty body
    void Enqueue(ScriptedResponse);     // FIFO, consumed one per request before the default
    void SetHandler(Handler);           // when set (non-empty), decides every answer

    std::vector<RecordedRequest> Requests() const;  // snapshot of what arrived, in arrival order
    std::size_t ConnectionCount() const;            // TCP connections accepted so far
    // True as soon as at least `count` requests are recorded; false on timeout.
    bool WaitForRequests(std::size_t count, std::chrono::milliseconds timeout) const;
    void Clear();  // forget recorded requests (not the connection counter)

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace testsupport
