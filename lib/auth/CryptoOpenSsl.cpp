#include "auth/CryptoPrimitives.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <climits>
#include <stdexcept>

bool FillRandomBytes(unsigned char* data, std::size_t size) {
    return size <= INT_MAX && RAND_bytes(data, static_cast<int>(size)) == 1;
}

std::array<unsigned char, 32> Sha256(const std::string& text) {
    std::array<unsigned char, 32> digest{};
    unsigned int digestSize = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &digestSize, EVP_sha256(), nullptr) !=
            1 ||
        digestSize != digest.size()) {
        throw std::runtime_error("SHA-256 of the code verifier failed");
    }
    return digest;
}
