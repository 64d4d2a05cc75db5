// vrk/atomic.hpp: atomic operations of the library, the hashed spin-lock
// table and the lock-guarded 128-bit compare-and-swap.
//
// The 128-bit operations take one of 701 process-wide spin locks, chosen by
// the word's address modulo 701. A lock is held only for the compare-and-write
// of the two words: nothing under it allocates, calls out or sleeps, and no
// operation ever holds two locks. The table is a static array, zero at start.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vrk {

// A 128-bit value handled as two 64-bit words; `lo` is compared and written
// after `hi`. Equal when both words are equal.
struct alignas(16) atomic_dword_t {
    uint64_t lo;
    uint64_t hi;
    friend bool operator==(const atomic_dword_t& a, const atomic_dword_t& b) noexcept {
        return a.lo == b.lo && a.hi == b.hi;
    }
};

// The widest type the library treats atomically; used to size raw storage.
using atomic_max_t = atomic_dword_t;

namespace impl {

// One slot of the lock table: 0 free, 1 held. Each slot has a cache line of
// its own, so that threads spinning on or taking neighbouring slots do not
// steal each other's line.
struct alignas(64) HashLocks {
    int32_t isLocked;
};

inline constexpr size_t HASH_LOCK_COUNT = 701;

// The process-wide table of 701 slots shared by every 128-bit atomic. Kept
// visible here so that taking a slot is inline code, not a call.
extern HashLocks s_lockwd[HASH_LOCK_COUNT];
inline HashLocks* getHashLocks() noexcept { return s_lockwd; }

struct Atomic128CAS {
    static size_t slot(const volatile void* word) noexcept {
        return reinterpret_cast<uintptr_t>(word) % HASH_LOCK_COUNT;
    }
    // Spins with a locked compare-exchange until the slot is ours: no pause,
    // no back-off, no yield.
    static void lock(size_t slot) noexcept {
        int32_t* word = &getHashLocks()[slot].isLocked;
        for (;;) {
            int32_t expected = 0;
            if (__atomic_compare_exchange_n(word, &expected, 1, false, __ATOMIC_ACQUIRE,
                                            __ATOMIC_RELAXED))
                return;
        }
    }
    // A release store: a plain store on x86-64, ordered after everything the
    // holder wrote.
    static void unlock(size_t slot) noexcept {
        __atomic_store_n(&getHashLocks()[slot].isLocked, 0, __ATOMIC_RELEASE);
    }
};

template <size_t N> struct AtomicOperation;

// 32- and 64-bit operations on plain integers.
template <size_t N> struct AtomicOperationN {
    template <class T> static bool cas(volatile T* p, T expected, T desired) noexcept {
        return __atomic_compare_exchange_n(p, &expected, desired, false, __ATOMIC_SEQ_CST,
                                           __ATOMIC_SEQ_CST);
    }
    template <class T> static bool cas_acq(volatile T* p, T expected, T desired) noexcept {
        return __atomic_compare_exchange_n(p, &expected, desired, false, __ATOMIC_ACQUIRE,
                                           __ATOMIC_ACQUIRE);
    }
    template <class T> static bool cas_rel(volatile T* p, T expected, T desired) noexcept {
        return __atomic_compare_exchange_n(p, &expected, desired, false, __ATOMIC_RELEASE,
                                           __ATOMIC_RELAXED);
    }
    template <class T> static T read(const volatile T* p) noexcept {
        return __atomic_load_n(p, __ATOMIC_ACQUIRE);
    }
    template <class T> static T xchg(volatile T* p, T v) noexcept {
        return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST);
    }
    template <class T> static void write(volatile T* p, T v) noexcept {
        __atomic_store_n(p, v, __ATOMIC_RELEASE);
    }
    // Compare-and-swap of one pointer, a locked compare-exchange.
    template <class T> static bool casPtr(T* volatile* p, T* expected, T* desired) noexcept {
        return __atomic_compare_exchange_n(p, &expected, desired, false, __ATOMIC_ACQ_REL,
                                           __ATOMIC_ACQUIRE);
    }
};

template <> struct AtomicOperation<4> : AtomicOperationN<4> {};
template <> struct AtomicOperation<8> : AtomicOperationN<8> {};

// 128-bit operations through the lock table.
template <> struct AtomicOperation<16> {
    // Compares `word` with `expected`; when equal writes `desired` (counter
    // word first, then pointer word) and returns true. `prev` receives the
    // value found either way.
    static bool cas(volatile atomic_dword_t& word, const atomic_dword_t& expected,
                    const atomic_dword_t& desired, atomic_dword_t& prev) noexcept {
        const size_t s = Atomic128CAS::slot(&word);
        Atomic128CAS::lock(s);
        prev.lo = __atomic_load_n(&word.lo, __ATOMIC_RELAXED);
        prev.hi = __atomic_load_n(&word.hi, __ATOMIC_RELAXED);
        const bool equal = prev.hi == expected.hi && prev.lo == expected.lo;
        if (equal) {
            __atomic_store_n(&word.hi, desired.hi, __ATOMIC_RELAXED);
            __atomic_store_n(&word.lo, desired.lo, __ATOMIC_RELAXED);
        }
        Atomic128CAS::unlock(s);
        return equal;
    }
    // Adds `delta` to the counter word (`hi`) and returns the value it
    // replaced: a compare-and-swap whose expected value is the one read under
    // the same hold of the lock, so it never has to be retried.
    static atomic_dword_t add_hi(volatile atomic_dword_t& word, uint64_t delta) noexcept {
        const size_t s = Atomic128CAS::slot(&word);
        Atomic128CAS::lock(s);
        atomic_dword_t prev;
        prev.lo = __atomic_load_n(&word.lo, __ATOMIC_RELAXED);
        prev.hi = __atomic_load_n(&word.hi, __ATOMIC_RELAXED);
        __atomic_store_n(&word.hi, prev.hi + delta, __ATOMIC_RELAXED);
        Atomic128CAS::unlock(s);
        return prev;
    }
    // A compare-and-swap that expects and writes zero: reads the value under
    // the lock.
    static atomic_dword_t read(volatile atomic_dword_t& word) noexcept {
        atomic_dword_t prev;
        cas(word, atomic_dword_t{0, 0}, atomic_dword_t{0, 0}, prev);
        return prev;
    }
    // A word-by-word read without the lock: a first guess for a
    // compare-and-swap loop, never a result.
    static atomic_dword_t peek(const volatile atomic_dword_t& word) noexcept {
        return atomic_dword_t{__atomic_load_n(&word.lo, __ATOMIC_RELAXED),
                              __atomic_load_n(&word.hi, __ATOMIC_RELAXED)};
    }
    // Stores `v`. Compares nothing: the word may be fresh, uninitialised
    // memory (a new block), which a compare would read.
    static void write(volatile atomic_dword_t& word, const atomic_dword_t& v) noexcept {
        xchg(word, v);
    }
    // Stores `v` and returns the value it replaced, under one hold of the lock.
    static atomic_dword_t xchg(volatile atomic_dword_t& word, const atomic_dword_t& v) noexcept {
        const size_t s = Atomic128CAS::slot(&word);
        Atomic128CAS::lock(s);
        atomic_dword_t prev;
        prev.lo = __atomic_load_n(&word.lo, __ATOMIC_RELAXED);
        prev.hi = __atomic_load_n(&word.hi, __ATOMIC_RELAXED);
        __atomic_store_n(&word.hi, v.hi, __ATOMIC_RELAXED);
        __atomic_store_n(&word.lo, v.lo, __ATOMIC_RELAXED);
        Atomic128CAS::unlock(s);
        return prev;
    }
};

} // namespace impl
} // namespace vrk
