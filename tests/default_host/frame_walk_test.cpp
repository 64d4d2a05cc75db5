// The default host's fast stack walk records exactly the frames the runtime's
// unwinder records: from the caller's frame, through frames addressed by the
// stack pointer and by the frame pointer (a variable-size frame), with the
// rule table cold and warm, in several threads at once.
#include <alloca.h>
#include <unwind.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "vrk/host/frame_walk.hpp"

namespace {

struct reference_state {
    void** frames;
    unsigned max;
    unsigned count;
    const void* caller;
    bool started;
};

_Unwind_Reason_Code collect(_Unwind_Context* ctx, void* arg) {
    auto* s = static_cast<reference_state*>(arg);
    const void* ip = reinterpret_cast<const void*>(_Unwind_GetIP(ctx));
    if (ip == nullptr)
        return _URC_END_OF_STACK;
    if (!s->started) {
        if (ip != s->caller)
            return _URC_NO_REASON;
        s->started = true;
    }
    s->frames[s->count++] = const_cast<void*>(ip);
    return s->count < s->max ? _URC_NO_REASON : _URC_END_OF_STACK;
}

struct both {
    std::vector<void*> walked;
    std::vector<void*> unwound;
};

// Captures with both from the frame that called this function.
__attribute__((noinline)) both capture_both(unsigned max) {
    const void* caller = __builtin_return_address(0);
    both r;
    void* frames[64] = {};
    unsigned n = 0;
    EXPECT_EQ(vrk_host::walk_stack(frames, max, caller, &n), vrk_host::walk_result::done);
    r.walked.assign(frames, frames + n);
    reference_state s{frames, max, 0, caller, false};
    _Unwind_Backtrace(collect, &s);
    r.unwound.assign(frames, frames + s.count);
    return r;
}

__attribute__((noinline)) both nested(int depth, unsigned max) {
    if (depth <= 1)
        return capture_both(max);
    both r = nested(depth - 1, max);
    asm volatile("" ::: "memory"); // no tail call
    return r;
}

// A frame whose size is known only at run time: addressed by rbp.
__attribute__((noinline)) both variable_frame(size_t bytes, int depth, unsigned max) {
    char* p = static_cast<char*>(alloca(bytes));
    std::memset(p, 1, bytes);
    asm volatile("" : : "r"(p) : "memory");
    both r = depth <= 1 ? capture_both(max) : variable_frame(bytes + 48, depth - 1, max);
    asm volatile("" : : "r"(p) : "memory");
    return r;
}

TEST(FrameWalk, RecordsTheUnwindersFrames) {
    for (int round = 0; round < 2; ++round) { // cold, then from the rule table
        {
            const both r = nested(1, 32);
            ASSERT_GE(r.unwound.size(), 2u);
            EXPECT_EQ(r.walked, r.unwound) << "round " << round;
        }
        {
            const both r = nested(10, 32);
            ASSERT_GE(r.unwound.size(), 11u);
            EXPECT_EQ(r.walked, r.unwound) << "round " << round;
        }
        {
            const both r = nested(40, 32);
            EXPECT_EQ(r.walked.size(), 32u) << "the buffer's capacity bounds the walk";
            EXPECT_EQ(r.walked, r.unwound) << "round " << round;
        }
        {
            const both r = nested(3, 2);
            EXPECT_EQ(r.walked.size(), 2u);
            EXPECT_EQ(r.walked, r.unwound);
        }
    }
}

TEST(FrameWalk, FramesOfRunTimeSize) {
    // The same return addresses with different frame sizes: the rule must
    // come from the frame pointer, not from a remembered size.
    for (size_t bytes : {16u, 200u, 4000u, 24u}) {
        const both r = variable_frame(bytes, 4, 32);
        ASSERT_GE(r.unwound.size(), 5u);
        EXPECT_EQ(r.walked, r.unwound) << bytes << " bytes";
    }
}

TEST(FrameWalk, CallerNotOnTheStackRecordsNothing) {
    void* frames[8];
    unsigned n = 99;
    const auto result = vrk_host::walk_stack(frames, 8, reinterpret_cast<const void*>(16), &n);
    if (result == vrk_host::walk_result::done) {
        EXPECT_EQ(n, 0u);
    }
    // Without a caller the walk starts at the return into this function.
    EXPECT_EQ(vrk_host::walk_stack(frames, 8, nullptr, &n), vrk_host::walk_result::done);
    ASSERT_GE(n, 2u);
}

TEST(FrameWalk, ThreadsWalkAtOnce) {
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&mismatches, t] {
            for (int i = 0; i < 200; ++i) {
                const both r = i % 2 ? nested(1 + (i + t) % 12, 32)
                                     : variable_frame(16 + 8 * static_cast<size_t>(i), 3, 32);
                if (r.walked != r.unwound || r.walked.empty())
                    mismatches.fetch_add(1);
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(mismatches.load(), 0);
}

} // namespace
