// The capture path allocates nothing from the heap: an exception can record
// where it was thrown while memory is exhausted. Counted by wrapping malloc
// in this binary (not under the sanitizers, which own malloc themselves).
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "vrk/import.hpp"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define VRK_COUNT_MALLOC 1
extern "C" void* __libc_malloc(size_t);
namespace {
std::atomic<long> g_mallocs{0};
}
extern "C" void* malloc(size_t n) {
    g_mallocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}
#endif

namespace {

TEST(DefaultHostCapture, NeverAllocates) {
#ifdef VRK_COUNT_MALLOC
    void* frames[32];
    const long before = g_mallocs.load();
    for (int i = 0; i < 100; ++i)
        ASSERT_GT(vrk_extern::import::save_stack_trace(frames, 32, nullptr), 0u);
    EXPECT_EQ(g_mallocs.load(), before);
    long in_thread = -1; // a thread's first capture finds its stack without the heap too
    std::thread([&] {
        const long start = g_mallocs.load();
        vrk_extern::import::save_stack_trace(frames, 32, nullptr);
        in_thread = g_mallocs.load() - start;
    }).join();
    EXPECT_EQ(in_thread, 0);
    const long after = g_mallocs.load();
    void* p = malloc(8); // the counter itself works
    EXPECT_EQ(g_mallocs.load(), after + 1);
    free(p);
#else
    GTEST_SKIP() << "malloc belongs to the sanitizer in this build";
#endif
}

} // namespace
