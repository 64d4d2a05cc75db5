// The exception handle: what a forgotten-exception hook may do, comparison,
// copies into a holder, a throw that returns. (Which inspections silence the
// report, and copies and assignments, to itself too, releasing their blocks
// and moving registrations, are the exception fuzz target's part.)
#include <string>

#include <gtest/gtest.h>

#include "support/test_host.hpp"
#include "vrk/ext/auto_object.hpp"

namespace {

const vrk::error_code CODE5{5, "five", nullptr};
const vrk::error_code OTHER5{5, "another text", nullptr};
const vrk::error_code CODE6{6, "six", nullptr};

using ExceptionLifecycle = vrk_test::host_fixture;

// The hook uses all its contract allows: it copies the exception, extends
// the copy, walks it, and tries to keep it in a chain that outlives the hook.
TEST_F(ExceptionLifecycle, ForgottenHookMayCopyExtendAndWalkButNotKeepTheException) {
    std::string seen;
    vrk::exception report("r", 9, CODE6);
    report.mark_processed();
    vrk_test::settings().on_forgotten = [&](const vrk::exception& e) {
        vrk::exception copy(e);
        copy.append_message("f", 4, 5, "late $N$");
        copy.define_argument("N", "1", true);
        for (vrk::exception x = copy; x.data() != nullptr; x = x.get_next())
            for (const auto& node : x) {
                char text[32];
                seen += std::string(text, node.expand(text, sizeof text)) + ";";
            }
        report << e; // refused: the block goes when the hook returns
    };
    {
        vrk::exception head("f", 1, CODE5);
        head.append_message("f", 2, 5, "more");
        vrk::exception tail("f", 3, CODE6);
        head << tail;
    }
    EXPECT_EQ(seen, "five;more;late 1;six;");
    EXPECT_EQ(vrk_test::counters().forgotten, 1) << "the hook's copies report nothing";
    EXPECT_EQ(report.get_next().data(), nullptr) << "the report chain kept a released block";
}

TEST_F(ExceptionLifecycle, ComparisonIdentityAndTheEmptyException) {
    vrk::exception e("f", 17, CODE5), other("f", 17, CODE5);
    vrk::exception c(e);
    EXPECT_TRUE(c.is_processed()) << "true while nobody has looked";
    EXPECT_TRUE(e == c);
    EXPECT_FALSE(e == other) << "equal contents, different blocks";
    EXPECT_TRUE(e.is_identified_by(OTHER5)) << "only the number counts";
    EXPECT_FALSE(e.is_identified_by(CODE6));

    vrk::exception n = e.get_next(); // past the end: no block
    EXPECT_FALSE(e.is_processed() || n.is_processed()) << "once looked at, and without a block";
    EXPECT_STREQ(n.file().get(), "UNDEFINED FILE NAME");
    EXPECT_EQ(n.line(), -1);
    EXPECT_EQ(n.error_no(), -2);
    EXPECT_FALSE(n == n) << "exceptions without a block are never equal";

    vrk_test::settings().basename_files = true;
    vrk::exception b("dir/sub/b.cpp", 3, CODE5);
    EXPECT_STREQ(b.file().get(), "b.cpp");
}

// Text constructors and throwing with the right class: the throw site's
// tests.
TEST_F(ExceptionLifecycle, CopiesIntoAHolderAreOfTheBaseClassAndForeignTypesThrowAsTheyAre) {
    vrk::overflow_error o("f", 1, "too big", nullptr);
    vrk::auto_object<vrk::exception> holder;
    const vrk::exception* copy = o.copy(holder);
    EXPECT_EQ(typeid(*copy), typeid(vrk::exception));
    copy->mark_processed();
    EXPECT_THROW(vrk::impl::throw_check<std::string>(std::string("x")).do_throw(), std::string);
}

struct returning_exception : vrk::exception {
    returning_exception() : vrk::exception("f", 1, CODE5, nullptr) { mark_processed(); }
    void do_throw() override {}
};

TEST_F(ExceptionLifecycle, ThrowThatReturnsAborts) {
    EXPECT_DEATH(
        {
            returning_exception e;
            vrk::impl::throw_check<returning_exception>(e).do_throw();
        },
        "sys/src/vrk/base/impl/exception:[0-9]+: Throwing an exception returned, aborting");
}

} // namespace
