#include "HeapGauge.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::int64_t> g_live{0};
std::atomic<std::int64_t> g_peak{0};

void* Allocate(std::size_t size) {
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    const auto usable = static_cast<std::int64_t>(malloc_usable_size(block));
    const std::int64_t live = g_live.fetch_add(usable, std::memory_order_relaxed) + usable;
    std::int64_t peak = g_peak.load(std::memory_order_relaxed);
    while (live > peak && !g_peak.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
    }
    return block;
}

void Release(void* block) noexcept {
    if (block != nullptr) {
        g_live.fetch_sub(static_cast<std::int64_t>(malloc_usable_size(block)),
                         std::memory_order_relaxed);
        std::free(block);
    }
}

} // namespace

namespace heapgauge {

std::int64_t LiveBytes() { return g_live.load(); }
void ResetPeak() { g_peak.store(g_live.load()); }
std::int64_t PeakBytes() { return g_peak.load(); }

} // namespace heapgauge

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return Allocate(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* block) noexcept { Release(block); }
void operator delete[](void* block) noexcept { Release(block); }
void operator delete(void* block, std::size_t) noexcept { Release(block); }
void operator delete[](void* block, std::size_t) noexcept { Release(block); }
