// Reads structured values out of a fuzzer's byte string. Running out of bytes yields zeros, so
// every input decodes to something. Check and Outcome serve the targets' own checks.
#pragma once

#include "host/Framework.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>

// A finding: libFuzzer keeps the input that broke the condition.
inline void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// What a writer produced, or how it failed, so that two writers can be compared in both.
template <class Write> std::string Outcome(Write write) {
    try {
        return write();
    } catch (const std::exception& e) {
        return std::string("failure: ") + e.what();
    }
}

class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    bool Empty() const { return pos_ == size_; }

    std::uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }

    std::uint32_t Word() {
        std::uint32_t word = 0;
        for (int i = 0; i < 4; ++i) {
            word = (word << 8) | Byte();
        }
        return word;
    }

    int Int() { return static_cast<int>(Word()); } // two's complement: any bit pattern

    // Up to 31 code units. A byte below 0x80 is that character (NUL included); up to 0xEF two
    // more bytes give a 16-bit unit (surrogates included); above, four more give any wchar_t
    // bit pattern, also past U+10FFFF or negative.
    CString Text() {
        const int length = Byte() % 32;
        std::wstring text;
        for (int i = 0; i < length && !Empty(); ++i) {
            const std::uint8_t lead = Byte();
            std::uint32_t unit = lead;
            if (lead >= 0xF0) {
                unit = Word();
            } else if (lead >= 0x80) {
                unit = (std::uint32_t{Byte()} << 8) | Byte();
            }
            static_assert(sizeof(wchar_t) <= sizeof unit);
            text += static_cast<wchar_t>(unit);
        }
        return CString(text.data(), static_cast<int>(text.size()));
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};
