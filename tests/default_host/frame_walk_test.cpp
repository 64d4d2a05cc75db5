// The default host's fast stack walk records exactly the frames the runtime's
// unwinder records: from the caller's frame, through frames addressed by the
// stack pointer and by the frame pointer (a variable-size frame), with the
// rule table cold and warm, in several threads at once; and, through the
// default host's capture, past a signal frame the walk cannot read and across
// a library unloaded and replaced by another at the same address (whose
// functions are then named from the new build).
#include <alloca.h>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "vrk/exception.hpp"
#include "vrk/host/frame_names.hpp"
#include "vrk/host/frame_walk.hpp"

namespace {

// The unwinder's frames from the one that returns to `caller` on.
std::vector<void*> unwound_from(const void* caller, unsigned max) {
    struct state {
        std::vector<void*> frames;
        const void* caller;
    } s{{}, caller};
    _Unwind_Backtrace(
        [](_Unwind_Context* ctx, void* arg) {
            auto* s = static_cast<state*>(arg);
            void* ip = reinterpret_cast<void*>(_Unwind_GetIP(ctx));
            if (ip == s->caller)
                s->caller = nullptr;
            if (ip != nullptr && s->caller == nullptr)
                s->frames.push_back(ip);
            return ip == nullptr ? _URC_END_OF_STACK : _URC_NO_REASON;
        },
        &s);
    s.frames.resize(std::min<size_t>(s.frames.size(), max));
    return s.frames;
}

struct both {
    std::vector<void*> walked, unwound;
};

// Captures with both from the frame that called this function.
__attribute__((noinline)) both capture_both(unsigned max) {
    const void* caller = __builtin_return_address(0);
    void* frames[64] = {};
    unsigned n = 0;
    EXPECT_EQ(vrk::host::walk_stack(frames, max, caller, &n), vrk::host::walk_result::done);
    return both{std::vector<void*>(frames, frames + n), unwound_from(caller, max)};
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

// Cold, then from the rule table, then in several threads at once.
TEST(FrameWalk, RecordsTheUnwindersFrames) {
    const auto walks = [] {
        // The walk ends at the outermost frame or where the buffer is full.
        const std::pair<int, unsigned> cases[] = {{1, 32}, {10, 32}, {40, 32}, {3, 2}};
        for (const auto& [depth, max] : cases) {
            const both r = nested(depth, max);
            EXPECT_GE(r.walked.size(), std::min<size_t>(depth + 1, max)) << depth;
            EXPECT_EQ(r.walked, r.unwound) << "depth " << depth;
        }
        // The same return addresses with different frame sizes: the rule
        // must come from the frame pointer, not from a remembered size.
        for (size_t bytes : {16u, 200u, 4000u, 24u, 1000u}) {
            const both r = variable_frame(bytes, 4, 32);
            EXPECT_EQ(r.walked, r.unwound) << bytes << " bytes";
        }
    };
    walks();
    std::vector<std::jthread> threads; // joined when the test ends
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 50 && !testing::Test::HasFailure(); ++i)
                walks();
        });
}

// An exception created here: its frames from the one behind this function
// on, and the unwinder's frames from there.
__attribute__((noinline)) int create_exception(void* out) {
    const vrk::error_code code{31, "walk", nullptr};
    vrk::exception e("f", 1, code);
    e.mark_processed();
    void** frames = nullptr;
    const int n = e.stack_trace(&frames);
    if (n >= 2)
        *static_cast<both*>(out) =
            both{std::vector<void*>(frames + 1, frames + n), unwound_from(frames[1], 31)};
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

both g_in_handler;
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
    const std::vector<void*>& walked = g_in_handler.walked;
    EXPECT_EQ(walked, g_in_handler.unwound);
    EXPECT_NE(std::find(walked.begin(), walked.end(), g_raised_from), walked.end())
        << "the function that raised the signal is on the recorded stack";
}

// Both builds call back from 16 bytes into vrk_reload_call. Each is opened
// by a relative path and named after a change of directory: its symbol
// table is still read from its file.
TEST(FrameWalk, LibraryReplacedAtTheSameAddress) {
    using call_fn = int (*)(int (*)(void*), void*);
    call_fn first = nullptr;
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    for (const std::string path : {VRK_RELOAD_A, VRK_RELOAD_B}) {
        const size_t slash = path.rfind('/');
        ASSERT_EQ(chdir(path.substr(0, slash).c_str()), 0);
        void* lib = dlopen(std::string(".").append(path, slash).c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_EQ(chdir("/"), 0);
        ASSERT_NE(lib, nullptr) << dlerror();
        // Named from this build, not from the one unloaded at its addresses.
        const auto local = *static_cast<char* const*>(dlsym(lib, "vrk_reload_local_at"));
        const vrk::host::frame_info named = vrk::host::frame_names().resolve(local + 1);
        EXPECT_STREQ(named.p_function_, "vrk_reload_local") << path;
        EXPECT_EQ(named.function_offset_, 1u) << path;
        const auto call = reinterpret_cast<call_fn>(dlsym(lib, "vrk_reload_call"));
        ASSERT_NE(call, nullptr);
        first = first != nullptr ? first : call;
        if (call != first) {
            dlclose(lib);
            ASSERT_EQ(chdir(cwd), 0);
            GTEST_SKIP() << "the loader put the second build at another address";
        }
        for (int round = 0; round < 2; ++round) { // cold, then from the rule table
            both r;
            call(create_exception, &r);
            ASSERT_GE(r.walked.size(), 2u);
            EXPECT_EQ(r.walked[0], reinterpret_cast<char*>(call) + 16) << "the library's frame";
            EXPECT_EQ(r.walked, r.unwound) << path << ", round " << round;
        }
        dlclose(lib);
    }
    EXPECT_EQ(chdir(cwd), 0);
}

} // namespace
