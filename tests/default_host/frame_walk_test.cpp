// The default host's fast stack walk records exactly the frames the runtime's
// unwinder records: from the caller's frame, through frames addressed by the
// stack pointer and by the frame pointer (a variable-size frame), with the
// rule table cold and warm, in several threads at once; and, through the
// default host's capture, past a signal frame the walk cannot read and across
// a library unloaded and replaced by another at the same address.
#include <alloca.h>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "vrk/exception.hpp"
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

// An exception created here, with its frames from the one behind this
// function on, and the unwinder's frames from there.
struct created_here {
    std::vector<void*> stack;
    std::vector<void*> unwound;
};

__attribute__((noinline)) int create_exception(void* out) {
    const vrk::error_code code{31, "walk", nullptr};
    vrk::exception e("f", 1, code);
    e.mark_processed();
    void** frames = nullptr;
    const int n = e.stack_trace(&frames);
    auto* r = static_cast<created_here*>(out);
    if (n < 2)
        return 0;
    r->stack.assign(frames + 1, frames + n);
    void* ref[32];
    reference_state s{ref, 31, 0, frames[1], false};
    _Unwind_Backtrace(collect, &s);
    r->unwound.assign(ref, ref + s.count);
    return 0;
}

// A signal restorer without call-frame information (the unwinder knows it
// by its code), installed with the raw system call that takes it.
extern "C" void vrk_test_restorer();
asm(R"(
    .text
    nop
vrk_test_restorer:
    movq $15, %rax
    syscall
)");

created_here g_in_handler;
const void* g_raised_from = nullptr;

void on_signal(int) { create_exception(&g_in_handler); }

__attribute__((noinline)) void raise_here() {
    g_raised_from = __builtin_return_address(0);
    raise(SIGUSR2);
    asm volatile("" ::: "memory"); // no tail call
}

TEST(FrameWalk, CaptureGoesOnPastASignalFrame) {
    struct kernel_sigaction {
        void (*handler)(int);
        unsigned long flags;
        void (*restorer)();
        unsigned long mask;
    } action{on_signal, 0x04000000 /* SA_RESTORER */, vrk_test_restorer, 0}, old{};
    ASSERT_EQ(syscall(SYS_rt_sigaction, SIGUSR2, &action, &old, sizeof action.mask), 0);
    raise_here();
    syscall(SYS_rt_sigaction, SIGUSR2, &old, nullptr, sizeof old.mask);
    const auto& r = g_in_handler;
    EXPECT_EQ(r.stack, r.unwound);
    EXPECT_NE(std::find(r.stack.begin(), r.stack.end(), g_raised_from), r.stack.end())
        << "the function that raised the signal is on the recorded stack";
}

TEST(FrameWalk, LibraryReplacedAtTheSameAddress) {
    using call_fn = int (*)(int (*)(void*), void*);
    void* first_base = nullptr;
    for (const char* path : {VRK_RELOAD_A, VRK_RELOAD_B}) {
        void* lib = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(lib, nullptr) << dlerror();
        const auto call = reinterpret_cast<call_fn>(dlsym(lib, "vrk_reload_call"));
        Dl_info info{};
        ASSERT_TRUE(call != nullptr && dladdr(reinterpret_cast<void*>(call), &info) != 0);
        if (first_base == nullptr)
            first_base = info.dli_fbase;
        if (info.dli_fbase != first_base) {
            dlclose(lib);
            GTEST_SKIP() << "the loader put the second build at another address";
        }
        for (int round = 0; round < 2; ++round) { // cold, then from the rule table
            created_here r;
            call(create_exception, &r);
            ASSERT_GE(r.stack.size(), 2u);
            Dl_info frame{};
            EXPECT_TRUE(dladdr(r.stack[0], &frame) != 0 && frame.dli_fbase == first_base)
                << "the frame in the library comes first";
            EXPECT_EQ(r.stack, r.unwound) << path << ", round " << round;
        }
        dlclose(lib);
    }
}

} // namespace
