#include "auth/Pkce.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

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
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("The random number generator could not seed a login");
    }
    std::string text = Base64UrlWithoutPadding(bytes.data(), bytes.size());
    // The bytes are as secret as the verifier made from them.
    OPENSSL_cleanse(bytes.data(), bytes.size());
    return text;
}

std::string CodeChallengeS256(const std::string& verifier) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestSize = 0;
    if (EVP_Digest(verifier.data(), verifier.size(), digest, &digestSize, EVP_sha256(), nullptr) !=
        1) {
        throw std::runtime_error("SHA-256 of the code verifier failed");
    }
    return Base64UrlWithoutPadding(digest, digestSize);
}
