// The JSON text writer against cpprestsdk: for every input, the bytes serialize() gives for the
// same value, or the same failure. Wide text reaches the reference through cpprestsdk's own UTF-16
// conversion, so the library's conversion is checked as well, not compared with itself.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/JsonText.h"

#include <cpprest/json.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

using utility::conversions::to_utf8string;

namespace {

template <class Write> std::string Outcome(Write write) {
    try {
        return write();
    } catch (const std::exception& e) {
        return std::string("failure: ") + e.what();
    }
}

// The same text as cpprestsdk takes it where wchar_t is UTF-16: units beyond 16 bits as their
// surrogate pair, units beyond Unicode as the replacement character.
std::string Reference(const std::wstring& text) {
    std::u16string utf16;
    for (const wchar_t unit : text) {
        const auto u = static_cast<std::uint32_t>(unit);
        if (u > 0xFFFF && u <= 0x10FFFF) {
            utf16 += {char16_t(0xD800 + ((u - 0x10000) >> 10)), char16_t(0xDC00 + (u & 0x3FF))};
        } else {
            utf16 += char16_t(u <= 0xFFFF ? u : 0xFFFD);
        }
    }
    return Outcome([&] {
        return to_utf8string(
            web::json::value::string(utility::conversions::to_string_t(utf16)).serialize());
    });
}

// Both ways in, by length and up to the NUL, must give the same; the latter only applies to text
// without a NUL of its own.
std::string Written(const std::wstring& text) {
    std::string byLength, toNul;
    const std::string written =
        Outcome([&] { return AppendJsonString(byLength, text.data(), text.size()), byLength; });
    if (text.find(L'\0') == std::wstring::npos &&
        Outcome([&] { return AppendJsonString(toNul, text.c_str()), toNul; }) != written) {
        return "up to the NUL: " + toNul;
    }
    return written;
}

// Every code unit up to U+10FFF alone; then every pair of units that hit an escape, a UTF-8
// length, a surrogate (paired and alone) or lie beyond Unicode, after plain ASCII that ends
// before, at or after the writer's 128-unit short-text path, and plain text after the pair.
TEST(JsonTextString, MatchesSerialize) {
    std::vector<std::wstring> texts = {std::wstring(1, static_cast<wchar_t>(0x7FFFFFFF))};
    for (std::uint32_t unit = 0; unit < 0x11000; ++unit) {
        texts.emplace_back(1, static_cast<wchar_t>(unit));
    }
    const wchar_t interesting[] = {0x00,   0x01,   0x08,    0x09,    0x0A,     0x0C,    0x0D,
                                   0x1F,   0x20,   '"',     '\\',    '/',      0x7F,    0x80,
                                   0x7FF,  0x800,  0xD7FF,  0xD800,  0xDBFF,   0xDC00,  0xDFFF,
                                   0xE000, 0xFFFF, 0x10000, 0x1F600, 0x10FFFF, 0x110000};
    for (const std::size_t plain : {0, 1, 125, 126, 127, 128, 129, 200}) {
        for (const wchar_t first : interesting) {
            for (const wchar_t second : interesting) {
                texts.push_back(std::wstring(plain, L'p') + first + second + L"q");
            }
        }
    }
    for (std::size_t i = 0; i < texts.size(); ++i) {
        ASSERT_EQ(Written(texts[i]), Reference(texts[i])) << "case: text " << i;
    }
}

// Both sides of every power of ten, both signs (where the writer splits a number into groups),
// each alone and all together, then many at random.
TEST(JsonTextIntArray, MatchesSerialize) {
    std::vector<std::vector<std::int32_t>> cases = {{}, {INT_MIN, INT_MAX}, {}};
    for (std::int64_t power = 1; power <= INT_MAX; power *= 10) {
        for (const std::int64_t n : {power - 1, power, power + 1, -power + 1, -power, -power - 1}) {
            cases.push_back({static_cast<std::int32_t>(n)});
            cases[2].push_back(static_cast<std::int32_t>(n));
        }
    }
    std::mt19937 random(7);
    cases.emplace_back(300000);
    std::generate(cases.back().begin(), cases.back().end(), [&] { return std::int32_t(random()); });
    for (const auto& numbers : cases) {
        const std::vector<web::json::value> elements(numbers.begin(), numbers.end());
        // Written into exactly the promised room: AddressSanitizer sees a write past it.
        const std::unique_ptr<char[]> room(new char[JsonIntArrayCapacity(numbers.size())]);
        char* end = WriteJsonIntArray(room.get(), numbers.data(), numbers.size());
        EXPECT_EQ(std::string(room.get(), end),
                  to_utf8string(web::json::value::array(elements).serialize()))
            << "case: " << numbers.size() << " numbers";
    }
}

} // namespace
