#include "DiscardingServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <system_error>
#include <vector>

namespace {

const char kAnswer[] = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                       "Content-Length: 19\r\n\r\n{\"version\":\"1.0.0\"}";

std::size_t ContentLength(std::string head) {
    std::transform(head.begin(), head.end(), head.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const std::size_t at = head.find("\r\ncontent-length:");
    return at == std::string::npos ? 0 : std::stoul(head.substr(at + 17));
}

bool SendAll(int socket, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(socket, data, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

} // namespace

DiscardingServer::DiscardingServer() {
    m_listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (m_listener < 0 || ::pipe(m_wake) != 0 ||
        ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(m_listener, 128) != 0 ||
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::system_error(errno, std::generic_category(), "discarding server");
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { Run(); });
}

DiscardingServer::~DiscardingServer() {
    const char stop = 0;
    (void)!::write(m_wake[1], &stop, 1);
    m_thread.join();
    for (const auto& entry : m_connections) {
        ::close(entry.first);
    }
    ::close(m_listener);
    ::close(m_wake[0]);
    ::close(m_wake[1]);
}

std::string DiscardingServer::BaseUrl() const {
    return "http://127.0.0.1:" + std::to_string(m_port);
}

void DiscardingServer::Run() {
    std::vector<pollfd> watched;
    for (;;) {
        watched.assign({{m_wake[0], POLLIN, 0}, {m_listener, POLLIN, 0}});
        for (const auto& entry : m_connections) {
            watched.push_back({entry.first, POLLIN, 0});
        }
        if (::poll(watched.data(), watched.size(), -1) < 0) {
            continue;
        }
        if (watched[0].revents != 0) {
            return;
        }
        if (watched[1].revents != 0) {
            const int socket = ::accept(m_listener, nullptr, nullptr);
            if (socket >= 0) {
                m_connections[socket] = Connection{};
            }
        }
        for (std::size_t i = 2; i < watched.size(); ++i) {
            if (watched[i].revents != 0 && !Receive(watched[i].fd, m_connections[watched[i].fd])) {
                ::close(watched[i].fd);
                m_connections.erase(watched[i].fd);
            }
        }
    }
}

// One read's worth; false when the client has gone. Requests on a connection follow one another,
// each body counted and dropped as it arrives.
bool DiscardingServer::Receive(int socket, Connection& connection) {
    char buffer[64 * 1024];
    const ssize_t got = ::recv(socket, buffer, sizeof buffer, 0);
    if (got <= 0) {
        return false;
    }
    const auto size = static_cast<std::size_t>(got);
    std::size_t offset = 0;
    while (offset < size) {
        if (!connection.inBody) {
            connection.head.append(buffer + offset, size - offset);
            const std::size_t end = connection.head.find("\r\n\r\n");
            if (end == std::string::npos) {
                return true;
            }
            // What followed the head in this read already belongs to the body.
            offset = size - (connection.head.size() - (end + 4));
            connection.bodyLeft = ContentLength(connection.head.substr(0, end + 2));
            m_bodyBytes += connection.bodyLeft;
            connection.head.clear();
            connection.inBody = true;
        }
        const std::size_t take = std::min(connection.bodyLeft, size - offset);
        connection.bodyLeft -= take;
        offset += take;
        if (connection.bodyLeft == 0) {
            connection.inBody = false;
            if (!SendAll(socket, kAnswer, sizeof kAnswer - 1)) {
                return false;
            }
        }
    }
    return true;
}
