// Message parameters: expansion rules to the byte in both sinks, the
// parameters a text does not mention, appended messages, the processed mark
// and lookup through chains. (The byte sink's bounds: the exception fuzz
// target.)
#include <new>
#include <string>
#include <vector>

#include "support/forms.hpp"
#include "support/test_host.hpp"

namespace {

using vrk::exception;
using vrk::exception_node;
using vrk_test::NO_STACK;

const vrk::error_code CODE{4242, "first", nullptr};

std::string by_buffer(const exception_node& n) {
    char buf[2048];
    const size_t len = n.expand(buf, sizeof buf);
    EXPECT_EQ(buf[len], '\0') << "a buffer with room left holds a terminated text";
    return std::string(buf, len);
}

std::string by_stream(const exception_node& n) {
    vrk::heap_allocator heap;
    vrk::osstream os(heap);
    EXPECT_EQ(&n.expand(os), &static_cast<vrk::ostream&>(os));
    return vrk_test::text_of(os.str());
}

bool done(const exception& e) { return e.data()->done(); }

using MessageList = vrk_test::counted_fixture;

struct param {
    const char* name;
    const char* value;
    bool force;
};

TEST_F(MessageList, ExpansionRules) {
    const struct {
        const char* text;
        std::vector<param> params;
        const char* expected;
    } cases[] = {
        {"plain text", {}, "plain text"},
        {"", {}, ""},
        {"value $V$ too large", {{"V", "7", false}}, "value 7 too large"},
        {"$A$$B$", {{"A", "1", false}, {"B", "2", false}}, "12"},
        {"$A$-$A$", {{"A", "x", false}}, "x-x"},
        {"[$E$]", {{"E", "", false}}, "[]"},
        // Unknown names stay as written; lone and empty delimiters too.
        {"a $X$ b", {}, "a $X$ b"},
        {"cost 5$", {}, "cost 5$"},
        {"$$ and $", {}, "$$ and $"},
        {"costs $5 or $P$", {{"P", "9", false}}, "costs $5 or 9"},
        {"$a$", {{"A", "1", false}}, "$a$ [A=1]"},
        // Values are not expanded again.
        {"$A$ $B$", {{"A", "$B$", false}, {"B", "2", false}}, "$B$ 2"},
        // Several definitions of one name: the first, or the last forced one.
        {"$A$", {{"A", "1", false}, {"A", "2", false}}, "1"},
        {"$A$", {{"A", "1", false}, {"A", "2", true}}, "2"},
        {"$A$", {{"A", "1", true}, {"A", "2", true}, {"A", "3", false}}, "2"},
        // Parameters the text does not mention follow it, each name once.
        {"msg", {{"X", "1", false}, {"Y", "2", false}}, "msg [X=1, Y=2]"},
        {"$A$", {{"A", "1", false}, {"B", "2", false}}, "1 [B=2]"},
        {"m", {{"B", "1", false}, {"C", "3", false}, {"B", "2", true}}, "m [B=2, C=3]"},
        {"$X$ left", {{"Y", "", false}}, "$X$ left [Y=]"},
        // The list stays on the line: no blank after an empty text, escapes,
        // a printed exception as its first message; a near miss escaped.
        {"$E$", {{"E", "", false}, {"X", "a\\b", false}}, "[X=a\\\\b]"},
        {"m",
         {{"X", "exception  1: no.-5  (f:1)\n    one, two\n", false}},
         "m [X=exception -5: one\\, two]"},
        {"m",
         {{"X", "exception  1: no.5  f:1)\n    one", false}},
         "m [X=exception  1: no.5  f:1)\\n    one]"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        exception e("f", 1, vrk::error_code{1, c.text, nullptr}, NO_STACK);
        for (const param& p : c.params)
            e.define_argument(p.name, p.value, p.force);
        EXPECT_EQ(by_buffer(*e.begin()), c.expected);
        EXPECT_EQ(by_stream(*e.begin()), c.expected);
        EXPECT_STREQ(e.what(), c.text) << "the stored text stays unexpanded";
    }
}

// The same unmentioned list whether the text substitutes a few records
// (remembered while writing) or more than the writer remembers (found by
// scanning again).
TEST_F(MessageList, UnmentionedParametersWithFewAndManyPlaceholders) {
    for (int count : {3, 16, 17, 24}) {
        SCOPED_TRACE(count);
        std::string text, want;
        for (int i = 0; i < count; ++i) {
            text.append("$P").append(std::to_string(i)).append("$ ");
            want.append(i == 1 ? "r" : std::string("v").append(std::to_string(i))).append(" ");
        }
        exception e("f", 1, vrk::error_code{1, text.c_str(), nullptr}, NO_STACK);
        e.define_argument("X", "x", false);
        for (int i = 0; i < count; ++i)
            e.define_argument(std::string("P").append(std::to_string(i)).c_str(),
                              std::string("v").append(std::to_string(i)).c_str(), false);
        e.define_argument("P1", "r", true);
        e.define_argument("Y", "y1", false);
        e.define_argument("Y", "y2", true);
        EXPECT_EQ(by_buffer(*e.begin()), want + " [X=x, Y=y2]");
    }
}

// A node on storage of its own, outside any exception: both sinks give the
// same text, a parameter without a name stores nothing, a lookup matches the
// whole name only, and a parameter may keep the start of a value.
TEST_F(MessageList, ANodeOnItsOwnStorage) {
    alignas(8) char storage[128], raw[64];
    ASSERT_LE(vrk::message_node::allocation_size(9), sizeof storage);
    auto* node = ::new (storage) vrk::message_node;
    node->init("id=$ID$ .", 9);
    EXPECT_TRUE(node->new_param(alloc_, nullptr, "lost", false));
    ASSERT_TRUE(node->new_param(alloc_, "ID", "7", false));
    char buf[16];
    EXPECT_EQ(std::string(buf, node->expand(buf, sizeof buf)), "id=7 .");
    vrk::heap_allocator heap;
    vrk::osstream os(heap);
    node->expand(os);
    EXPECT_EQ(vrk_test::text_of(os.str()), "id=7 .");
    EXPECT_EQ(node->first()->get_value_by_name("I"), nullptr);
    EXPECT_EQ(node->first()->get_value_by_name(nullptr), nullptr);
    node->destroy(alloc_);
    auto* prm = ::new (raw) vrk::msg_parameter;
    prm->init("N", "value", 3, true);
    EXPECT_STREQ(prm->get_value_by_name("N"), "val");
}

// Which message an argument goes to is checked through the throw site; a
// copy keeps its own idea of the last node.
TEST_F(MessageList, ProcessedFlagIgnoredCallsAndAppendsThroughACopy) {
    exception e("f", 1, CODE, NO_STACK);
    e.mark_processed();
    e.define_argument(nullptr, "v", false);
    EXPECT_TRUE(done(e)) << "a null name changes nothing";
    EXPECT_EQ(e.begin()->first(), nullptr);
    e.define_argument("N", nullptr, false);
    EXPECT_FALSE(done(e)) << "a new argument is news";
    EXPECT_STREQ(e.get_msgarg_by_name("N"), "") << "a null value is stored empty";
    EXPECT_TRUE(done(e)) << "lookup marks processed";
    e.append_message("g", 2, 7, "m");
    EXPECT_FALSE(done(e));
    exception copy(e);
    copy.append_message("g", 3, 7, "by copy");
    e.append_message("g", 4, 7, "by original");
    vrk::message_iterator it = ++e.begin();
    EXPECT_EQ(by_buffer(*++it), "by original");
    EXPECT_EQ(by_buffer(*++it), "by copy");
    // A handle taken from a chain appends behind its block's last message.
    exception head("f", 5, CODE, NO_STACK);
    head << e;
    head.get_next().append_message("g", 5, 7, "by chain");
    ASSERT_NE(++it, e.end());
    EXPECT_EQ(by_buffer(*it), "by chain");
}

TEST_F(MessageList, LookupWalksTheChainAndMarksWhatItVisits) {
    exception a("f", 1, CODE, NO_STACK), b("f", 2, CODE, NO_STACK), c("f", 3, CODE, NO_STACK);
    {
        exception d("f", 4, CODE, NO_STACK);
        b.define_argument("ID", "b", false);
        d.define_argument("ID", "d", false);
        d.define_argument("ID", "d2", true);
        a << b << c << d;
        for (const exception* x : {&a, &b, &c, &d})
            const_cast<volatile vrk::exception_data*>(x->data())->clear_done();
        EXPECT_STREQ(a.get_msgarg_by_name(""), "");
        EXPECT_FALSE(done(b)) << "an empty name does not walk the chain";
        EXPECT_STREQ(c.get_msgarg_by_name("ID"), "d2") << "the replacement wins";
        EXPECT_TRUE(done(c) && done(d));
        EXPECT_FALSE(done(b)) << "lookup starts at its own exception";
        EXPECT_STREQ(a.get_msgarg_by_name("NONE"), "");
        EXPECT_TRUE(done(a) && done(b));
    }
    // The text outlives the handles that were walked, as long as the head lives.
    EXPECT_STREQ(c.get_msgarg_by_name("ID"), "d2");
}

} // namespace
