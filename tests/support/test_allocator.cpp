#include "support/test_allocator.hpp"

#include <cstdlib>
#include <cstring>
#include <new>

namespace vrk_test {

namespace {
constexpr uint64_t LIVE_MAGIC = 0x5a11'0c47'ed00'b10cULL;
constexpr uint64_t DEAD_MAGIC = 0xdead'b10c'dead'b10cULL;

// Header in front of every block; 16 or 24 bytes, so user addresses are
// 16-byte aligned or (misaligned) 8 past a boundary.
struct header {
    uint64_t magic;
    uint32_t pad; // bytes from the raw start to the header
    uint32_t unused;
    uint64_t size;
};
} // namespace

void* test_allocator::take_(size_t size) noexcept {
    const long n = requests_++;
    for (size_t seen = largest_; size > seen && !largest_.compare_exchange_weak(seen, size);) {
    }
    // No test needs more; a runaway growth fails here instead of touching
    // gigabytes.
    constexpr size_t MAX_REQUEST = size_t{128} << 20;
    if (n == fail_at_.load() || (fail_from_.load() >= 0 && n >= fail_from_.load()) ||
        size > MAX_REQUEST) {
        ++failures_;
        return nullptr;
    }
    const size_t lead = misalign_ ? 8 : 0;
    // Raw block 16-aligned; header ends at raw + 32 + lead - ... keep it simple:
    // user = raw + 32 + lead, header sits just before user.
    char* raw = static_cast<char*>(std::aligned_alloc(16, (size + 32 + lead + 15) & ~size_t{15}));
    if (raw == nullptr)
        return nullptr;
    char* user = raw + 32 + lead;
    header* h = reinterpret_cast<header*>(user - sizeof(header));
    h->magic = LIVE_MAGIC;
    h->pad = static_cast<uint32_t>(user - raw);
    h->size = size;
    std::memset(user, 0xcd, size); // no reliance on zeroed memory
    ++live_;
    ++allocations_;
    bytes_ += size;
    return user;
}

void* test_allocator::allocateNoThrow(size_t size, const void*) noexcept { return take_(size); }

void* test_allocator::allocate(size_t size, const void*) {
    void* p = take_(size);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void* test_allocator::allocate(size_t size) { return allocate(size, __builtin_return_address(0)); }

void test_allocator::deallocate(void* p) noexcept {
    if (p == nullptr)
        return;
    char* user = static_cast<char*>(p);
    header* h = reinterpret_cast<header*>(user - sizeof(header));
    if (h->magic != LIVE_MAGIC) {
        ++bad_releases_;
        return;
    }
    h->magic = DEAD_MAGIC;
    --live_;
    bytes_ -= h->size;
    std::memset(user, 0xdd, h->size); // a use after release reads garbage
    std::free(user - h->pad);
}

} // namespace vrk_test
