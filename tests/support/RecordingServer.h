// A loopback HTTP/1.1 server for wire-level tests: lxrepo-server's own HTTP core with a script of
// answers instead of its routes. It records every request as it arrived and answers from a
// queue, then a default, or from a handler. Handlers are called one at a time.
#pragma once

#include "Http.h"
#include "support/TestCertificates.h"

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
    std::string target;           // the request-target as received, e.g. "/a/b%20c?x=1&y=2"
    std::string path;             // target before '?', still percent-encoded
    std::string query;            // target after '?', still encoded ("" if none)
    std::vector<Header> headers;  // names as received
    std::string body;             // exact body bytes (chunked bodies de-chunked)
    std::size_t connectionId = 0; // the same for requests that shared a TCP connection

    // Value of the first header with this name (case-insensitive), if any.
    std::optional<std::string> HeaderValue(std::string_view name) const;
};

struct ScriptedResponse {
    int status = 200;
    std::vector<Header> headers; // Content-Length is added unless given here
    std::string body;
    bool closeAfter = false;        // close the connection after this answer
    std::optional<std::string> raw; // if set: write exactly these bytes instead, then close
};

// Per-connection state for handlers that bind something to the TCP connection (NTLM does).
using ConnectionContext = lxrepo::ConnectionState;

class RecordingServer {
public:
    using Handler = std::function<ScriptedResponse(const RecordedRequest&, ConnectionContext&)>;

    // Binds a free port on bindAddress (any address of 127/8, or "::1") and serves at once, over
    // TLS with the certificate when one is given.
    explicit RecordingServer(std::string bindAddress = "127.0.0.1", const TlsFiles* tls = nullptr);
    ~RecordingServer();
    RecordingServer(const RecordingServer&) = delete;
    RecordingServer& operator=(const RecordingServer&) = delete;

    unsigned short Port() const;
    std::string BaseUrl() const; // "http(s)://<address>:<port>", IPv6 in brackets

    void SetDefault(ScriptedResponse); // when the queue is empty and no handler is set
    void Enqueue(ScriptedResponse);    // consumed one per request before the default
    void SetHandler(Handler);          // when set, decides every answer

    std::vector<RecordedRequest> Requests() const; // in arrival order
    void Clear();                                  // forgets the recorded requests

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace testsupport
