// A loopback HTTP/1.1 sink for benchmarks: reads every request with its body, keeps nothing but
// a byte count, and answers 200 with a small JSON body (which also satisfies a connection test's
// version question, so one sink serves as both proxy and service). One thread polls all
// connections, so its own footprint stays flat however many connections the clients open.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <thread>

class DiscardingServer {
public:
    DiscardingServer();
    ~DiscardingServer();
    DiscardingServer(const DiscardingServer&) = delete;
    DiscardingServer& operator=(const DiscardingServer&) = delete;

    std::string BaseUrl() const;
    std::uint64_t BodyBytes() const { return m_bodyBytes.load(); }

private:
    struct Connection {
        std::string head;
        std::size_t bodyLeft = 0;
        bool inBody = false;
    };

    void Run();
    bool Receive(int socket, Connection& connection);

    int m_listener = -1;
    int m_wake[2] = {-1, -1};
    unsigned short m_port = 0;
    std::atomic<std::uint64_t> m_bodyBytes{0};
    std::map<int, Connection> m_connections;
    std::thread m_thread;
};
