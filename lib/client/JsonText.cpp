#include "client/JsonText.h"

#include "client/TextConversion.h"

#include <charconv>
#include <cwchar>
#include <memory>

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
    // Written into a scratch block sized for the longest possible text, then copied once into a
    // string of the exact length: appending number by number costs a capacity check per number and
    // regrowth copies, and the scratch block is never cleared first.
    constexpr std::size_t kLongest = sizeof "-2147483648,";
    const std::unique_ptr<char[]> scratch(new char[2 + count * kLongest]);
    char* const begin = scratch.get();
    char* const limit = begin + 2 + count * kLongest;
    char* out = begin;
    *out++ = '[';
    for (std::size_t i = 0; i < count; ++i) {
        if (i != 0) {
            *out++ = ',';
        }
        out = std::to_chars(out, limit, numbers[i]).ptr;
    }
    *out++ = ']';
    return JsonText{std::string(begin, out)};
}
