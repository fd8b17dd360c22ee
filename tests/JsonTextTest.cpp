// The JSON text writer against cpprestsdk: for every input, the bytes serialize() gives for the
// same value, or the same failure. Wide text reaches the reference through cpprestsdk's own UTF-16
// conversion, so the library's conversion is checked as well, not compared with itself.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/JsonText.h"

#include <cpprest/json.h>

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
        if (u <= 0xFFFF) {
            utf16 += static_cast<char16_t>(u);
        } else if (u <= 0x10FFFF) {
            utf16 += static_cast<char16_t>(0xD800 + ((u - 0x10000) >> 10));
            utf16 += static_cast<char16_t>(0xDC00 + (u & 0x3FF));
        } else {
            utf16 += u'\xFFFD';
        }
    }
    return Outcome([&] {
        return to_utf8string(web::json::value::string(utility::conversions::to_string_t(
                                                          utility::conversions::utf16_to_utf8(utf16)))
                                 .serialize());
    });
}

// Both ways in, by length and up to the NUL, must give the same; the latter only applies to text
// without a NUL of its own.
std::string Written(const std::wstring& text) {
    std::string byLength, toNul;
    const std::string written = Outcome([&] { return AppendJsonString(byLength, text.data(), text.size()), byLength; });
    const bool hasNul = text.find(L'\0') != std::wstring::npos;
    if (!hasNul && Outcome([&] { return AppendJsonString(toNul, text.c_str()), toNul; }) != written) {
        return "up to the NUL: " + toNul;
    }
    return written;
}

// Code units chosen to hit every escape and every UTF-8 length, surrogates paired and alone, and
// units beyond Unicode.
wchar_t InterestingUnit(std::mt19937& random) {
    static const std::uint32_t kSpecial[] = {
        0x00, 0x01, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x1F, 0x20, '"', '\\', '/', 0x7F, 0x80,
        0xE9, 0x7FF, 0x800, 0xFFFD, 0xFFFF, 0x10000, 0x1F600, 0x10FFFF, 0x110000, 0xD800, 0xDBFF,
        0xDC00, 0xDFFF};
    switch (random() % 4) {
    case 0: return static_cast<wchar_t>(kSpecial[random() % std::size(kSpecial)]);
    case 1: return static_cast<wchar_t>(0x20 + random() % 0x5F);
    case 2: return static_cast<wchar_t>(random() % 0x10000);
    default: return static_cast<wchar_t>(random() % 0x110000);
    }
}

std::wstring RandomText(std::mt19937& random, std::size_t maxLength) {
    std::wstring text(random() % (maxLength + 1), L'a');
    for (wchar_t& unit : text) {
        unit = InterestingUnit(random);
    }
    return text;
}

// Plain ASCII up to 300 units with one unit of any kind somewhere, mostly: wherever the plain
// stretch ends, before, at or after the writer's short-text limit, the rest must come out the same.
std::wstring PlainStretch(std::mt19937& random) {
    std::wstring text(random() % 300, L'a');
    for (wchar_t& unit : text) {
        unit = static_cast<wchar_t>(0x20 + random() % 0x5F);
    }
    if (!text.empty() && random() % 4 != 0) {
        text[random() % text.size()] = InterestingUnit(random);
    }
    return text;
}

TEST(JsonTextString, MatchesSerialize) {
    std::vector<std::wstring> texts = {std::wstring(1, static_cast<wchar_t>(0x7FFFFFFF))};
    for (std::uint32_t unit = 0; unit < 0x11000; ++unit) {
        texts.emplace_back(1, static_cast<wchar_t>(unit));
    }
    std::mt19937 random(20261123);
    for (int i = 0; i < 20000; ++i) {
        texts.push_back(RandomText(random, 24));
        texts.push_back(PlainStretch(random));
    }
    for (std::size_t i = 0; i < texts.size(); ++i) {
        ASSERT_EQ(Written(texts[i]), Reference(texts[i])) << "case: text " << i;
    }
}

std::string IntsViaValue(const std::vector<std::int32_t>& numbers) {
    std::vector<web::json::value> elements;
    for (const std::int32_t n : numbers) {
        elements.push_back(web::json::value::number(n));
    }
    return to_utf8string(web::json::value::array(elements).serialize());
}

// Written into room of exactly the promised capacity; under AddressSanitizer a write past it fails.
std::string WrittenInts(const std::vector<std::int32_t>& numbers) {
    const std::unique_ptr<char[]> room(new char[JsonIntArrayCapacity(numbers.size())]);
    return std::string(room.get(), WriteJsonIntArray(room.get(), numbers.data(), numbers.size()));
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
    for (std::int32_t& n : cases.back()) {
        n = static_cast<std::int32_t>(random());
    }
    for (const auto& numbers : cases) {
        EXPECT_EQ(WrittenInts(numbers), IntsViaValue(numbers)) << "case: " << numbers.size() << " numbers";
    }
}

} // namespace
