// vrk/ext/pointer_counter_combination.hpp: a predecessor pointer and a
// reference count in one 128-bit word, updated only through the lock-guarded
// compare-and-swap of vrk/atomic.hpp.
//
// The pointer word comes first, the counter word second; the whole counter
// word is the count and one reference is one step.
#pragma once

#include <cstdint>

#include "vrk/atomic.hpp"

namespace vrk {

template <class T> class pointer_counter_combination {
public:
    using pointer = T*;

    static constexpr uint64_t COUNTER_MASK = ~uint64_t{0};
    static constexpr uint64_t COUNTER_DELTA = 1;
    // Kept for packed layouts that share one word; the two-word layout uses
    // none of them.
    static constexpr unsigned COUNTER_SHIFT = 0;
    static constexpr uint64_t LAST_PTR_BIT = 0;
    static constexpr uint64_t POINTER_MASK = ~uint64_t{0};

    static atomic_dword_t make(pointer p, uint64_t count) noexcept {
        return atomic_dword_t{reinterpret_cast<uint64_t>(p), count};
    }
    static pointer pointer_of(const atomic_dword_t& v) noexcept {
        return reinterpret_cast<pointer>(v.lo);
    }
    static uint64_t counter_of(const atomic_dword_t& v) noexcept { return v.hi & COUNTER_MASK; }

    // The value under the slot lock.
    atomic_dword_t read() volatile noexcept { return impl::AtomicOperation<16>::read(word_); }
    // A lock-free first guess for a compare-and-swap loop.
    atomic_dword_t peek() const volatile noexcept {
        return impl::AtomicOperation<16>::peek(word_);
    }
    bool cas(const atomic_dword_t& expected, const atomic_dword_t& desired,
             atomic_dword_t& prev) volatile noexcept {
        return impl::AtomicOperation<16>::cas(word_, expected, desired, prev);
    }
    // Adds `delta` (modulo 2^64) to the count, keeps the pointer word, and
    // returns the value replaced.
    atomic_dword_t add_count(uint64_t delta) volatile noexcept {
        return impl::AtomicOperation<16>::add_hi(word_, delta);
    }
    void store(pointer p, uint64_t count) volatile noexcept {
        impl::AtomicOperation<16>::write(word_, make(p, count));
    }

private:
    atomic_dword_t word_;
};

} // namespace vrk
