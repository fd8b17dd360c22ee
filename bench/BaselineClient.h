// What a user would write by hand to upload the same bodies: text formatted straight into a
// string, posted with libcurl over one kept-alive connection. The yardstick for the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// [1,2,3] with std::to_chars.
std::string FormatIds(const std::int32_t* ids, std::size_t count);
// ["a","b"]: wide text to UTF-8 with the escapes JSON requires.
std::string FormatStrings(const std::wstring* texts, std::size_t count);

class BaselineClient {
public:
    explicit BaselineClient(std::string baseUrl);
    ~BaselineClient();
    BaselineClient(const BaselineClient&) = delete;
    BaselineClient& operator=(const BaselineClient&) = delete;

    // POSTs body as application/json; throws unless the answer is 200.
    void Post(const std::string& path, const std::string& body);

private:
    std::string m_baseUrl;
    void* m_curl;
    void* m_headers;
};
