#include "RawStream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace {

void WriteAll(int socket, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(socket, data, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            throw std::runtime_error("raw stream: send failed");
        }
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

} // namespace

RawStream::RawStream(const std::string& baseUrl) : m_socket(::socket(AF_INET, SOCK_STREAM, 0)) {
    // baseUrl is http://127.0.0.1:<port>
    const std::size_t colon = baseUrl.rfind(':');
    m_host = baseUrl.substr(baseUrl.find("//") + 2);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(std::atoi(baseUrl.c_str() + colon + 1)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int one = 1;
    ::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (::connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("raw stream: connect failed");
    }
}

RawStream::~RawStream() { ::close(m_socket); }

void RawStream::Post(const std::string& path, const std::string& body) {
    const std::string head = "POST " + path + " HTTP/1.1\r\nHost: " + m_host +
                             "\r\nContent-Type: application/json\r\nContent-Length: " +
                             std::to_string(body.size()) + "\r\n\r\n";
    WriteAll(m_socket, head.data(), head.size());
    WriteAll(m_socket, body.data(), body.size());
    // The sink's answer is one short read: a status line, three headers and a tiny body.
    char answer[1024];
    const ssize_t got = ::recv(m_socket, answer, sizeof answer, 0);
    if (got <= 12 || std::string(answer, 12) != "HTTP/1.1 200") {
        throw std::runtime_error("raw stream: no 200 from the sink");
    }
}
