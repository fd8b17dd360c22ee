// The access token must not survive in memory the library gives back to the heap. This binary
// replaces the global deallocation so that every block freed while a scan is armed is searched
// for the token before it is released.
#include <gtest/gtest.h>

#include "client/AuthenticationSettings.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <string_view>

namespace {

std::atomic<const std::wstring*> g_secret{nullptr};
std::atomic<int> g_blocksWithSecret{0};

void ScanBeforeFree(void* block) {
    const std::wstring* secret = g_secret.load();
    if (block == nullptr || secret == nullptr) {
        return;
    }
    const std::string_view bytes(static_cast<const char*>(block), malloc_usable_size(block));
    const std::string_view needle(reinterpret_cast<const char*>(secret->data()),
                                  secret->size() * sizeof(wchar_t));
    g_blocksWithSecret += bytes.find(needle) != std::string_view::npos;
}

} // namespace

void* operator new(std::size_t size) {
    void* p = std::malloc(size == 0 ? 1 : size);
    return p != nullptr ? p : throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void operator delete(void* p) noexcept {
    ScanBeforeFree(p);
    std::free(p);
}
void operator delete[](void* p) noexcept { ::operator delete(p); }
void operator delete(void* p, std::size_t) noexcept { ::operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { ::operator delete(p); }

namespace {

// How many blocks were freed with the secret in them while action ran.
int BlocksFreedWithSecret(const std::wstring& secret, const std::function<void()>& action) {
    g_blocksWithSecret = 0;
    g_secret = &secret;
    action();
    g_secret = nullptr;
    return g_blocksWithSecret;
}

TEST(SecretWipe, TokenIsWipedWhenItIsReplacedAndWhenTheSettingsAreFreed) {
    // Long enough to live on the heap, not inside the string object.
    const std::wstring first(L"eyJhbGciOiJSUzI1NiJ9.first-token-payload.signature");
    const std::wstring second(L"eyJhbGciOiJSUzI1NiJ9.second-token-that-is-longer-than-the-first");
    auto* settings = new AuthenticationSettings;
    ReplaceSecret(settings->accessToken, first);
    EXPECT_EQ(BlocksFreedWithSecret(first, [&] { ReplaceSecret(settings->accessToken, second); }),
              0)
        << "the replaced token was freed unwiped";
    EXPECT_EQ(BlocksFreedWithSecret(second, [&] { delete settings; }), 0)
        << "the token was freed unwiped";
}

} // namespace
