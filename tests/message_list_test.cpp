// Message parameters: expansion rules to the byte in both sinks, the byte
// sink's bounds, appended messages and where their arguments go, lookup
// through chains.
#include <cstring>
#include <string>
#include <vector>

#include "support/test_host.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk::exception;
using vrk::exception_node;

const vrk::error_code CODE{4242, "first", nullptr};
const void* const NO_STACK = exception::CALLER_SUPPRESS_STACK_TRACE;

void clear_done(const exception& e) {
    const_cast<volatile vrk::exception_data*>(e.data())->clear_done();
}

const exception_node& node_at(const exception& e, int idx) {
    vrk::message_iterator it = e.begin();
    while (idx-- > 0)
        ++it;
    return *it;
}

std::string by_buffer(const exception_node& n) {
    char buf[1024];
    const size_t len = n.expand(buf, sizeof buf);
    EXPECT_EQ(buf[len], '\0') << "a buffer with room left holds a terminated text";
    return std::string(buf, len);
}

bool done(const exception& e) { return e.data()->done(); }

class MessageList : public vrk_test::counted_fixture {
protected:
    std::string by_stream(const exception_node& n) {
        vrk::osstream os(alloc_);
        EXPECT_EQ(&n.expand(os), &static_cast<vrk::ostream&>(os));
        vrk::string s = os.str();
        return std::string(s.c_str(), s.size());
    }
};

struct param {
    const char* name;
    const char* value;
    bool force;
};
struct expansion_case {
    const char* text;
    std::vector<param> params;
    const char* expected;
};

TEST_F(MessageList, ExpansionRules) {
    const expansion_case cases[] = {
        {"plain text", {}, "plain text"},
        {"", {}, ""},
        {"value $V$ too large", {{"V", "7", false}}, "value 7 too large"},
        {"$A$$B$", {{"A", "1", false}, {"B", "2", false}}, "12"},
        {"$A$-$A$", {{"A", "x", false}}, "x-x"},
        {"[$E$]", {{"E", "", false}}, "[]"},
        // Unknown names stay as written; lone and empty delimiters too.
        {"a $X$ b", {}, "a $X$ b"},
        {"cost 5$", {}, "cost 5$"},
        {"$", {}, "$"},
        {"$$ and $", {}, "$$ and $"},
        {"costs $5 or $P$", {{"P", "9", false}}, "costs $5 or 9"},
        {"$a$", {{"A", "1", false}}, "$a$ [A=1]"},
        // Values are not expanded again.
        {"$A$ $B$", {{"A", "$B$", false}, {"B", "2", false}}, "$B$ 2"},
        // Several definitions of one name.
        {"$A$", {{"A", "1", false}, {"A", "2", false}}, "1"},
        {"$A$", {{"A", "1", false}, {"A", "2", true}}, "2"},
        {"$A$", {{"A", "1", true}, {"A", "2", false}}, "1"},
        {"$A$", {{"A", "1", true}, {"A", "2", true}, {"A", "3", false}}, "2"},
        // Parameters the text does not mention follow it, each name once.
        {"msg", {{"X", "1", false}, {"Y", "2", false}}, "msg [X=1, Y=2]"},
        {"$A$", {{"A", "1", false}, {"B", "2", false}}, "1 [B=2]"},
        {"m", {{"B", "1", false}, {"C", "3", false}, {"B", "2", true}}, "m [B=2, C=3]"},
        {"$X$ left", {{"Y", "", false}}, "$X$ left [Y=]"},
    };
    for (const expansion_case& c : cases) {
        SCOPED_TRACE(c.text);
        exception e("f", 1, vrk::error_code{1, c.text, nullptr}, NO_STACK);
        for (const param& p : c.params)
            e.define_argument(p.name, p.value, p.force);
        const exception_node& n = node_at(e, 0);
        EXPECT_EQ(by_buffer(n), c.expected);
        EXPECT_EQ(by_stream(n), c.expected);
        EXPECT_STREQ(e.what(), c.text) << "the stored text stays unexpanded";
    }
}

TEST_F(MessageList, ByteSinkStopsAtItsSize) {
    exception e("f", 1, vrk::error_code{1, "id=$ID$, $X$", nullptr}, NO_STACK);
    e.define_argument("ID", "12345", false);
    e.define_argument("EXTRA", "v", false);
    const std::string full = "id=12345, $X$ [EXTRA=v]";
    const exception_node& n = node_at(e, 0);
    ASSERT_EQ(by_buffer(n), full);
    for (size_t size = 0; size <= full.size() + 2; ++size) {
        SCOPED_TRACE(size);
        char buf[64];
        std::memset(buf, 0xAA, sizeof buf);
        char* area = buf + 8;
        const size_t len = n.expand(area, size);
        const size_t want = std::min(size, full.size());
        EXPECT_EQ(len, want);
        EXPECT_EQ(std::string(area, len), full.substr(0, want));
        if (want < size) {
            EXPECT_EQ(area[want], '\0');
        }
        for (size_t i = 0; i < 8; ++i)
            EXPECT_EQ(static_cast<unsigned char>(buf[i]), 0xAA) << "wrote before the buffer";
        for (const char* p = area + size; p < buf + sizeof buf; ++p)
            EXPECT_EQ(static_cast<unsigned char>(*p), 0xAA) << "wrote past the buffer";
    }
    char one = 'z';
    EXPECT_EQ(n.expand(&one, 0), 0u);
    EXPECT_EQ(one, 'z');
}

TEST_F(MessageList, BorrowedTextIsWrittenAsItIs) {
    char fname[] = "file";
    exception_node n;
    n.init_(fname, 1, 2); // owns no message record
    n.align_ = "he$X$o";
    char buf[16];
    EXPECT_EQ(n.expand(buf, sizeof buf), 6u);
    EXPECT_EQ(std::string(buf, 6), "he$X$o");
    EXPECT_EQ(n.expand(buf, 3), 3u);
    EXPECT_EQ(by_stream(n), "he$X$o");
    n.align_ = nullptr;
    EXPECT_EQ(n.expand(buf, sizeof buf), 0u);
    EXPECT_EQ(by_stream(n), "");
}

// Which message an argument goes to is checked through the throw site; a
// copy keeps its own idea of the last node.
TEST_F(MessageList, ANodeAppendedThroughACopyStaysBehindTheOriginalsNode) {
    exception e("f", 1, CODE, NO_STACK);
    exception copy(e);
    copy.append_message("g", 2, 7, "by copy");
    e.append_message("g", 3, 7, "by original");
    EXPECT_EQ(by_buffer(node_at(e, 1)), "by original");
    EXPECT_EQ(by_buffer(node_at(e, 2)), "by copy");
}

TEST_F(MessageList, ProcessedFlagAndIgnoredCalls) {
    exception e("f", 1, CODE, NO_STACK);
    e.mark_processed();
    e.define_argument(nullptr, "v", false);
    EXPECT_TRUE(done(e)) << "a null name changes nothing";
    EXPECT_EQ(node_at(e, 0).first(), nullptr);
    e.define_argument("N", nullptr, false);
    EXPECT_FALSE(done(e)) << "a new argument is news";
    EXPECT_STREQ(e.get_msgarg_by_name("N"), "") << "a null value is stored empty";
    EXPECT_TRUE(done(e)) << "lookup marks processed";
    e.append_message("g", 2, 7, "m");
    EXPECT_FALSE(done(e));
    EXPECT_STREQ(e.get_msgarg_by_name(nullptr), "");
    EXPECT_TRUE(done(e));

    // An exception whose block could not be allocated takes nothing.
    alloc_.fail_at(alloc_.requests());
    exception bare("f", 1, CODE, NO_STACK);
    ASSERT_EQ(bare.data(), nullptr);
    bare.append_message("g", 2, 7, "m");
    bare.define_argument("N", "v", false);
    EXPECT_STREQ(bare.get_msgarg_by_name("N"), "");
    alloc_.fail_never();
}

TEST_F(MessageList, LookupWalksTheChainAndMarksWhatItVisits) {
    {
        exception a("f", 1, CODE, NO_STACK), b("f", 2, CODE, NO_STACK);
        a.define_argument("ID", "a", false);
        b.define_argument("ID", "b", false);
        a << b;
        EXPECT_STREQ(a.get_msgarg_by_name("ID"), "a");
        EXPECT_STREQ(b.get_msgarg_by_name("ID"), "b");
    }
    {
        exception a("f", 1, CODE, NO_STACK), b("f", 2, CODE, NO_STACK), c("f", 3, CODE, NO_STACK);
        c.define_argument("ID", "c", false);
        c.define_argument("ID", "c2", true);
        a << b << c;
        for (const exception* x : {&a, &b, &c})
            clear_done(*x);
        EXPECT_STREQ(a.get_msgarg_by_name(""), "");
        EXPECT_TRUE(done(a));
        EXPECT_FALSE(done(b)) << "an empty name does not walk the chain";
        EXPECT_STREQ(a.get_msgarg_by_name("ID"), "c2") << "the replacement wins";
        EXPECT_TRUE(done(b));
        EXPECT_TRUE(done(c));
        EXPECT_STREQ(a.get_msgarg_by_name("NONE"), "");
    }
    {
        // The text outlives the handles that were walked, as long as the
        // head lives.
        exception a("f", 1, CODE, NO_STACK);
        const char* v;
        {
            exception b("f", 2, CODE, NO_STACK);
            b.define_argument("ID", "kept", false);
            a << b;
            b.mark_processed();
        }
        v = a.get_msgarg_by_name("ID");
        EXPECT_STREQ(v, "kept");
    }
}

} // namespace
