// The access token must not survive in memory the library gives back to the heap. This binary
// replaces the global allocation functions so that every block freed while a scan is armed is
// searched for the token before it is released.
#include <gtest/gtest.h>

#include "client/AuthenticationSettings.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

std::atomic<bool> g_scanning{false};
const void* g_needle = nullptr;
std::size_t g_needleSize = 0;
std::atomic<int> g_blocksWithSecret{0};

void ScanBeforeFree(void* block) {
    if (block == nullptr || !g_scanning.load()) {
        return;
    }
    const std::size_t size = malloc_usable_size(block);
    const auto* bytes = static_cast<const unsigned char*>(block);
    for (std::size_t i = 0; i + g_needleSize <= size; ++i) {
        if (std::memcmp(bytes + i, g_needle, g_needleSize) == 0) {
            ++g_blocksWithSecret;
            return;
        }
    }
}

} // namespace

void* operator new(std::size_t size) {
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* p) noexcept {
    ScanBeforeFree(p);
    std::free(p);
}
void operator delete[](void* p) noexcept { ::operator delete(p); }
void operator delete(void* p, std::size_t) noexcept { ::operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { ::operator delete(p); }

namespace {

class SecretScan {
public:
    explicit SecretScan(const std::wstring& secret) {
        g_needle = secret.data();
        g_needleSize = secret.size() * sizeof(wchar_t);
        g_blocksWithSecret = 0;
        g_scanning = true;
    }
    ~SecretScan() { g_scanning = false; }
    int BlocksFreedWithSecret() const { return g_blocksWithSecret.load(); }
};

TEST(SecretWipe, TokenIsWipedWhenTheSettingsAreFreedAndWhenItIsReplaced) {
    // Long enough to live on the heap, not inside the string object.
    const std::wstring first(L"eyJhbGciOiJSUzI1NiJ9.first-token-payload.signature");
    const std::wstring second(L"eyJhbGciOiJSUzI1NiJ9.second-token-that-is-longer-than-the-first");
    {
        auto* settings = new AuthenticationSettings;
        SecretScan scan(first);
        ReplaceSecret(settings->accessToken, first);
        ReplaceSecret(settings->accessToken, second);
        EXPECT_EQ(scan.BlocksFreedWithSecret(), 0) << "the replaced token was freed unwiped";
        delete settings;
    }
    {
        auto* settings = new AuthenticationSettings;
        ReplaceSecret(settings->accessToken, second);
        SecretScan scan(second);
        delete settings;
        EXPECT_EQ(scan.BlocksFreedWithSecret(), 0) << "the token was freed unwiped";
    }
}

TEST(SecretWipe, TheScanFindsATokenThatIsFreedUnwiped) {
    // Guards the guard: without the wipe, the same scan must see the token.
    const std::wstring token(L"eyJhbGciOiJSUzI1NiJ9.plain-string-freed-without-wiping");
    SecretScan scan(token);
    { std::wstring copy = token; }
    EXPECT_EQ(scan.BlocksFreedWithSecret(), 1);
}

} // namespace
