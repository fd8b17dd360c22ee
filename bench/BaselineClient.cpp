#include "BaselineClient.h"

#include <curl/curl.h>

#include <charconv>
#include <stdexcept>

std::string FormatIds(const std::int32_t* ids, std::size_t count) {
    std::string text(2 + count * 12, '\0');
    char* out = text.data();
    *out++ = '[';
    for (std::size_t i = 0; i < count; ++i) {
        if (i != 0) {
            *out++ = ',';
        }
        out = std::to_chars(out, text.data() + text.size(), ids[i]).ptr;
    }
    *out++ = ']';
    text.resize(static_cast<std::size_t>(out - text.data()));
    return text;
}

namespace {

void PutUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

void PutEscaped(std::string& out, const std::wstring& text) {
    static const char kHex[] = "0123456789ABCDEF";
    out += '"';
    for (const wchar_t unit : text) {
        const auto c = static_cast<char32_t>(unit);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            out += "\\u00";
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
        } else {
            PutUtf8(out, c);
        }
    }
    out += '"';
}

std::size_t Discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

} // namespace

std::string FormatStrings(const std::wstring* texts, std::size_t count) {
    std::string out = "[";
    for (std::size_t i = 0; i < count; ++i) {
        if (i != 0) {
            out += ',';
        }
        PutEscaped(out, texts[i]);
    }
    out += ']';
    return out;
}

BaselineClient::BaselineClient(std::string baseUrl)
    : m_baseUrl(std::move(baseUrl)), m_curl(curl_easy_init()), m_headers(nullptr) {
    if (m_curl == nullptr) {
        throw std::runtime_error("curl_easy_init failed");
    }
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    // Without this curl waits for a 100 Continue the sink never sends.
    headers = curl_slist_append(headers, "Expect:");
    m_headers = headers;
    CURL* curl = static_cast<CURL*>(m_curl);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Discard);
    curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
}

BaselineClient::~BaselineClient() {
    curl_slist_free_all(static_cast<curl_slist*>(m_headers));
    curl_easy_cleanup(static_cast<CURL*>(m_curl));
}

void BaselineClient::Post(const std::string& path, const std::string& body) {
    CURL* curl = static_cast<CURL*>(m_curl);
    const std::string url = m_baseUrl + path;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    const CURLcode result = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (result != CURLE_OK || status != 200) {
        throw std::runtime_error("baseline POST failed: " + std::string(curl_easy_strerror(result)));
    }
}
