// Printing: the long and short forms to the byte, throw-location sections,
// bad-allocation notes and the fallback text, stream format left unchanged.
#include <climits>
#include <string>

#include "support/test_host.hpp"
#include "vrk/ext/buffer_stream.hpp"
#include "vrk/iomanip.hpp"
#include "vrk/sstream.hpp"
#include "vrk/base/impl/bad_alloc_text.hpp"

namespace {

using vrk::exception;
using vrk::exception_node;
using vrk_test::host_fixture;

const vrk::error_code OPEN_FAILED{1000123, "Cannot open file config.ini", nullptr};
const vrk::error_code DISK_FULL{1000789, "Disk full", nullptr};
const void* const NO_STACK = exception::CALLER_SUPPRESS_STACK_TRACE;

std::string text_of(vrk::osstream& os) {
    vrk::string s = os.str();
    return std::string(s.c_str(), s.size());
}

void set_code(const exception& e, int code) {
    const_cast<vrk::exception_data*>(const_cast<const vrk::exception_data*>(e.data()))
        ->node_.bad_alloc_ = code;
}

class ExceptionPrint : public host_fixture {
protected:
    exception two_nodes(const void* caller = NO_STACK) {
        exception e("loader.src", 120, OPEN_FAILED, caller);
        e.append_message("main.src", 42, 1000456, "Startup failed");
        return e;
    }
    std::string long_form(const exception& e, bool suppress, bool nested) {
        vrk::osstream os(alloc_);
        e.print_default(os, suppress, nested);
        return text_of(os);
    }
    vrk_test::test_allocator alloc_;
};

const char* const LONG_TWO_NODES = "exception  1: no.1000123  (loader.src:120)\n"
                                   "    Cannot open file config.ini\n"
                                   "exception  1: no.1000456  (main.src:42)\n"
                                   "    Startup failed\n";

TEST_F(ExceptionPrint, LongAndShortFormsWithThrowLocationSectionsAndNestedNotes) {
    exception e = two_nodes(nullptr); // the test host records 3 frames from address 0
    exception nested("io.src", 7, DISK_FULL, NO_STACK);
    set_code(nested, exception_node::PARAM_FAILED);
    e << nested;
    const std::string stack = "exception throw location:\n#0 (nil)\n#1 0x1\n#2 0x2\n\n";
    const std::string nested_lines =
        "exception  2: no.1000789  (io.src:7)\n"
        "    Disk full; \"Bad allocation in exception parameter\" (code:1)\n";
    EXPECT_EQ(long_form(e, false, false),
              LONG_TWO_NODES + stack + nested_lines +
                  "NO exception throw location recorded. Bad alloc.code: 1\n");
    EXPECT_EQ(long_form(e, false, true), LONG_TWO_NODES + stack + nested_lines);
    EXPECT_EQ(long_form(e, true, false), LONG_TWO_NODES + nested_lines);
    vrk::string short_form = e.what(alloc_, true);
    EXPECT_EQ(std::string(short_form.c_str()),
              "exception 1000123: Cannot open file config.ini\n"
              "exception 1000456: Startup failed\n"
              "exception 1000789: Disk full; \"Bad allocation in exception parameter\" (code:1)\n");
    EXPECT_TRUE(e.data()->done() && nested.data()->done()) << "every printed block is processed";
    EXPECT_STREQ(e.what(), "Cannot open file config.ini") << "what() is the first message only";
}

TEST_F(ExceptionPrint, EveryReasonForAMissingThrowLocation) {
    auto section = [&](const exception& e) {
        vrk::osstream os(alloc_);
        e.print_default(os, false, false);
        const std::string all = text_of(os);
        return all.substr(all.find('\n', all.find('\n') + 1) + 1); // after heading and text
    };
    const std::string none = "NO exception throw location recorded. ";
    exception suppressed("f", 1, OPEN_FAILED, NO_STACK);
    EXPECT_EQ(section(suppressed), none + "Stack generation suppressed.\n");
    EXPECT_EQ(suppressed.stack_trace(nullptr), 0);

    vrk_test::settings().capture_no_frame = true;
    exception no_frame("f", 1, OPEN_FAILED, nullptr);
    EXPECT_EQ(section(no_frame), none + "Stack generation system error.\n");
    vrk_test::settings().capture_no_frame = false;

    set_code(suppressed, exception_node::PARAM_FAILED); // overwrites the stack code
    EXPECT_NE(section(suppressed).find(none + "Bad alloc.code: 1\n"), std::string::npos);
}

// The one line an exception without a block prints, whatever the form (the
// allocation sweep checks every form uses it).
TEST_F(ExceptionPrint, FallbackTextColumns) {
    using vrk::impl::getBadAllocMsg;
    EXPECT_EQ(std::string(getBadAllocMsg(42, "a/b.x", 7)),
              "exception: no.          42 (                                                       "
              "    a/b.x:     7). No further info because of bad allocation in exception object.");
    const std::string name64(64, 'n');
    std::string t = getBadAllocMsg(0, (name64 + "").c_str(), 0);
    EXPECT_EQ(t.size(), 164u);
    EXPECT_EQ(t.substr(28, 64), name64);
    EXPECT_EQ(t.substr(14, 13), std::string(13, ' ')) << "error number 0 is blank";
    EXPECT_EQ(t.substr(93, 6), "      ") << "line 0 is blank";
    t = getBadAllocMsg(1, ("X" + name64).c_str(), 1);
    EXPECT_EQ(t.substr(28, 64), name64) << "a 65th character is dropped from the front";
    t = getBadAllocMsg(1, "short", 1);
    EXPECT_EQ(t.substr(28, 64), std::string(59, ' ') + "short") << "nothing of the long name remains";
    t = getBadAllocMsg(INT_MIN, nullptr, 1234567);
    EXPECT_EQ(t.substr(15, 11), "-2147483648");
    EXPECT_EQ(t.substr(28, 64), std::string(64, ' '));
    EXPECT_EQ(t.substr(93, 6), "234567");
    t = getBadAllocMsg(-5, "", 99);
    EXPECT_EQ(t.substr(15, 11), "         -5");
    EXPECT_EQ(t.substr(93, 6), "    99");
    EXPECT_EQ(t.substr(0, 15), "exception: no. ");
    EXPECT_EQ(t.substr(99), "). No further info because of bad allocation in exception object.");
    EXPECT_STREQ(vrk::impl::vrkExpHexCode(), "0123456789ABCDEF");
}

TEST_F(ExceptionPrint, StreamFormatIsUsedThenRestored) {
    exception e("f.src", 255, vrk::error_code{-1, "neg", nullptr}, NO_STACK);
    {
        vrk::osstream os(alloc_);
        os << vrk::hex;
        os.fill('*');
        e.print_default(os, true, true);
        EXPECT_EQ(text_of(os), "exception**1: no.ffffffff  (f.src:ff)\n    neg\n");
        EXPECT_EQ(os.fill(), '*');
        EXPECT_EQ(os.flags() & vrk::ios_base::basefield, vrk::ios_base::hex);
        EXPECT_EQ(os.width(), 0);
    }
    // The index field widens only past 999.
    exception head("f", 1, vrk::error_code{1, "x", nullptr}, NO_STACK);
    for (int i = 2; i <= 1000; ++i) {
        exception add("f", i, vrk::error_code{i, "x", nullptr}, NO_STACK);
        head << add;
    }
    const std::string all = long_form(head, true, true);
    EXPECT_NE(all.find("exception999: no.999"), std::string::npos);
    EXPECT_NE(all.find("exception1000: no.1000"), std::string::npos);
    EXPECT_NE(all.find("exception 99: no.99"), std::string::npos);
}

// A prefix is assembled in one piece only when the stream would write it as
// plain text; every other set-up must still give the text of its flags.
TEST_F(ExceptionPrint, PrefixTextFollowsEveryStreamSetUp) {
    const exception e = two_nodes();
    auto print_with = [&](auto&& set_up) {
        vrk::osstream os(alloc_);
        set_up(os);
        e.print_default(os, true, true);
        return text_of(os);
    };
    EXPECT_EQ(print_with([](vrk::osstream&) {}), LONG_TWO_NODES);
    EXPECT_EQ(print_with([](vrk::osstream& os) { os.setf(vrk::ios_base::showpos); }),
              "exception +1: no.+1000123  (loader.src:+120)\n    Cannot open file config.ini\n"
              "exception +1: no.+1000456  (main.src:+42)\n    Startup failed\n");
    EXPECT_EQ(print_with([](vrk::osstream& os) {
                  os.setf(vrk::ios_base::left, vrk::ios_base::adjustfield);
                  os.fill('*');
              }),
              "exception1**: no.1000123  (loader.src:120)\n    Cannot open file config.ini\n"
              "exception1**: no.1000456  (main.src:42)\n    Startup failed\n");
    vrk::osstream other(alloc_);
    EXPECT_EQ(print_with([&](vrk::osstream& os) { os.tie(&other); }), LONG_TWO_NODES);
    EXPECT_EQ(print_with([](vrk::osstream& os) { os.setf(vrk::ios_base::unitbuf); }),
              LONG_TWO_NODES);
    {
        // A negative number and a file name longer than the assembled piece.
        const std::string name(300, 'n');
        exception neg(name.c_str(), -7, vrk::error_code{-12, "m", nullptr}, NO_STACK);
        EXPECT_EQ(long_form(neg, true, true),
                  "exception  1: no.-12  (" + name + ":-7)\n    m\n");
        vrk::string short_form = neg.what(alloc_, true);
        EXPECT_STREQ(short_form.c_str(), "exception -12: m\n");
    }
}

// Lines longer than what the printer gathers before writing come out whole
// and in order, on a plain stream and on one printed piece by piece; a
// stream that fills up keeps the first 2047 characters of the same text.
TEST_F(ExceptionPrint, LongLinesAreWrittenWhole) {
    const std::string file(700, 'f');
    const std::string value(600, 'v');
    std::string text;
    for (int i = 0; i < 40; ++i)
        text += "word" + std::to_string(i) + " $V$ ";
    exception e(file.c_str(), 9, vrk::error_code{5, text.c_str(), nullptr}, NO_STACK);
    e << vrk::msgarg_text("V", value.c_str()) << vrk::msgarg_int("EXTRA", 17);
    e.append_message("b.src", 10, 6, "$V$");

    std::string expanded;
    for (int i = 0; i < 40; ++i)
        expanded += "word" + std::to_string(i) + " " + value + " ";
    const std::string expected = "exception  1: no.5  (" + file + ":9)\n    " + expanded +
                                 " [EXTRA=17]\nexception  1: no.6  (b.src:10)\n    $V$\n"
                                 "NO exception throw location recorded. "
                                 "Stack generation suppressed.\n";
    EXPECT_EQ(long_form(e, false, false), expected);
    vrk::osstream other(alloc_);
    vrk::osstream tied(alloc_);
    tied.tie(&other);
    e.print_default(tied, false, false);
    EXPECT_EQ(text_of(tied), expected);

    vrk::buffer_stream<2048> cut;
    e.print_default(cut, false, false);
    EXPECT_EQ(std::string(cut.c_str()), expected.substr(0, 2047));
    const vrk::ostream& cut_os = cut;
    EXPECT_TRUE(cut_os.bad());
}

TEST_F(ExceptionPrint, PrintHookReplacesOnlyPrint) {
    exception e = two_nodes();
    e.set_print_function([](const exception&, vrk::ostream& os) { os << "custom"; });
    vrk::osstream os(alloc_);
    os << e;
    EXPECT_EQ(text_of(os), "custom");
    EXPECT_TRUE(e.data()->done()) << "print marks the exception processed";
    EXPECT_EQ(long_form(e, true, true), LONG_TWO_NODES);
    vrk::string s = e.what(alloc_, true);
    EXPECT_EQ(std::string(s.c_str()).find("custom"), std::string::npos);
}

} // namespace
