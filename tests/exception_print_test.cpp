// Printing: the long and short forms to the byte, throw-location sections,
// bad-allocation notes and the fallback text, the stream's format used and
// left unchanged.
#include <climits>
#include <functional>
#include <string>

#include "support/forms.hpp"
#include "support/test_host.hpp"
#include "vrk/base/impl/bad_alloc_text.hpp"
#include "vrk/ext/buffer_stream.hpp"
#include "vrk/iomanip.hpp"

namespace {

using vrk::exception;
using vrk::exception_node;
using vrk_test::long_form;
using vrk_test::NO_STACK;
using vrk_test::short_form;

const vrk::error_code OPEN_FAILED{1000123, "Cannot open file config.ini", nullptr};

void set_code(const exception& e, int code) {
    const_cast<vrk::exception_data*>(const_cast<const vrk::exception_data*>(e.data()))
        ->node_.bad_alloc_ = code;
}

exception two_nodes(const void* caller = NO_STACK) {
    exception e("loader.src", 120, OPEN_FAILED, caller);
    e.append_message("main.src", 42, 1000456, "Startup failed");
    return e;
}

const char* const LONG_TWO_NODES = "exception  1: no.1000123  (loader.src:120)\n"
                                   "    Cannot open file config.ini\n"
                                   "exception  1: no.1000456  (main.src:42)\n"
                                   "    Startup failed\n";
const std::string NO_LOCATION = "NO exception throw location recorded. ";

using ExceptionPrint = vrk_test::host_fixture;

TEST_F(ExceptionPrint, LongAndShortFormsWithThrowLocationSectionsAndNestedNotes) {
    exception e = two_nodes(nullptr); // the test host records 3 frames from address 0
    exception nested("io.src", 7, vrk::error_code{1000789, "Disk full", nullptr}, NO_STACK);
    set_code(nested, exception_node::PARAM_FAILED);
    e << nested;
    const std::string stack = "exception throw location:\n#0 (nil)\n#1 0x1\n#2 0x2\n\n";
    const std::string nested_lines =
        "exception  2: no.1000789  (io.src:7)\n"
        "    Disk full; \"Bad allocation in exception parameter\" (code:1)\n";
    EXPECT_EQ(long_form(e, false, false),
              LONG_TWO_NODES + stack + nested_lines + NO_LOCATION + "Bad alloc.code: 1\n");
    EXPECT_EQ(long_form(e, false, true), LONG_TWO_NODES + stack + nested_lines);
    EXPECT_EQ(long_form(e, true, false), LONG_TWO_NODES + nested_lines);
    EXPECT_EQ(short_form(e),
              "exception 1000123: Cannot open file config.ini\n"
              "exception 1000456: Startup failed\n"
              "exception 1000789: Disk full; \"Bad allocation in exception parameter\" (code:1)\n");
    EXPECT_TRUE(e.data()->done() && nested.data()->done()) << "every printed block is processed";
    EXPECT_STREQ(e.what(), "Cannot open file config.ini") << "what() is the first message only";
    // A print hook replaces print only.
    e.set_print_function([](const exception&, vrk::ostream& os) { os << "custom"; });
    const_cast<volatile vrk::exception_data*>(e.data())->clear_done();
    EXPECT_EQ(long_form(e), "custom");
    EXPECT_TRUE(e.data()->done()) << "print marks the exception processed";
    EXPECT_EQ(long_form(e, true, true), LONG_TWO_NODES + nested_lines);
    EXPECT_EQ(short_form(e).find("custom"), std::string::npos);
}

TEST_F(ExceptionPrint, EveryReasonForAMissingThrowLocation) {
    const std::string text = "exception  1: no.1000123  (f:1)\n    Cannot open file config.ini";
    const std::string head = text + "\n" + NO_LOCATION;
    exception suppressed("f", 1, OPEN_FAILED, NO_STACK);
    EXPECT_EQ(long_form(suppressed, false, false), head + "Stack generation suppressed.\n");
    vrk_test::settings().capture_no_frame = true;
    exception no_frame("f", 1, OPEN_FAILED, nullptr);
    EXPECT_EQ(long_form(no_frame, false, false), head + "Stack generation system error.\n");
    set_code(suppressed, exception_node::STACK_FAILED);
    EXPECT_EQ(long_form(suppressed, false, false),
              text + "; \"Bad allocation in exception callback trace\" (code:2)\n" + NO_LOCATION +
                  "Allocation of stack data failed.\n");
}

// The one line an exception without a block prints, whatever the form (the
// allocation sweep checks every form uses it). The text is one static
// buffer: each row also checks nothing of the row before remains.
TEST(FallbackText, ColumnsOfNumberFileAndLine) {
    const std::string name64(64, 'n'), name65 = "X" + name64;
    const struct {
        int err;
        const char* file;
        int line;
        std::string number, file_col, line_col;
    } rows[] = {
        {42, "a/b.x", 7, "         42", std::string(59, ' ') + "a/b.x", "     7"},
        {0, name64.c_str(), 0, std::string(11, ' '), name64, "      "},
        {1, name65.c_str(), 1, "          1", name64, "     1"},
        {1, "short", 1, "          1", std::string(59, ' ') + "short", "     1"},
        {INT_MIN, nullptr, 1234567, "-2147483648", std::string(64, ' '), "234567"},
        {-5, "", 99, "         -5", std::string(64, ' '), "    99"},
    };
    for (const auto& r : rows)
        EXPECT_EQ(std::string(vrk::impl::getBadAllocMsg(r.err, r.file, r.line)),
                  "exception: no. " + r.number + " (" + r.file_col + ":" + r.line_col +
                      "). No further info because of bad allocation in exception object.");
}

// A prefix is assembled in one piece only when the stream would write it as
// plain text; every other set-up must still give the text of its flags, and
// leave the stream's format as it was.
TEST_F(ExceptionPrint, PrefixTextFollowsEveryStreamSetUp) {
    const exception e = two_nodes();
    vrk::heap_allocator heap;
    vrk::osstream other(heap);
    const struct {
        std::function<void(vrk::osstream&)> set_up;
        std::string want;
    } rows[] = {
        {[](vrk::osstream&) {}, LONG_TWO_NODES},
        {[](vrk::osstream& os) { os.setf(vrk::ios_base::showpos); },
         "exception +1: no.+1000123  (loader.src:+120)\n    Cannot open file config.ini\n"
         "exception +1: no.+1000456  (main.src:+42)\n    Startup failed\n"},
        {[](vrk::osstream& os) { os << vrk::left << vrk::setfill('*'); },
         "exception1**: no.1000123  (loader.src:120)\n    Cannot open file config.ini\n"
         "exception1**: no.1000456  (main.src:42)\n    Startup failed\n"},
        {[](vrk::osstream& os) { os << vrk::hex << vrk::setfill('*'); },
         "exception**1: no.f42bb  (loader.src:78)\n    Cannot open file config.ini\n"
         "exception**1: no.f4408  (main.src:2a)\n    Startup failed\n"},
        {[&](vrk::osstream& os) { os.tie(&other); }, LONG_TWO_NODES},
        {[](vrk::osstream& os) { os.setf(vrk::ios_base::unitbuf); }, LONG_TWO_NODES},
    };
    for (const auto& r : rows) {
        vrk::osstream os(heap);
        r.set_up(os);
        const vrk::ios_base::fmtflags flags = os.flags();
        const char fill = os.fill();
        e.print_default(os, true, true);
        EXPECT_EQ(vrk_test::text_of(os.str()), r.want);
        EXPECT_EQ(os.flags(), flags);
        EXPECT_EQ(os.fill(), fill);
        EXPECT_EQ(os.width(), 0);
    }
    // A pending width pads the first piece, "exception", and is kept after.
    vrk::osstream wide(heap);
    wide.width(12);
    e.print_default(wide, true, true);
    EXPECT_EQ(vrk_test::text_of(wide.str()), "   " + std::string(LONG_TWO_NODES));
    // A negative number and a file name longer than the assembled piece.
    const std::string name(300, 'n');
    exception neg(name.c_str(), -7, vrk::error_code{-12, "m", nullptr}, NO_STACK);
    EXPECT_EQ(long_form(neg, true, true), "exception  1: no.-12  (" + name + ":-7)\n    m\n");
    EXPECT_EQ(short_form(neg), "exception -12: m\n");
    // The index field widens only past 999.
    exception head("f", 1, vrk::error_code{1, "x", nullptr}, NO_STACK);
    for (int i = 2; i <= 1000; ++i) {
        exception add("f", i, vrk::error_code{i, "x", nullptr}, NO_STACK);
        head << add;
    }
    const std::string all = long_form(head, true, true);
    for (const char* line :
         {"exception 99: no.99 ", "exception999: no.999", "exception1000: no.1000"})
        EXPECT_NE(all.find(line), std::string::npos) << line;
}

// Lines longer than what the printer gathers before writing come out whole
// and in order, on a plain stream and on one printed piece by piece; a
// stream that fills up keeps the first 2047 characters of the same text.
TEST_F(ExceptionPrint, LongLinesAreWrittenWhole) {
    const std::string file(700, 'f');
    const std::string value(600, 'v');
    std::string text, expanded;
    for (int i = 0; i < 40; ++i) {
        text += "word" + std::to_string(i) + " $V$ ";
        expanded += "word" + std::to_string(i) + " " + value + " ";
    }
    exception e(file.c_str(), 9, vrk::error_code{5, text.c_str(), nullptr}, NO_STACK);
    e << vrk::msgarg_text("V", value.c_str()) << vrk::msgarg_int("EXTRA", 17);
    e.append_message("b.src", 10, 6, "$V$");
    const std::string expected = "exception  1: no.5  (" + file + ":9)\n    " + expanded +
                                 " [EXTRA=17]\nexception  1: no.6  (b.src:10)\n    $V$\n" +
                                 NO_LOCATION + "Stack generation suppressed.\n";
    EXPECT_EQ(long_form(e, false, false), expected);
    vrk::heap_allocator heap;
    vrk::osstream other(heap), tied(heap);
    tied.tie(&other);
    e.print_default(tied, false, false);
    EXPECT_EQ(vrk_test::text_of(tied.str()), expected);

    vrk::buffer_stream<2048> cut;
    e.print_default(cut, false, false);
    EXPECT_EQ(std::string(cut.c_str()), expected.substr(0, 2047));
    EXPECT_TRUE(static_cast<const vrk::ostream&>(cut).bad());
}

// Arguments the text does not mention stay on the message's line in both
// forms: a nested exception as its first message and a count, separators
// and line ends inside values escaped, no blank before the list of an empty
// text. Through the gathered lines and, with a node that lost memory,
// through the piecewise path.
TEST_F(ExceptionPrint, UnmentionedArgumentsStayOnTheMessagesLine) {
    exception inner("in.src", 7, vrk::error_code{55, "disk $D$ failed", nullptr}, NO_STACK);
    inner << vrk::msgarg_text("D", "sda") << vrk::msgarg_text("X", "a,b]");
    inner.append_message("in.src", 8, 56, "retry");
    inner << exception("io.src", 9, vrk::error_code{57, "gone", nullptr}, NO_STACK);
    for (const int code : {0, exception_node::PARAM_FAILED}) {
        exception e("a.src", 1, vrk::error_code{5, "", nullptr}, NO_STACK);
        e << vrk::msgarg_exc("CAUSE", inner) << vrk::msgarg_text("T", "x, y]\\\rz\r\n");
        e.append_message("a.src", 2, 6, "ok $V$");
        e << vrk::msgarg_text("V", "1\n2") << vrk::msgarg_text("W", "two\nlines\n");
        set_code(e, code);
        const std::string first =
            "[CAUSE=exception 55: disk sda failed [X=a\\\\\\,b\\\\\\]\\] (+2 more), T=x\\, "
            "y\\]\\\\\\rz]" +
            std::string(code == 0 ? "" : "; \"Bad allocation in exception parameter\" (code:1)");
        const std::string second = "ok 1\n2 [W=two\\nlines]\n";
        EXPECT_EQ(short_form(e), "exception 5: " + first + "\nexception 6: " + second);
        EXPECT_EQ(long_form(e, true, true), "exception  1: no.5  (a.src:1)\n    " + first +
                                                "\nexception  1: no.6  (a.src:2)\n    " + second);
    }
}

} // namespace
