// The default host, linked as a product links it (vrk::vrk): stack capture
// from the caller's frame without the heap, per-thread registration, notes
// and aborts on the error output, and the platform heap as the allocator.
#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/forms.hpp"
#include "vrk/host/default_host.hpp"

// Capture must work while memory is exhausted: malloc is counted by wrapping
// it in this binary (not under the sanitizers, which own malloc themselves).
namespace {
std::atomic<long> g_mallocs{0};
}
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define VRK_COUNT_MALLOC 1
extern "C" void* __libc_malloc(size_t);
extern "C" void* malloc(size_t n) {
    g_mallocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}
#endif

namespace {

const vrk::error_code CODE{21, "default host", nullptr};

// A new thread has a registration list of its own, and its first capture
// finds the thread's stack without the heap; a caller that is not on the
// stack sends the capture to the top.
TEST(DefaultHost, ThreadsHaveTheirOwnListAndCaptureWithoutTheHeap) {
    [[maybe_unused]] const long at_start = g_mallocs.load();
    vrk::exception e("f", 1, CODE);
    e.mark_processed();
    e.register_on_thread();
    long mallocs = -1;
    std::thread([&] {
        EXPECT_EQ(vrk::exception::get_first_registered(), nullptr);
        void* frames[32];
        const long start = g_mallocs.load();
        const void* const callers[] = {nullptr, nullptr, reinterpret_cast<void*>(16)};
        for (const void* caller : callers)
            EXPECT_GE(vrk_extern::import::save_stack_trace(frames, 32, caller), 2u);
        mallocs = g_mallocs.load() - start;
    }).join();
    EXPECT_EQ(vrk::exception::get_first_registered(), &e);
    e.unregister_on_thread();
#ifdef VRK_COUNT_MALLOC
    EXPECT_EQ(mallocs, 0);
    EXPECT_GT(g_mallocs.load(), at_start) << "the counter counts the exception's block";
#endif
}

// Destructors that run at exit, after the thread's own thread_locals (a
// static) or after what the thread set up later (the first thread_local of a
// thread), throw and catch.
struct throws_when_destroyed {
    ~throws_when_destroyed() {
        try {
            VRK_THROW(vrk::runtime_error, CODE);
        } catch (const vrk::exception& e) {
            e.mark_processed();
        }
        if (vrk::exception::get_first_registered() != nullptr)
            std::_Exit(3);
    }
};

TEST(DefaultHost, DestructorsAtExitThrowAndCatch) {
    EXPECT_EXIT(
        {
            static throws_when_destroyed at_exit;
            std::thread([] {
                thread_local throws_when_destroyed first;
                throws_when_destroyed now;
            }).join();
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(DefaultHost, ForgottenExceptionIsNotedOnTheErrorOutput) {
    const vrk::error_code with_arg{22, "$WHAT$ failed", nullptr};
    const std::string long_name(600, 'd');
    const std::string head = " was never looked at (print it or call mark_processed()): ";
    // A name that leaves no room for the message: the head fills the line.
    const std::string edge_name(510 - ("vrk: exception 21 created at :8" + head).size(), 'd');
    testing::internal::CaptureStderr();
    { vrk::exception e("dir/file.cpp", 5, CODE); }
    {
        vrk::exception e("dir/file.cpp", 6, with_arg);
        e.define_argument("WHAT", "open", false);
        e.append_message("dir/file.cpp", 7, 23, "then $N$");
        e.define_argument("N", "7", false);
    }
    { vrk::exception e(edge_name.c_str(), 8, CODE); }
    {
        vrk::exception e("f", 9, with_arg);
        e.define_argument("WHAT", long_name.c_str(), false); // cut in the text
    }
    {
        vrk::exception e(long_name.c_str(), 10, CODE);
        e.mark_processed();
        vrk_extern::import::get_unhandled_callback()->unhandled_exception(e);
    }
    std::string expected;
    for (const std::string& line : {
             "vrk: exception 21 created at dir/file.cpp:5" + head + "default host",
             "vrk: exception 22 created at dir/file.cpp:6" + head + "open failed / then 7",
             "vrk: exception 21 created at " + edge_name + ":8" + head, // a cut note ends its line
             ("vrk: exception 22 created at f:9" + head + long_name).substr(0, 510),
             ("vrk: exception 21 (" + long_name).substr(0, 254),
         })
        expected += line + "\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

// An exception that nobody catches shows its long form with its throw
// location, then the handler that was installed before the host's says its
// part; write_uncaught adds the thread's other live exceptions, each once.
TEST(DefaultHost, AbortsReportAndEndTheProcess) {
    EXPECT_DEATH(vrk_extern::import::abort("some/file", 12, "Broken"),
                 "vrk abort: some/file:12: Broken");
    EXPECT_DEATH(vrk_extern::import::abort("some/file", 13, "Unexpected link, aborting: ", 1L),
                 "vrk abort: some/file:13: Unexpected link, aborting: 1");
    const vrk::error_code uncaught{24, "nobody caught $WHAT$", nullptr};
    EXPECT_DEATH(std::thread([&] {
                     VRK_THROW(vrk::runtime_error, uncaught) << vrk::msgarg_text("WHAT", "this");
                 }).join(),
                 "vrk: terminating on an uncaught exception:\n"
                 "exception  1: no.24  \\([^)]*default_host_test.cpp:[0-9]+\\)\n"
                 "    nobody caught this\n"
                 "exception throw location:\n"
                 "#0  0x[0-9a-f]+ [^\n]*\\(vrk_default_host_tests\\+0x[0-9a-f]+\\).*"
                 "terminate called after throwing an instance of 'vrk::runtime_error'");

    vrk::exception live("pending.cpp", 3, CODE), thrown("thrown.cpp", 4, uncaught);
    live.register_on_thread();
    thrown.register_on_thread();
    testing::internal::CaptureStderr();
    vrk::host::write_uncaught(thrown);
    const std::string written = testing::internal::GetCapturedStderr();
    thrown.unregister_on_thread();
    live.unregister_on_thread();
    EXPECT_EQ(written, "vrk: terminating on an uncaught exception:\n" +
                           vrk_test::long_form(thrown) + "vrk: live exception of this thread:\n" +
                           vrk_test::long_form(live));
}

struct allocator_access : vrk::exception {
    using vrk::exception::default_allocator;
};

TEST(DefaultHost, DefaultAllocatorIsThePlatformHeap) {
    vrk::allocator& a = allocator_access::default_allocator();
    a.deallocate(a.allocate(100));
    EXPECT_EQ(a.allocateNoThrow(~size_t{0} / 2, nullptr), nullptr);
    EXPECT_THROW(a.allocate(~size_t{0} / 2), std::bad_alloc);
}

} // namespace
