#include "client/TextConversion.h"

#include <cwchar>
#include <stdexcept>
#include <type_traits>

namespace {

char* PutCodePoint(char* out, unsigned int cp) {
    if (cp < 0x80) {
        *out++ = static_cast<char>(cp);
    } else if (cp < 0x800) {
        *out++ = static_cast<char>(0xC0 | (cp >> 6));
        *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        *out++ = static_cast<char>(0xE0 | (cp >> 12));
        *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        *out++ = static_cast<char>(0xF0 | (cp >> 18));
        *out++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
    return out;
}

bool IsHighSurrogate(unsigned int unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(unsigned int unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// cpprestsdk's string_t is wide where wchar_t is UTF-16 and UTF-8 elsewhere.
using StringTIsWide = std::is_same<utility::char_t, wchar_t>;
[[maybe_unused]] std::wstring AsStringT(const std::wstring& text, std::true_type) { return text; }
[[maybe_unused]] std::string AsStringT(const std::wstring& text, std::false_type) { return ToUtf8(text); }
[[maybe_unused]] std::wstring AsWide(const std::wstring& text, std::true_type) { return text; }
[[maybe_unused]] std::wstring AsWide(const std::string& text, std::false_type) { return FromUtf8(text); }

} // namespace

// Written through a pointer into room made beforehand (no unit takes more than four bytes): bulk
// bodies convert every value they carry, and appending byte by byte costs a capacity check each.
void AppendUtf8(std::string& out, const wchar_t* text, std::size_t length) {
    const std::size_t start = out.size();
    out.resize(start + length * 4);
    char* put = &out[start];
    for (std::size_t i = 0; i < length; ++i) {
        auto unit = static_cast<unsigned int>(text[i]);
        if (unit < 0x80) {
            *put++ = static_cast<char>(unit);
            continue;
        }
        if (IsHighSurrogate(unit)) {
            if (i + 1 == length) {
                out.resize(start);
                throw std::range_error("UTF-16 string is missing low surrogate");
            }
            const auto low = static_cast<unsigned int>(text[++i]);
            if (!IsLowSurrogate(low)) {
                out.resize(start);
                throw std::range_error("UTF-16 string has invalid low surrogate");
            }
            unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        } else if (unit > 0x10FFFF) {
            unit = 0xFFFD;
        }
        put = PutCodePoint(put, unit);
    }
    out.resize(static_cast<std::size_t>(put - out.data()));
}

std::string ToUtf8(const wchar_t* text, std::size_t length) {
    std::string out;
    out.reserve(length);
    AppendUtf8(out, text, length);
    return out;
}

std::wstring FromUtf8(const std::string& text) {
    const CString wide(text.data(), static_cast<int>(text.size()));
    return std::wstring(wide.GetString(), static_cast<std::size_t>(wide.GetLength()));
}

utility::string_t ToStringT(const std::wstring& text) { return AsStringT(text, StringTIsWide{}); }

utility::string_t ToStringT(const CString& text) {
    const wchar_t* p = text.GetString();
    return ToStringT(std::wstring(p, std::wcslen(p)));
}

std::wstring ToWide(const utility::string_t& text) { return AsWide(text, StringTIsWide{}); }

CString ToCString(const utility::string_t& text) {
    const std::wstring wide = ToWide(text);
    return CString(wide.data(), static_cast<int>(wide.size()));
}
