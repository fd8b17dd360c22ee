// A loopback server that answers badly on purpose: it reads each request in full and then breaks
// the answer in one chosen way. It works on raw sockets, since most of its answers are not HTTP
// a well-behaved server library would write.
//
// The server runs one thread for accepting and one per connection; the destructor shuts every
// socket down (so a client that is still reading sees the connection end) and joins them all.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace testsupport {

enum class Fault {
    Answer,                // the answer as given, keeping the connection open for more requests
    Refuse,                // the port is closed: connecting fails
    CloseBeforeAnswer,     // the request is read, then the connection is closed without a byte
    CloseInHeaders,        // half of the status line and headers, then close
    CloseInBody,           // the headers and half of the body, then close
    ContentLengthTooLarge, // Content-Length promises more than the body that follows, then close
    Slow,                  // the head's end a byte a second, then the body: 5 to 7 s in all
    Garbage,               // bytes that are not HTTP, then close
};

struct FaultAnswer {
    int status = 200;
    // Sent as given after the status line; Content-Length is added by the server.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

class FaultServer {
public:
    // Binds a free port on bindAddress (any address of 127/8). The first `answeredFirst` requests
    // get "200, empty body" and every later one the fault; with Fault::Refuse the listening socket
    // is closed once `answeredFirst` connections have been accepted (at once when it is 0).
    // Throws std::system_error if it cannot bind.
    FaultServer(Fault fault, FaultAnswer answer, std::size_t answeredFirst = 0,
                std::string bindAddress = "127.0.0.1");
    ~FaultServer();

    FaultServer(const FaultServer&) = delete;
    FaultServer& operator=(const FaultServer&) = delete;

    std::string BaseUrl() const;
    std::size_t RequestCount() const; // complete requests read so far
    // True once every connection accepted so far has ended: closed by the client, or by the
    // server after its fault. False if one is still open after timeout.
    bool WaitUntilAllClosed(std::chrono::milliseconds timeout) const;

private:
    void AcceptLoop();
    void Serve(int connection);
    bool ReadRequest(int connection, std::string& pending);
    void SendAnswer(int connection, const FaultAnswer& answer, Fault fault);
    bool SendAll(int connection, const std::string& bytes);
    bool Pause(int milliseconds); // false once the server is stopping

    const Fault m_fault;
    const FaultAnswer m_answer;
    const std::size_t m_answeredFirst;
    const std::string m_bindAddress;
    int m_listener = -1;
    unsigned short m_port = 0;

    mutable std::mutex m_mutex;
    std::condition_variable m_stopping;
    mutable std::condition_variable m_closed;
    bool m_stop = false;
    std::size_t m_requests = 0;
    std::size_t m_connections = 0;
    std::vector<int> m_open; // connection sockets not yet closed
    std::vector<std::thread> m_threads;
    std::thread m_acceptor;
};

} // namespace testsupport
