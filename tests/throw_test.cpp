// VRK_THROW: one expression builds, annotates, registers and throws, with
// the class, file, line, appended items, registration and stack start of the
// hand-written idiom. (Without memory: the throw-site sweep.)
#include <string>
#include <typeinfo>

#include "support/forms.hpp"
#include "support/test_host.hpp"

namespace {

using Throw = vrk_test::counted_fixture;

const vrk::error_code CODE{4711, "Throw helper", nullptr};

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

TEST_F(Throw, ThrowsItsClassWithFileLineRegistrationAndStackStart) {
    const vrk::exception e = vrk_test::raised<vrk::overflow_error>([] { throw_overflow(nullptr); });
    EXPECT_EQ(e.error_no(), 4711);
    EXPECT_STREQ(e.file().get(), __FILE__);
    EXPECT_EQ(e.line(), g_throw_line);
    // The test host records the caller position given to the constructor as
    // the first frame: an address inside throw_overflow, not throw_overflow's
    // own return address.
    void** frames = nullptr;
    ASSERT_EQ(e.stack_trace(&frames), 3);
    EXPECT_NE(frames[0], g_throw_site_return);
    EXPECT_GT(reinterpret_cast<uintptr_t>(frames[0]), reinterpret_cast<uintptr_t>(&throw_overflow));
    EXPECT_EQ(vrk_test::counters().forgotten, 0);
}

TEST_F(Throw, StreamedItemsAreAppendedBeforeTheThrowToTheLatestMessage) {
    vrk::exception cause("cause.cpp", 3, vrk::error_code{4712, "The cause", nullptr});
    cause.register_on_thread();
    try {
        throw_overflow(&cause);
    } catch (const vrk::exception& e) {
        EXPECT_EQ(vrk_test::chain_numbers(e), (std::vector<int>{4711, 4712}));
        EXPECT_TRUE(e.get_next() == cause);
        EXPECT_EQ(vrk::exception::get_first_registered(), &e) << "the cause left the list";
    }
    cause.mark_processed();
    EXPECT_EQ(vrk_test::counters().forgotten, 0);

    // Arguments and messages go to the latest message.
    const vrk::error_code disk_full{4713, "Disk full while writing $FILE$", nullptr};
    try {
        VRK_THROW(vrk::runtime_error, disk_full)
            << vrk::msgarg_text("FILE", "journal.db")
            << vrk::error_message("journal.cpp", 40, 4714, "Segment $SEGMENT$")
            << vrk::msgarg_int("SEGMENT", 17);
    } catch (const vrk::runtime_error& e) {
        EXPECT_EQ(vrk_test::short_form(e), "exception 4713: Disk full while writing journal.db\n"
                                           "exception 4714: Segment 17\n");
        // SEGMENT belongs to the second message, which the lookup (first
        // message only) does not see.
        EXPECT_STREQ(e.get_msgarg_by_name("SEGMENT"), "");
    }
}

// Throwing makes an exception news again, even one looked at before.
TEST_F(Throw, SwallowedThrowIsReportedExactlyOnce) {
    try {
        throw_overflow(nullptr);
    } catch (const vrk::exception&) {
    }
    EXPECT_EQ(vrk_test::forgotten_errors(), std::vector<int>{4711});
    {
        vrk::exception seen("f", 1, CODE);
        seen.mark_processed();
        try {
            seen.do_throw();
        } catch (const vrk::exception&) {
        }
    }
    EXPECT_EQ(vrk_test::forgotten_errors(), (std::vector<int>{4711, 4711}));
}

TEST_F(Throw, OtherFormsOfTheThrowSite) {
    // A message text instead of an error code: the class's own number.
    const vrk::exception text = vrk_test::raised<vrk::underflow_error>(
        [] { VRK_THROW(vrk::underflow_error, "broken invariant"); });
    EXPECT_STREQ(text.what(), "broken invariant");
    EXPECT_EQ(text.error_no(), vrk::ERR_VRK_UNDERFLOW.number());
    // A helper raising for its caller: file and line given, the stack
    // starts where it says, or is not taken at all.
    static const int marker = 0;
    const vrk::exception helper = vrk_test::raised<vrk::runtime_error>(
        [] { VRK_THROW_AT_CALLER("sys/src/vrk/ios", 12, &marker, vrk::runtime_error, "helper"); });
    EXPECT_STREQ(helper.file().get(), "sys/src/vrk/ios");
    EXPECT_EQ(helper.line(), 12);
    void** frames = nullptr;
    ASSERT_EQ(helper.stack_trace(&frames), 3);
    EXPECT_EQ(frames[0], &marker);
    const int captures = vrk_test::counters().captures;
    EXPECT_EQ(vrk_test::raised<vrk::exception>([] {
                  VRK_THROW_AT_CALLER("sys/src/vrk/ios", 13, vrk_test::NO_STACK, vrk::exception,
                                      CODE);
              }).stack_trace(nullptr),
              0);
    EXPECT_EQ(vrk_test::counters().captures, captures);
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

// The library's classes are thrown as their do_throw throws them (a class
// without an override as vrk::exception), each with one registered copy: the
// local object of the throw site is gone and left nothing registered.
TEST_F(Throw, ThrowsTheClassItsDoThrowWouldThrow) {
    const auto thrown_as = [](auto raise) -> std::string {
        try {
            raise();
        } catch (const vrk::exception& e) {
            EXPECT_EQ(vrk::exception::get_first_registered(), &e);
            EXPECT_EQ(e.get_next_registered(), nullptr);
            e.mark_processed();
            return typeid(e).name();
        }
        return "nothing";
    };
    EXPECT_EQ(thrown_as([] { VRK_THROW(vrk::logic_error, CODE); }), typeid(vrk::exception).name());
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

} // namespace
