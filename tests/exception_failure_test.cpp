// Memory running out while an exception is built: every allocation fails in
// turn, the printed form carries the matching note (or the fallback line),
// nothing throws and every byte goes back. Also the allocation budget of the
// common operations.
#include <string>

#include "support/test_host.hpp"
#include "vrk/ext/buffer_stream.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk_test::host_fixture;
using vrk_test::test_allocator;

const vrk::error_code OPEN_FAILED{1000123, "Cannot open $NAME$", nullptr};

// Two messages and three arguments: six allocations when nothing fails
// (block, stack buffer, ID, appended node, STEP, T).
vrk::exception build() {
    vrk::exception e("loader.src", 120, OPEN_FAILED);
    e << vrk::msgarg_text("NAME", "config.ini", false);
    e << vrk::error_message("main.src", 42, 1000456, "Startup step $STEP$ failed after $T$ s");
    e << vrk::msgarg_int("STEP", 3, false) << vrk::msgarg_double("T", 1.5, false);
    return e;
}

std::string printed(const vrk::exception& e) {
    vrk::buffer_stream<2048> out;
    e.print_default(out, false, false);
    return out.c_str();
}

class ExceptionFailure : public host_fixture {
protected:
    void SetUp() override {
        host_fixture::SetUp();
        vrk_test::set_default_allocator(&alloc_);
    }
    void TearDown() override {
        vrk_test::set_default_allocator(nullptr);
        EXPECT_EQ(alloc_.balance(), 0);
        EXPECT_EQ(alloc_.bad_releases(), 0);
        host_fixture::TearDown();
    }
    test_allocator alloc_;
};

TEST_F(ExceptionFailure, EachAllocationFailingInTurnDegradesAsDocumented) {
    {
        vrk::exception whole = build();
        EXPECT_EQ(alloc_.requests(), 6);
        const std::string messages = "exception  1: no.1000123  (loader.src:120)\n"
                                     "    Cannot open config.ini\n"
                                     "exception  1: no.1000456  (main.src:42)\n"
                                     "    Startup step 3 failed after 1.5 s\n"
                                     "exception throw location:\n";
        EXPECT_EQ(printed(whole).substr(0, messages.size()), messages);
    }
    const std::string note = "; \"Bad allocation in exception ";
    // What each failing request leaves behind, in print order.
    const struct {
        const char* expected;
        int code;
    } cases[] = {
        {"exception: no.     1000123", 0},                               // the block
        {"Cannot open $NAME$; \"Bad allocation in exception callback trace\" (code:2)", 2},
        {"Cannot open $NAME$; \"Bad allocation in exception parameter\" (code:1)", 1},
        {"Cannot open config.ini; \"Bad allocation in exception message\" (code:3)", 3},
        {"Startup step $STEP$ failed after $T$ s; \"Bad allocation in exception parameter\" (code:1)", 1},
        {"Startup step 3 failed after $T$ s; \"Bad allocation in exception parameter\" (code:1)", 1},
    };
    for (long n = 0; n < 6; ++n) {
        alloc_.reset_requests();
        alloc_.fail_at(n);
        std::string text;
        {
            vrk::exception e = build();
            text = printed(e);
            vrk::string short_form = e.what(vrk_test::default_test_allocator(), true);
            EXPECT_NE(std::string(short_form.c_str()).find(cases[n].code == 0 ? "exception: no." : note),
                      std::string::npos)
                << "failure at request " << n;
        }
        alloc_.fail_never();
        EXPECT_NE(text.find(cases[n].expected), std::string::npos)
            << "failure at request " << n << " printed:\n" << text;
        if (cases[n].code == 0)
            EXPECT_EQ(text.size(), 165u) << "one fallback line";
        else
            EXPECT_EQ(text.find(note), text.rfind(note)) << "exactly one note";
        EXPECT_EQ(alloc_.balance(), 0) << "failure at request " << n;
    }
}

TEST_F(ExceptionFailure, AllocationBudgetOfCommonOperations) {
    vrk::exception e("f", 1, OPEN_FAILED);
    EXPECT_EQ(alloc_.requests(), 2) << "creation: the block and the stack buffer";
    alloc_.reset_requests();
    vrk::exception copy(e);
    EXPECT_EQ(alloc_.requests(), 0) << "copying";
    e << vrk::error_message("g", 2, 3, "more");
    EXPECT_EQ(alloc_.requests(), 1) << "appending a message";
    e << vrk::msgarg_int("ID", 7, false);
    EXPECT_EQ(alloc_.requests(), 2) << "an argument";
    (void)e.what();
    vrk::buffer_stream<2048> out;
    out.getStream() << e;
    EXPECT_EQ(alloc_.requests(), 2) << "what() and printing into a buffer_stream";
}

} // namespace
