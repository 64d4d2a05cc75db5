// Typed message arguments: the exact text of every type in both forms, the
// force flag, the hexadecimal dump and its cut, null texts, no allocation
// but the parameter's; dtoa against printf; exceptions as arguments.
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "support/forms.hpp"
#include "support/test_host.hpp"
#include "vrk/ext/dtoa.hpp"

namespace {

using vrk::exception;
using vrk_test::long_form;
using vrk_test::NO_STACK;

const vrk::error_code CODE{4242, "message $V$", nullptr};

class MessageArgs : public vrk_test::counted_fixture {
protected:
    // Streams `a` into a fresh exception and reads back the one parameter:
    // its text, after a '!' when it replaces; "(none)" when none was defined.
    template <class A> std::string render(const A& a) {
        exception e("f", 1, CODE, NO_STACK);
        const long before = alloc_.allocations();
        EXPECT_EQ(&(e << a), &e);
        const vrk::msg_parameter* p = e.begin()->first();
        EXPECT_EQ(alloc_.allocations() - before, p != nullptr ? 1 : 0)
            << "rendering allocates nothing but the parameter";
        if (p == nullptr)
            return "(none)";
        EXPECT_STREQ(p->name_, a.name_);
        EXPECT_EQ(p->val_size_, std::strlen(p->value())) << "val_size_ excludes the terminator";
        return (p->force_ ? "!" : "") + std::string(p->value(), p->val_size_);
    }
};

TEST_F(MessageArgs, EveryTypeInBothForms) {
    using namespace vrk;
    char mutable_text[] = "AB";
    const void* const addr = reinterpret_cast<const void*>(uintptr_t{0x7f00dead12});
    // The digits of doubles are compared with printf below; the rows check
    // the argument's own part: NaN, the float widening, the longest texts.
    const std::pair<std::string, const char*> rows[] = {
        {render(msgarg_int("V", -42)), "-42"},
        {render(msgrpl_int("V", -42)), "!-42"},
        {render(msgarg_int("V", -42, true)), "0xffffffd6"},
        {render(msgarg_int("V", 0, true)), "0x0"},
        {render(msgarg_uint("V", UINT_MAX)), "4294967295"},
        {render(msgrpl_uint("V", 4096u, true)), "!0x1000"},
        {render(msgarg_int64("V", LONG_MIN)), "-9223372036854775808"},
        {render(msgrpl_int64("V", -1L, true)), "!0xffffffffffffffff"},
        {render(msgarg_uint64("V", ULONG_MAX)), "18446744073709551615"},
        {render(msgarg_char("V", 'x')), "x"},
        {render(msgrpl_char("V", 'x', true)), "!0x78"},
        {render(msgarg_char("V", static_cast<char>(200), true)), "0xc8"},
        {render(msgarg_char("V", static_cast<char>(200))), "\xc8"},
        {render(msgarg_char("V", '\0')), ""},
        {render(msgarg_uchar("V", static_cast<unsigned char>('A'), true)), "0x41"},
        {render(msgrpl_uchar("V", static_cast<unsigned char>(255))), "!\xff"},
        {render(msgarg_bool("V", true)), "true"},
        {render(msgrpl_bool("V", false)), "!false"},
        {render(msgarg_bool("V", true, true)), "1"},
        {render(msgrpl_bool("V", false, true)), "!0"},
        {render(msgarg_double("V", 0.1)), "0.1"},
        {render(msgrpl_double("V", 1.0 / 3, true)), "!0.333333333333"},
        {render(msgarg_double("V", -HUGE_VAL)), "-inf"},
        {render(msgarg_double("V", std::nan(""))), "NaN"},
        {render(msgarg_double("V", DBL_MAX)), "1.79769313486e+308"},
        {render(msgarg_float("V", 0.1f)), "0.10000000149"},
        {render(msgrpl_float("V", std::nanf(""))), "!NaN"},
        {render(msgarg_ptr("V", nullptr)), "0x0000000000000000"},
        {render(msgrpl_ptr("V", addr)), "!0x0000007f00dead12"},
        {render(msgarg_text("V", "a$b")), "a$b"},
        {render(msgrpl_text("V", mutable_text)), "!AB"},
        {render(msgarg_text("V", mutable_text, true)), "41 42"},
        {render(msgarg_text("V", "\x01\xff", true)), "01 FF"},
        {render(msgrpl_text("V", "", true)), "!"},
        {render(msgarg_text("one", false)), "one"},
    };
    for (const auto& [got, want] : rows)
        EXPECT_EQ(got, want);
    // The forms with a single text name it TEXT.
    EXPECT_STREQ(vrk::msgarg_text("one", false).name_, MSGARG_TEXT_NAME);
    // A null text defines nothing in either form and leaves the exception
    // as it was.
    const char* none = nullptr;
    EXPECT_EQ(render(msgarg_text("V", none)), "(none)");
    EXPECT_EQ(render(msgrpl_text("V", none, true)), "(none)");
    exception quiet("f", 1, CODE, NO_STACK);
    quiet.mark_processed();
    quiet << msgarg_text("V", none, true);
    EXPECT_TRUE(quiet.data()->done());
}

TEST_F(MessageArgs, HexDumpStopsAfter341Bytes) {
    std::string text, want;
    for (int i = 0; i < 400; ++i) {
        text.push_back(static_cast<char>(i % 255 + 1));
        char two[4];
        std::snprintf(two, sizeof two, i == 0 ? "%02X" : " %02X", i % 255 + 1);
        want += two;
    }
    for (size_t bytes : {400, 341, 340})
        EXPECT_EQ(render(vrk::msgarg_text("V", text.substr(0, bytes).c_str(), true)),
                  want.substr(0, std::min<size_t>(bytes, 341) * 3 - 1));
}

// The text of printf's %.12g; a buffer one short of it gets nothing (a null
// result), and nothing is written past the size given. (The digits of any
// double are compared with the standard stream's by the streams fuzz target.)
TEST(Dtoa, MatchesPrintfGeneralNotationWithinItsSize) {
    auto check = [](double v) {
        char want[80];
        const size_t n = static_cast<size_t>(std::snprintf(want, sizeof want, "%.12g", v));
        for (size_t size : {n, n + 1}) {
            std::string buf(80, '\xAA');
            const char* r = vrk::dtoa(v, 12, buf.data(), size);
            ASSERT_EQ(r, size > n ? buf.data() : nullptr) << want;
            if (r != nullptr) {
                ASSERT_STREQ(r, want);
            }
            ASSERT_EQ(buf.substr(size), std::string(80 - size, '\xAA')) << want;
        }
    };
    for (double v : {0.0, -0.0, 1.0, 1e-5, 1e-4, 999999999999.5, 1e12, DBL_MIN, DBL_MAX, 4.9e-324,
                     -2.5e-310, HUGE_VAL, -1.23456789012e-300})
        check(v);
    char buf[66];
    EXPECT_EQ(vrk::dtoa(std::nan(""), 12, buf, 66), nullptr);
    EXPECT_EQ(vrk::dtoa(1.0, 12, buf, 0), nullptr);
    EXPECT_STREQ(vrk::dtoa(2.5, 0, buf, 66), "2") << "precision 0 counts as 1";
}

TEST_F(MessageArgs, NestedExceptionIsItsPrintedFormCutAt2047OrItsHook) {
    exception inner("inner.src", 7, vrk::error_code{55, "disk $D$ failed", nullptr}, NO_STACK);
    inner << vrk::msgarg_text("D", "sda");
    const std::string form = long_form(inner);
    const_cast<volatile vrk::exception_data*>(inner.data())->clear_done();

    exception outer("outer.src", 9, vrk::error_code{66, "cause: $CAUSE$", nullptr}, NO_STACK);
    outer << vrk::msgarg_exc("CAUSE", inner);
    EXPECT_TRUE(inner.data()->done()) << "printing marks the nested exception processed";
    EXPECT_EQ(outer.get_msgarg_by_name("CAUSE"), form);
    EXPECT_FALSE(outer.begin()->first()->force_);
    EXPECT_EQ(outer.get_next().data(), nullptr) << "the nested exception is not linked";

    // A long form is cut at 2047 characters; a print hook is used.
    const std::string long_text(3000, 'x');
    exception big("inner.src", 7, vrk::error_code{55, long_text.c_str(), nullptr}, NO_STACK);
    exception cut("outer.src", 9, CODE, NO_STACK);
    cut << vrk::msgarg_exc("CAUSE", big);
    EXPECT_EQ(cut.get_msgarg_by_name("CAUSE"), long_form(big).substr(0, 2047));

    inner.set_print_function([](const exception&, vrk::ostream& os) { os << "hooked"; });
    exception hooked("outer.src", 9, CODE, NO_STACK);
    hooked << vrk::msgrpl_exc("CAUSE", inner);
    EXPECT_STREQ(hooked.get_msgarg_by_name("CAUSE"), "hooked");
    EXPECT_TRUE(hooked.begin()->first()->force_);
}

} // namespace
