// VRK_THROW: one expression builds, annotates, registers and throws, with
// the class, file, line, appended items, registration and stack start of the
// hand-written idiom.
#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

#include "support/test_host.hpp"
#include "vrk/exception.hpp"

namespace {

using vrk_test::host_fixture;
using Throw = host_fixture;

const vrk::error_code CODE{4711, "Throw helper", nullptr};
const vrk::error_code CAUSE{4712, "The cause", nullptr};

int g_throw_line = 0;
const void* g_throw_site_return = nullptr;

__attribute__((noinline)) void throw_overflow(const vrk::exception* cause) {
    g_throw_site_return = __builtin_return_address(0);
    if (cause != nullptr) {
        g_throw_line = __LINE__ + 1;
        VRK_THROW(vrk::overflow_error, CODE) << *cause;
    }
    g_throw_line = __LINE__ + 1;
    VRK_THROW(vrk::overflow_error, CODE);
}

TEST_F(Throw, ThrowsItsClassWithFileLineAndRegistration) {
    bool caught = false;
    try {
        throw_overflow(nullptr);
    } catch (const vrk::overflow_error& e) {
        caught = true;
        EXPECT_EQ(e.error_no(), 4711);
        EXPECT_STREQ(e.file().get(), __FILE__);
        EXPECT_EQ(e.line(), g_throw_line);
        // The thrown copy carries the registration; the local object of the
        // throw site is gone and left nothing registered behind it.
        EXPECT_EQ(vrk::exception::get_first_registered(), &e);
        EXPECT_EQ(e.get_next_registered(), nullptr);
        // The stack starts in the function holding the throw site: the
        // test host records the caller position given to the constructor
        // as the first frame, and that is an address inside throw_overflow,
        // not throw_overflow's own return address.
        void** frames = nullptr;
        ASSERT_EQ(e.stack_trace(&frames), 3);
        EXPECT_NE(frames[0], g_throw_site_return);
        EXPECT_GT(reinterpret_cast<uintptr_t>(frames[0]),
                  reinterpret_cast<uintptr_t>(&throw_overflow));
        e.mark_processed();
    }
    EXPECT_TRUE(caught);
    EXPECT_EQ(vrk::exception::get_first_registered(), nullptr);
    EXPECT_EQ(vrk_test::counters().forgotten, 0);
}

TEST_F(Throw, StreamedItemsAreAppendedBeforeTheThrow) {
    vrk::exception cause("cause.cpp", 3, CAUSE);
    cause.register_on_thread();
    try {
        throw_overflow(&cause);
    } catch (const vrk::exception& e) {
        EXPECT_EQ(e.error_no(), 4711);
        const vrk::exception next = e.get_next();
        EXPECT_EQ(next.error_no(), 4712) << "the cause is chained behind the new error";
        EXPECT_TRUE(next == cause);
        // Appending took the cause off the thread's list, as `e << cause`
        // does; only the thrown exception is registered.
        EXPECT_EQ(vrk::exception::get_first_registered(), &e);
        EXPECT_EQ(e.get_next_registered(), nullptr);
    }
    cause.mark_processed();
    EXPECT_EQ(vrk_test::counters().forgotten, 0);
}

TEST_F(Throw, ArgumentsAndMessagesGoToTheLatestMessage) {
    const vrk::error_code disk_full{4713, "Disk full while writing $FILE$", nullptr};
    try {
        VRK_THROW(vrk::runtime_error, disk_full)
            << vrk::msgarg_text("FILE", "journal.db")
            << vrk::error_message("journal.cpp", 40, 4714, "Segment $SEGMENT$")
            << vrk::msgarg_int("SEGMENT", 17);
    } catch (const vrk::runtime_error& e) {
        vrk::message_iterator node = e.begin();
        ASSERT_NE(node, e.end());
        EXPECT_STREQ(node->message(), "Disk full while writing $FILE$");
        ++node;
        ASSERT_NE(node, e.end());
        EXPECT_EQ(node->line(), 40);
        EXPECT_EQ(++node, e.end());
        EXPECT_STREQ(e.get_msgarg_by_name("FILE"), "journal.db");
        // SEGMENT belongs to the second message, which the lookup (first
        // message only) does not see.
        EXPECT_STREQ(e.get_msgarg_by_name("SEGMENT"), "");
        vrk_test::test_allocator texts;
        {
            const vrk::string text = e.what(texts, true);
            EXPECT_STREQ(text.c_str(), "exception 4713: Disk full while writing journal.db\n"
                                       "exception 4714: Segment 17\n");
        }
        EXPECT_EQ(texts.balance(), 0);
    }
}

TEST_F(Throw, SwallowedThrowIsReportedExactlyOnce) {
    try {
        throw_overflow(nullptr);
    } catch (const vrk::exception&) {
    }
    EXPECT_EQ(vrk_test::forgotten_errors(), std::vector<int>{4711});
}

TEST_F(Throw, OtherFormsOfTheThrowSite) {
    {
        // A message text instead of an error code (the class's own number).
        try {
            VRK_THROW(vrk::underflow_error, "broken invariant");
        } catch (const vrk::underflow_error& e) {
            EXPECT_STREQ(e.what(), "broken invariant");
            EXPECT_EQ(e.error_no(), vrk::ERR_VRK_UNDERFLOW.number());
            e.mark_processed();
        }
    }
    {
        // A file name given by the library's own code.
        try {
            VRK_THROW_AT("sys/src/vrk/string", 77, vrk::exception, CODE);
        } catch (const vrk::exception& e) {
            EXPECT_STREQ(e.file().get(), "sys/src/vrk/string");
            EXPECT_EQ(e.line(), 77);
            e.mark_processed();
        }
    }
    {
        // A helper raising for its caller: the stack starts where it says.
        static const int marker = 0;
        try {
            VRK_THROW_AT_CALLER("sys/src/vrk/ios", 12, &marker, vrk::runtime_error, "helper");
        } catch (const vrk::runtime_error& e) {
            void** frames = nullptr;
            ASSERT_EQ(e.stack_trace(&frames), 3);
            EXPECT_EQ(frames[0], &marker);
            e.mark_processed();
        }
        const int captures = vrk_test::counters().captures;
        try {
            VRK_THROW_AT_CALLER("sys/src/vrk/ios", 13, vrk::exception::CALLER_SUPPRESS_STACK_TRACE,
                                vrk::exception, CODE);
        } catch (const vrk::exception& e) {
            EXPECT_EQ(e.stack_trace(nullptr), 0);
            EXPECT_EQ(vrk_test::counters().captures, captures);
            e.mark_processed();
        }
    }
}

// A product class with a do_throw of its own: the throw site leaves the
// throw to it.
int g_audited_throws = 0;
class audited_error : public vrk::runtime_error {
public:
    using vrk::runtime_error::runtime_error;
    void do_throw() override {
        ++g_audited_throws;
        throw *this;
    }
};

using ThrowCounted = vrk_test::counted_fixture;

// The library's classes are thrown as their do_throw throws them (a class
// without an override as vrk::exception), each with one registered copy and
// every block back with the allocator once the catch is over.
TEST_F(ThrowCounted, ThrowsTheClassItsDoThrowWouldThrow) {
    const auto thrown_as = [](auto raise) -> std::string {
        try {
            raise();
        } catch (const vrk::exception& e) {
            EXPECT_EQ(vrk::exception::get_first_registered(), &e);
            EXPECT_EQ(e.get_next_registered(), nullptr);
            EXPECT_FALSE(e.data() == nullptr);
            e.mark_processed();
            return typeid(e).name();
        }
        return "nothing";
    };
    EXPECT_EQ(thrown_as([] { VRK_THROW(vrk::logic_error, CODE); }), typeid(vrk::exception).name());
    EXPECT_EQ(thrown_as([] { VRK_THROW(vrk::exception, CODE); }), typeid(vrk::exception).name());
    EXPECT_EQ(thrown_as([] { VRK_THROW(vrk::runtime_error, CODE); }),
              typeid(vrk::runtime_error).name());
    EXPECT_EQ(thrown_as([] { VRK_THROW(vrk::rvalue_error, CODE); }),
              typeid(vrk::rvalue_error).name());
    EXPECT_EQ(thrown_as([] { VRK_THROW(audited_error, CODE) << vrk::msgarg_int("N", 1); }),
              typeid(audited_error).name());
    EXPECT_EQ(g_audited_throws, 1);
    EXPECT_EQ(vrk::exception::get_first_registered(), nullptr);
    EXPECT_EQ(vrk_test::counters().forgotten, 0);
}

TEST_F(Throw, WithoutMemoryTheErrorStillArrives) {
    vrk_test::test_allocator broken;
    broken.fail_from(0);
    vrk_test::set_default_allocator(&broken);
    vrk::exception cause("cause.cpp", 3, CAUSE);
    try {
        VRK_THROW(vrk::runtime_error, CODE) << cause;
    } catch (const vrk::runtime_error& e) {
        EXPECT_EQ(e.data(), nullptr);
        EXPECT_EQ(e.error_no(), 4711);
        EXPECT_STREQ(e.file().get(), __FILE__);
        EXPECT_EQ(vrk::exception::get_first_registered(), &e);
    }
    vrk_test::set_default_allocator(nullptr);
    EXPECT_EQ(broken.balance(), 0);
    EXPECT_EQ(vrk_test::counters().forgotten, 0);
}

} // namespace
