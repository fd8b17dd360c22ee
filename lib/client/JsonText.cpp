#include "client/JsonText.h"

#include "client/TextConversion.h"

#include <charconv>
#include <cwchar>

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

bool NeedsEscape(unsigned char c) { return c < 0x20 || c == '"' || c == '\\'; }

void AppendEscaped(std::string& out, unsigned char c) {
    switch (c) {
    case '"': out += "\\\""; return;
    case '\\': out += "\\\\"; return;
    case '\b': out += "\\b"; return;
    case '\f': out += "\\f"; return;
    case '\n': out += "\\n"; return;
    case '\r': out += "\\r"; return;
    case '\t': out += "\\t"; return;
    default: break;
    }
    const char code[] = {'\\', 'u', '0', '0', kHexDigits[c >> 4], kHexDigits[c & 0xF]};
    out.append(code, sizeof code);
}

// Escapes out[from, end) in place. Most values need nothing, so the common path is one scan.
void EscapeTail(std::string& out, std::size_t from) {
    std::size_t i = from;
    while (i < out.size() && !NeedsEscape(static_cast<unsigned char>(out[i]))) {
        ++i;
    }
    if (i == out.size()) {
        return;
    }
    const std::string tail = out.substr(i);
    out.resize(i);
    for (const char c : tail) {
        if (NeedsEscape(static_cast<unsigned char>(c))) {
            AppendEscaped(out, static_cast<unsigned char>(c));
        } else {
            out += c;
        }
    }
}

} // namespace

void AppendJsonString(std::string& out, const wchar_t* text, std::size_t length) {
    out += '"';
    const std::size_t start = out.size();
    AppendUtf8(out, text, length);
    EscapeTail(out, start);
    out += '"';
}

void AppendJsonString(std::string& out, const CString& text) {
    const wchar_t* p = text.GetString();
    AppendJsonString(out, p, std::wcslen(p));
}

void AppendJsonInt(std::string& out, std::int32_t number) {
    char digits[16];
    const auto result = std::to_chars(digits, digits + sizeof digits, number);
    out.append(digits, result.ptr);
}

JsonText JsonIntArray(const std::int32_t* numbers, std::size_t count) {
    JsonText body;
    // Ids of a chunk are mostly short; reserving for seven characters each avoids most regrowth
    // without holding much more than the text needs.
    body.utf8.reserve(2 + count * 7);
    body.utf8 += '[';
    for (std::size_t i = 0; i < count; ++i) {
        if (i != 0) {
            body.utf8 += ',';
        }
        AppendJsonInt(body.utf8, numbers[i]);
    }
    body.utf8 += ']';
    return body;
}
