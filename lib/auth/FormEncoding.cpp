#include "auth/FormEncoding.h"

namespace {

bool IsUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           c == '-' || c == '.' || c == '_' || c == '~';
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// A '%' without two hex digits after it is kept as it stands, as browsers do.
std::string Decode(const std::string& encoded, std::size_t begin, std::size_t end) {
    std::string out;
    out.reserve(end - begin);
    for (std::size_t i = begin; i < end; ++i) {
        if (encoded[i] == '+') {
            out += ' ';
        } else if (encoded[i] == '%' && i + 2 < end && HexValue(encoded[i + 1]) >= 0 &&
                   HexValue(encoded[i + 2]) >= 0) {
            out += static_cast<char>(HexValue(encoded[i + 1]) * 16 + HexValue(encoded[i + 2]));
            i += 2;
        } else {
            out += encoded[i];
        }
    }
    return out;
}

} // namespace

void AppendFormEncoded(std::string& out, const std::string& text) {
    static const char hex[] = "0123456789ABCDEF";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (IsUnreserved(byte)) {
            out += c;
        } else {
            out += '%';
            out += hex[byte >> 4];
            out += hex[byte & 15];
        }
    }
}

void AppendFormField(std::string& body, const std::string& name, const std::string& value) {
    if (!body.empty()) {
        body += '&';
    }
    AppendFormEncoded(body, name);
    body += '=';
    AppendFormEncoded(body, value);
}

std::map<std::string, std::string> ParseFormFields(const std::string& encoded) {
    std::map<std::string, std::string> fields;
    std::size_t begin = 0;
    while (begin <= encoded.size()) {
        std::size_t end = encoded.find('&', begin);
        if (end == std::string::npos) {
            end = encoded.size();
        }
        if (end > begin) {
            std::size_t equals = encoded.find('=', begin);
            if (equals == std::string::npos || equals > end) {
                equals = end;
            }
            const std::size_t valueBegin = equals < end ? equals + 1 : end;
            fields.emplace(Decode(encoded, begin, equals), Decode(encoded, valueBegin, end));
        }
        begin = end + 1;
    }
    return fields;
}
