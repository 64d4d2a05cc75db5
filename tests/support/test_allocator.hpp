// Test allocators: count every block, catch double and foreign releases,
// fail on request, and hand out misaligned addresses.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vrk/memory.hpp"

namespace vrk_test {

// Counts allocations and releases. Every block carries a header with a magic
// word, so a block released twice or never handed out by this allocator is
// caught (`bad_releases()`), not silently freed.
//
// Failure injection: with `fail_at(n)` the n-th request (0-based, counted
// over allocateNoThrow and both allocate) fails, with `fail_from(n)` every
// request from the n-th on. A failing `allocate` throws std::bad_alloc.
// Requests above 128 MiB always fail. With `misalign(true)` every address is
// 8 bytes past a 16-byte boundary.
class test_allocator : public vrk::allocator {
public:
    test_allocator() = default;
    test_allocator(const test_allocator&) = delete;
    test_allocator& operator=(const test_allocator&) = delete;
    ~test_allocator() override = default;

    void* allocateNoThrow(size_t size, const void* caller) noexcept override;
    void* allocate(size_t size, const void* caller) override;
    void* allocate(size_t size) override;
    void deallocate(void* p) noexcept override;

    // Blocks handed out and not yet returned.
    long balance() const noexcept { return live_.load(); }
    // Requests seen (successful or failed).
    long requests() const noexcept { return requests_.load(); }
    long allocations() const noexcept { return allocations_.load(); }
    long failures() const noexcept { return failures_.load(); }
    long bad_releases() const noexcept { return bad_releases_.load(); }
    size_t bytes_in_use() const noexcept { return bytes_.load(); }
    // The largest single request seen since construction or reset_requests.
    size_t largest_request() const noexcept { return largest_.load(); }

    void fail_at(long n) noexcept { fail_(n, -1); }
    void fail_from(long n) noexcept { fail_(-1, n); }
    void fail_never() noexcept { fail_(-1, -1); }
    void misalign(bool on) noexcept { misalign_ = on; }
    // Forgets the request count and the largest request (not the balance).
    void reset_requests() noexcept {
        requests_ = 0;
        largest_ = 0;
    }

private:
    void* take_(size_t size) noexcept;
    void fail_(long at, long from) noexcept {
        fail_at_ = at;
        fail_from_ = from;
    }

    std::atomic<long> live_{0}, requests_{0}, allocations_{0}, failures_{0}, bad_releases_{0};
    std::atomic<size_t> bytes_{0}, largest_{0};
    std::atomic<long> fail_at_{-1}, fail_from_{-1};
    std::atomic<bool> misalign_{false};
};

} // namespace vrk_test
