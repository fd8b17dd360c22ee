#include "auth/CryptoPrimitives.h"

// windows.h first: bcrypt.h relies on its types.
#include <windows.h>

#include <bcrypt.h>

#include <climits>
#include <stdexcept>

namespace {

bool Succeeded(NTSTATUS status) { return status >= 0; }

} // namespace

bool FillRandomBytes(unsigned char* data, std::size_t size) {
    return size <= ULONG_MAX && Succeeded(BCryptGenRandom(nullptr, data, static_cast<ULONG>(size),
                                                          BCRYPT_USE_SYSTEM_PREFERRED_RNG));
}

std::array<unsigned char, 32> Sha256(const std::string& text) {
    std::array<unsigned char, 32> digest{};
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    // The input is a fresh verifier of a few dozen bytes: ULONG never truncates it.
    bool done =
        Succeeded(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0)) &&
        Succeeded(BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0)) &&
        Succeeded(BCryptHashData(hash, reinterpret_cast<PUCHAR>(const_cast<char*>(text.data())),
                                 static_cast<ULONG>(text.size()), 0)) &&
        Succeeded(BCryptFinishHash(hash, digest.data(), static_cast<ULONG>(digest.size()), 0));
    if (hash) {
        BCryptDestroyHash(hash);
    }
    if (algorithm) {
        BCryptCloseAlgorithmProvider(algorithm, 0);
    }
    if (!done) {
        throw std::runtime_error("SHA-256 of the code verifier failed");
    }
    return digest;
}
