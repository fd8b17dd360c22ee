#include "support/FaultServer.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace testsupport {

namespace {

[[noreturn]] void ThrowErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The value of a header in a raw request head, or "" when it is absent.
std::string HeaderIn(const std::string& head, const std::string& name) {
    const std::string lower = Lower(head);
    const std::string key = "\r\n" + name + ":";
    const std::size_t at = lower.find(key);
    if (at == std::string::npos) {
        return "";
    }
    const std::size_t start = head.find_first_not_of(' ', at + key.size());
    return Lower(head.substr(start, head.find("\r\n", start) - start));
}

const char* Reason(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 401:
        return "Unauthorized";
    default:
        return "Status";
    }
}

std::string Head(const FaultAnswer& answer, std::size_t contentLength, bool close) {
    std::string head =
        "HTTP/1.1 " + std::to_string(answer.status) + " " + Reason(answer.status) + "\r\n";
    for (const auto& [name, value] : answer.headers) {
        head += name + ": " + value + "\r\n";
    }
    head += "Content-Length: " + std::to_string(contentLength) + "\r\n";
    if (close) {
        head += "Connection: close\r\n";
    }
    return head + "\r\n";
}

// What a server that speaks something else might send: a TLS record header, NUL and high bytes,
// and a line break so that a reader looking for the end of a status line finds one.
const std::string kGarbage("\x16\x03\x01\x00\xa5\x01\x00\x00\xa1\x03\x03\xff\xfe garbage\r\n\r\n",
                           25);

} // namespace

FaultServer::FaultServer(Fault fault, FaultAnswer answer, std::size_t answeredFirst,
                         std::string bindAddress)
    : m_fault(fault), m_answer(std::move(answer)), m_answeredFirst(answeredFirst),
      m_bindAddress(std::move(bindAddress)) {
    m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listener < 0) {
        ThrowErrno("socket");
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = 0;
    if (::inet_pton(AF_INET, m_bindAddress.c_str(), &address.sin_addr) != 1 ||
        ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listener, 16) != 0) {
        const int error = errno;
        ::close(m_listener);
        throw std::system_error(error, std::generic_category(), "bind " + m_bindAddress);
    }
    socklen_t length = sizeof address;
    ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
    if (m_fault == Fault::Refuse && m_answeredFirst == 0) {
        ::close(m_listener);
        m_listener = -1;
        return;
    }
    m_acceptor = std::thread([this] { AcceptLoop(); });
}

FaultServer::~FaultServer() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
        for (int connection : m_open) {
            ::shutdown(connection, SHUT_RDWR);
        }
        if (m_listener >= 0) {
            ::shutdown(m_listener, SHUT_RDWR);
        }
    }
    m_stopping.notify_all();
    if (m_acceptor.joinable()) {
        m_acceptor.join();
    }
    for (std::thread& thread : m_threads) {
        thread.join();
    }
    if (m_listener >= 0) {
        ::close(m_listener);
    }
}

std::string FaultServer::BaseUrl() const {
    return "http://" + m_bindAddress + ":" + std::to_string(m_port);
}

std::size_t FaultServer::RequestCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

void FaultServer::AcceptLoop() {
    for (;;) {
        const int connection = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard<std::mutex> lock(m_mutex);
        if (connection < 0 || m_stop) {
            if (connection >= 0) {
                ::close(connection);
            }
            return;
        }
        m_open.push_back(connection);
        m_threads.emplace_back([this, connection] { Serve(connection); });
        if (m_fault == Fault::Refuse && ++m_connections == m_answeredFirst) {
            // From now on nothing listens on the port.
            ::close(m_listener);
            m_listener = -1;
            return;
        }
    }
}

void FaultServer::Serve(int connection) {
    std::string pending;
    while (ReadRequest(connection, pending)) {
        std::size_t number = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            number = ++m_requests;
        }
        if (number <= m_answeredFirst || m_fault == Fault::Refuse) {
            SendAnswer(connection, FaultAnswer{}, Fault::Answer);
            continue;
        }
        SendAnswer(connection, m_answer, m_fault);
        if (m_fault != Fault::Answer && m_fault != Fault::Slow) {
            break;
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open.erase(std::find(m_open.begin(), m_open.end(), connection));
    }
    ::close(connection);
    m_closed.notify_all();
}

bool FaultServer::WaitUntilAllClosed(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_closed.wait_for(lock, timeout, [this] { return m_open.empty(); });
}

// Reads one request head and its body (by Content-Length, or up to the last chunk) into nothing;
// false when the client closed or the server stops.
bool FaultServer::ReadRequest(int connection, std::string& pending) {
    const auto readMore = [&] {
        char buffer[16384];
        const ssize_t got = ::recv(connection, buffer, sizeof buffer, 0);
        if (got <= 0) {
            return false;
        }
        pending.append(buffer, static_cast<std::size_t>(got));
        return true;
    };
    std::size_t headEnd;
    while ((headEnd = pending.find("\r\n\r\n")) == std::string::npos) {
        if (!readMore()) {
            return false;
        }
    }
    const std::string head = pending.substr(0, headEnd + 2);
    pending.erase(0, headEnd + 4);
    if (HeaderIn(head, "transfer-encoding").find("chunked") != std::string::npos) {
        std::size_t end;
        while ((end = ("\r\n" + pending).find("\r\n0\r\n\r\n")) == std::string::npos) {
            if (!readMore()) {
                return false;
            }
        }
        pending.erase(0, end + 5);
        return true;
    }
    const std::size_t bodyLength =
        std::strtoull(HeaderIn(head, "content-length").c_str(), nullptr, 10);
    while (pending.size() < bodyLength) {
        if (!readMore()) {
            return false;
        }
    }
    pending.erase(0, bodyLength);
    return true;
}

void FaultServer::SendAnswer(int connection, const FaultAnswer& answer, Fault fault) {
    const std::string& body = answer.body;
    switch (fault) {
    case Fault::Answer:
        if (SendAll(connection, Head(answer, body.size(), false))) {
            SendAll(connection, body);
        }
        return;
    case Fault::Refuse:
    case Fault::CloseBeforeAnswer:
        return;
    case Fault::CloseInHeaders: {
        const std::string head = Head(answer, body.size(), true);
        SendAll(connection, head.substr(0, head.size() / 2));
        return;
    }
    case Fault::CloseInBody:
        SendAll(connection, Head(answer, body.size(), true) + body.substr(0, body.size() / 2));
        return;
    case Fault::ContentLengthTooLarge:
        if (SendAll(connection, Head(answer, body.size() + 1000, true))) {
            SendAll(connection, body);
        }
        return;
    case Fault::Slow: {
        // The head's last five bytes a second apart, so that not even the head is complete
        // before five seconds have passed; then the body a byte at a time, within two more.
        const std::string whole = Head(answer, body.size(), false) + body;
        const std::size_t headEnd = whole.size() - body.size();
        const int bodyInterval =
            body.empty() ? 0 : std::min<int>(1000, static_cast<int>(2000 / body.size()));
        if (!SendAll(connection, whole.substr(0, headEnd - 5))) {
            return;
        }
        for (std::size_t i = headEnd - 5; i < whole.size(); ++i) {
            if (!Pause(i < headEnd ? 1000 : bodyInterval) ||
                !SendAll(connection, whole.substr(i, 1))) {
                return;
            }
        }
        return;
    }
    case Fault::Garbage:
        SendAll(connection, kGarbage);
        return;
    }
}

bool FaultServer::SendAll(int connection, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n =
            ::send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

bool FaultServer::Pause(int milliseconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_stopping.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                [this] { return m_stop; });
}

} // namespace testsupport
