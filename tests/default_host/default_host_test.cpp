// The default host, linked as a product links it (vrk::vrk): stack capture
// from the caller's frame, per-thread registration, reports on the error
// output, and aborts.
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "vrk/exception.hpp"

namespace {

const vrk::error_code CODE{21, "default host", nullptr};

__attribute__((noinline)) unsigned capture_here(void** frames, const void** expected_first) {
    *expected_first = __builtin_return_address(0);
    return vrk_extern::import::save_stack_trace(frames, 32, __builtin_return_address(0));
}

TEST(DefaultHost, CaptureStartsAtTheCallersFrame) {
    void* frames[32] = {};
    const void* first = nullptr;
    const unsigned n = capture_here(frames, &first);
    ASSERT_GE(n, 2u) << "at least this test and gtest's caller";
    EXPECT_LE(n, 32u);
    EXPECT_EQ(frames[0], first);
    void* few[2] = {};
    EXPECT_EQ(vrk_extern::import::save_stack_trace(few, 2, nullptr), 2u) << "max_frames respected";
}

TEST(DefaultHost, ExceptionsCaptureTheirThrowLocation) {
    vrk::exception e("dir/file.cpp", 5, CODE);
    e.mark_processed();
    EXPECT_STREQ(e.file().get(), "dir/file.cpp") << "names are kept as given";
    ASSERT_NE(e.data(), nullptr);
    EXPECT_GT(e.data()->buff_sz_, 0u);
    EXPECT_EQ(e.begin()->bad_alloc(), 0);
}

TEST(DefaultHost, RegistrationHeadIsPerThread) {
    vrk::exception e("f", 1, CODE);
    e.mark_processed();
    e.register_on_thread();
    EXPECT_EQ(vrk::exception::get_first_registered(), &e);
    std::thread([] { EXPECT_EQ(vrk::exception::get_first_registered(), nullptr); }).join();
    e.unregister_on_thread();
    EXPECT_EQ(vrk::exception::get_first_registered(), nullptr);
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
                (void)&first;
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
    std::istringstream out(testing::internal::GetCapturedStderr());
    std::string line;
    ASSERT_TRUE(std::getline(out, line));
    EXPECT_EQ(line, "vrk: exception 21 created at dir/file.cpp:5" + head + "default host");
    ASSERT_TRUE(std::getline(out, line));
    EXPECT_EQ(line, "vrk: exception 22 created at dir/file.cpp:6" + head + "open failed / then 7");
    ASSERT_TRUE(std::getline(out, line)) << "a cut note still ends its line";
    EXPECT_EQ(line, "vrk: exception 21 created at " + edge_name + ":8" + head);
    ASSERT_TRUE(std::getline(out, line));
    EXPECT_EQ(line, ("vrk: exception 22 created at f:9" + head + long_name).substr(0, 510));
    ASSERT_TRUE(std::getline(out, line));
    EXPECT_EQ(line, ("vrk: exception 21 (" + long_name).substr(0, 254));
    EXPECT_FALSE(std::getline(out, line));
}

TEST(DefaultHost, AbortsReportAndEndTheProcess) {
    EXPECT_DEATH(vrk_extern::import::abort("some/file", 12, "Broken"),
                 "vrk abort: some/file:12: Broken");
    EXPECT_DEATH(vrk_extern::import::abort("some/file", 13, "Unexpected link, aborting: ", 1L),
                 "vrk abort: some/file:13: Unexpected link, aborting: 1");
}

struct allocator_access : vrk::exception {
    using vrk::exception::default_allocator;
};

TEST(DefaultHost, DefaultAllocatorIsThePlatformHeap) {
    vrk::allocator& a = allocator_access::default_allocator();
    void* p = a.allocateNoThrow(100, nullptr);
    ASSERT_NE(p, nullptr);
    a.deallocate(p);
    EXPECT_EQ(a.allocateNoThrow(~size_t{0} / 2, nullptr), nullptr);
    EXPECT_THROW(a.allocate(~size_t{0} / 2), std::bad_alloc);
}

} // namespace
