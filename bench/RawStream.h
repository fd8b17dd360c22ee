// The floor: request bytes written to one loopback socket with nothing in between, each answer
// read before the next request, as the HTTP clients do.
#pragma once

#include <string>

class RawStream {
public:
    explicit RawStream(const std::string& baseUrl);
    ~RawStream();
    RawStream(const RawStream&) = delete;
    RawStream& operator=(const RawStream&) = delete;

    void Post(const std::string& path, const std::string& body);

private:
    int m_socket;
    std::string m_host;
};
