#include "auth/Pkce.h"

#include "auth/CryptoPrimitives.h"
#include "client/SecretWipe.h"

#include <stdexcept>
#include <vector>

std::string Base64UrlWithoutPadding(const unsigned char* data, std::size_t size) {
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string out;
    out.reserve((size * 4 + 2) / 3);
    std::size_t i = 0;
    for (; i + 2 < size; i += 3) {
        const unsigned int group = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
        out += alphabet[(group >> 18) & 63];
        out += alphabet[(group >> 12) & 63];
        out += alphabet[(group >> 6) & 63];
        out += alphabet[group & 63];
    }
    if (i + 1 == size) {
        const unsigned int group = data[i] << 16;
        out += alphabet[(group >> 18) & 63];
        out += alphabet[(group >> 12) & 63];
    } else if (i + 2 == size) {
        const unsigned int group = (data[i] << 16) | (data[i + 1] << 8);
        out += alphabet[(group >> 18) & 63];
        out += alphabet[(group >> 12) & 63];
        out += alphabet[(group >> 6) & 63];
    }
    return out;
}

std::string RandomUrlSafeText(std::size_t byteCount) {
    std::vector<unsigned char> bytes(byteCount);
    if (!FillRandomBytes(bytes.data(), bytes.size())) {
        throw std::runtime_error("The random number generator could not seed a login");
    }
    std::string text = Base64UrlWithoutPadding(bytes.data(), bytes.size());
    // The bytes are as secret as the verifier made from them.
    WipeSecretBytes(bytes.data(), bytes.size());
    return text;
}

std::string CodeChallengeS256(const std::string& verifier) {
    const auto digest = Sha256(verifier);
    return Base64UrlWithoutPadding(digest.data(), digest.size());
}
