#include "Base64.h"

#include <algorithm>

namespace lxrepo {

namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

std::string EncodeBase64(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        unsigned int bits = static_cast<unsigned char>(bytes[i]) << 16;
        if (n > 1) {
            bits |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        }
        if (n > 2) {
            bits |= static_cast<unsigned char>(bytes[i + 2]);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text.push_back(k <= n ? alphabet[(bits >> (18 - 6 * k)) & 0x3F] : '=');
        }
    }
    return text;
}

std::optional<std::string> DecodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::string bytes;
    for (std::size_t group = 0; group < text.size(); group += 4) {
        const bool last = group + 4 == text.size();
        unsigned int bits = 0;
        int padding = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const char c = text[group + i];
            if (c == '=' && last && i >= 2) {
                ++padding;
                bits <<= 6;
                continue;
            }
            const auto value = alphabet.find(c);
            if (value == std::string_view::npos || padding > 0) {
                return std::nullopt;
            }
            bits = (bits << 6) | static_cast<unsigned int>(value);
        }
        bytes.push_back(static_cast<char>(bits >> 16));
        if (padding < 2) {
            bytes.push_back(static_cast<char>(bits >> 8));
        }
        if (padding < 1) {
            bytes.push_back(static_cast<char>(bits));
        }
    }
    return bytes;
}

} // namespace lxrepo
