#include "client/JsonText.h"

#include "client/TextConversion.h"

#include <cstring>
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

namespace {

// Most values are short and plain ASCII. Those are gathered on the stack and appended once: no
// room made (and zeroed) in out beforehand, no second scan for escapes, and for text that ends at
// its NUL no separate pass to find its length. Returns how many units went out this way; the
// first unit that is not plain ASCII hands the rest to the general conversion.
template <class More>
std::size_t AppendPlainPrefix(std::string& out, const wchar_t* text, More more) {
    constexpr std::size_t kShort = 128;
    char plain[kShort + 2];
    char* put = plain;
    *put++ = '"';
    std::size_t i = 0;
    for (; i < kShort && more(i); ++i) {
        const auto unit = static_cast<std::uint32_t>(text[i]);
        if (unit < 0x20 || unit >= 0x80 || unit == '"' || unit == '\\') {
            break;
        }
        *put++ = static_cast<char>(unit);
    }
    if (!more(i)) {
        *put++ = '"';
    }
    out.append(plain, put);
    return i;
}

void AppendGeneralTail(std::string& out, const wchar_t* text, std::size_t length) {
    const std::size_t start = out.size();
    AppendUtf8(out, text, length);
    EscapeTail(out, start);
    out += '"';
}

} // namespace

void AppendJsonString(std::string& out, const wchar_t* text, std::size_t length) {
    const std::size_t done =
        AppendPlainPrefix(out, text, [length](std::size_t i) { return i < length; });
    if (done != length) {
        AppendGeneralTail(out, text + done, length - done);
    }
}

void AppendJsonString(std::string& out, const wchar_t* text) {
    const std::size_t done =
        AppendPlainPrefix(out, text, [text](std::size_t i) { return text[i] != L'\0'; });
    if (text[done] != L'\0') {
        AppendGeneralTail(out, text + done, std::wcslen(text + done));
    }
}

void AppendJsonString(std::string& out, const CString& text) {
    AppendJsonString(out, text.GetString());
}

namespace {

// Every number below 10,000 as four digits, zeros in front. A number goes out as at most three
// such groups, the first without its leading zeros; twice as fast as std::to_chars here, which
// matters for the tens of millions of ids of a large import.
struct DigitGroups {
    char digits[10000][4];

    constexpr DigitGroups() : digits{} {
        for (int n = 0; n < 10000; ++n) {
            digits[n][0] = static_cast<char>('0' + n / 1000);
            digits[n][1] = static_cast<char>('0' + n / 100 % 10);
            digits[n][2] = static_cast<char>('0' + n / 10 % 10);
            digits[n][3] = static_cast<char>('0' + n % 10);
        }
    }
};
constexpr DigitGroups kGroups{};

// Writes n < 10,000 without leading zeros. Four bytes are always copied: a short number's read runs
// on into the next row of the table, and what lands past its digits is overwritten by what
// follows or lies past the end of the text, within the room promised for it.
char* PutLeadingGroup(char* out, std::uint32_t n) {
    const unsigned length = 1u + (n >= 10u) + (n >= 100u) + (n >= 1000u);
    std::memcpy(out, kGroups.digits[n] + (4 - length), 4);
    return out + length;
}

char* PutGroup(char* out, std::uint32_t n) {
    std::memcpy(out, kGroups.digits[n], 4);
    return out + 4;
}

char* PutInt(char* out, std::int32_t number) {
    auto n = static_cast<std::uint32_t>(number);
    if (number < 0) {
        *out++ = '-';
        n = 0u - n;
    }
    if (n < 10000u) {
        return PutLeadingGroup(out, n);
    }
    if (n < 100000000u) {
        return PutGroup(PutLeadingGroup(out, n / 10000u), n % 10000u);
    }
    const std::uint32_t low = n % 100000000u;
    return PutGroup(PutGroup(PutLeadingGroup(out, n / 100000000u), low / 10000u), low % 10000u);
}

} // namespace

void AppendJsonInt(std::string& out, std::int32_t number) {
    char digits[16]; // the longest number, 11 characters, and a group copied whole past it
    out.append(digits, PutInt(digits, number));
}

char* WriteJsonIntArray(char* out, const std::int32_t* numbers, std::size_t count) {
    // The room is sized for the longest possible text, so no number needs a bounds check and
    // nothing is cleared first.
    *out++ = '[';
    for (std::size_t i = 0; i < count; ++i) {
        if (i != 0) {
            *out++ = ',';
        }
        out = PutInt(out, numbers[i]);
    }
    *out++ = ']';
    return out;
}
