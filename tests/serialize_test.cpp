// Serialization: exact bytes of the type header and body, round trips of
// chains, the bad-pattern and hostile-input errors, leaks over every
// truncation and flipped byte, and derived classes that register their own
// creator.
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/forms.hpp"
#include "support/test_host.hpp"
#include "vrk/exception_types.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk::exception;
using vrk_test::host_fixture;
using bytes = std::vector<unsigned char>;

const vrk::error_code BOOM{7, "boom", nullptr};
const vrk::error_code OPEN_FAILED{1000123, "Cannot open $FILE$", nullptr};
using vrk_test::NO_STACK;

bytes to_bytes(vrk::osstream& os) {
    vrk::string s = os.str();
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    return bytes(p, p + s.size());
}

void put_word(bytes& b, uint32_t w) {
    for (int shift = 24; shift >= 0; shift -= 8)
        b.push_back(static_cast<unsigned char>(w >> shift));
}

std::string text(const vrk::string& s) { return std::string(s.c_str(), s.size()); }

class Serialize : public host_fixture {
protected:
    bytes serialized(const exception& e, bool suppress_stack) {
        vrk::osstream os(alloc_);
        e.serialize(os, suppress_stack);
        return to_bytes(os);
    }
    vrk::auto_ptr<exception, vrk::default_deleter> read(const bytes& b) {
        vrk::isstream is(reinterpret_cast<const char*>(b.data()), b.size(), alloc_);
        return exception::deserialize(is, obj_alloc_);
    }
    // The short form without stacks, which holds every message and number.
    std::string short_form(const exception& e) { return text(e.what(alloc_, true)); }
    std::string long_form(const exception& e) {
        vrk::osstream os(alloc_);
        e.print_default(os, false, false);
        return text(os.str());
    }
    // The error `b` raises: its number and short form; "" when none.
    std::string error_of(const bytes& b) {
        try {
            auto p = read(b);
            p->mark_processed();
        } catch (const vrk::runtime_error& e) {
            e.mark_processed();
            return short_form(e);
        }
        return "";
    }
    // A chain of three exceptions of two nodes each, with an argument, a
    // stack, an empty message, a node without file name and negative values.
    exception chain() {
        exception a("net/socket.src", 120, OPEN_FAILED, nullptr);
        a.define_argument("FILE", "config.ini", false);
        a.append_message("net/main.src", -1, -2, "Startup failed");
        exception b("db.src", 7, BOOM, NO_STACK);
        b.append_message(nullptr, 8, 9, "");
        exception c("io.src", 0, BOOM, nullptr);
        c.append_message("io2.src", 2, 3, "third");
        b << c;
        a << b;
        return a;
    }
    vrk_test::test_allocator alloc_;     // streams and texts
    vrk_test::test_allocator obj_alloc_; // the deserialized object
};

const char* const PATTERN = "exception 1001: Runtime error\nexception 1001: Exception "
                            "deserialization. Bad data pattern: ";

TEST_F(Serialize, ExactBytesOfOneNodeAndOfBadAllocationBodies) {
    exception e("a.src", 42, BOOM, nullptr); // captured stack: allocation code 0
    bytes want = {0xFA, 0xCE, 0x00, 0x00, 0xFA, 0xCA, 0xDE, 0x01, // type header
                  0xAD, 0xDD, 0xEE, 0xD2, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 42, 0, 0, 0, 5,
                  'a',  '.',  's',  'r',  'c', 0, 0, 0, 4, 'b', 'o', 'o', 'm', 0, 0, 0, 0,
                  0xAD, 0xDE, 0xDC, 0xAB};
    EXPECT_EQ(serialized(e, true), want);
    // With the stack not suppressed the record carries the printed section.
    const bytes with_stack = serialized(e, false);
    const std::string section = "exception throw location:\n#0 (nil)\n#1 0x1\n#2 0x2\n\n";
    ASSERT_EQ(with_stack.size(), want.size() + section.size());
    EXPECT_EQ(std::string(with_stack.end() - 4 - section.size(), with_stack.end() - 4), section);

    // Negative line and error number travel as their 32-bit patterns.
    exception neg("f", -1, vrk::error_code{-2, "", nullptr}, nullptr);
    const bytes nb = serialized(neg, true);
    EXPECT_EQ(bytes(nb.begin() + 12, nb.begin() + 24),
              (bytes{0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
    auto back = read(nb);
    EXPECT_EQ(back->error_no(), -2);
    EXPECT_EQ(back->line(), -1);
    back->mark_processed();

    // Without a data block: DE FA CE D2, number, line, file name, no end word.
    auto& def = vrk_test::default_test_allocator();
    def.fail_from(0);
    exception lost("x", 5, BOOM, NO_STACK);
    exception lost_nofile(nullptr, 6, BOOM, NO_STACK);
    def.fail_never();
    ASSERT_EQ(lost.data(), nullptr);
    const bytes lb = serialized(lost, true);
    EXPECT_EQ(lb, (bytes{0xFA, 0xCE, 0, 0, 0xFA, 0xCA, 0xDE, 0x01, 0xDE, 0xFA, 0xCE, 0xD2, 0, 0,
                         0, 7, 0, 0, 0, 5, 0, 0, 0, 1, 'x'}));
    auto imported = read(lb);
    ASSERT_NE(imported->data(), nullptr);
    EXPECT_STREQ(imported->what(), "Bad allocation in exception object (imported)");
    EXPECT_STREQ(imported->file().get(), "x");
    EXPECT_EQ(imported->line(), 5);
    EXPECT_EQ(imported->error_no(), 7);
    imported->mark_processed();
    auto nofile = read(serialized(lost_nofile, true));
    EXPECT_EQ(nofile->data(), nullptr);
    EXPECT_EQ(nofile->error_no(), 7);
    EXPECT_EQ(nofile->line(), 6);
}

TEST_F(Serialize, ChainRoundTripKeepsTextsNumbersAndStacks) {
    exception sent = chain();
    const std::string sent_long = long_form(sent);
    const bytes b = serialized(sent, false);
    for (auto* d = sent.data(); d != nullptr; d = d->next())
        EXPECT_TRUE(d->done()) << "serializing handles every block";

    auto got = read(b);
    ASSERT_TRUE(got);
    EXPECT_EQ(long_form(*got), sent_long) << "messages expanded, stacks verbatim";

    // Numbers, lines, files and texts are in the long form; what it does not
    // show (stack sections print from their recorded text) is checked per
    // block and node.
    std::vector<exception> keep;
    std::vector<const vrk::exception_node*> got_nodes;
    std::vector<int> codes;
    for (exception x = *got; x.data() != nullptr; x = x.get_next()) {
        keep.push_back(x);
        EXPECT_EQ(x.stack_trace(nullptr), 0);
        EXPECT_FALSE(x.data()->stack());
        EXPECT_EQ(x.data()->p_ma_, &vrk_test::default_test_allocator());
        for (auto it = x.begin(); it != exception::end(); ++it) {
            got_nodes.push_back(&*it);
            codes.push_back(it->bad_alloc());
            EXPECT_EQ(it->first(), nullptr) << "parameters live only in the text";
        }
    }
    EXPECT_EQ(keep.size(), 3u);
    ASSERT_EQ(got_nodes.size(), 6u);
    EXPECT_EQ(codes, (std::vector<int>{0, 0, vrk::exception_node::STACK_SUPPRESS, 0, 0, 0}));
    EXPECT_STREQ(got_nodes[0]->message(), "Cannot open config.ini");
    EXPECT_EQ(got_nodes[3]->file().get(), nullptr);
    EXPECT_STREQ(got_nodes[3]->message(), "");
    EXPECT_STREQ(got->get_msgarg_by_name("FILE"), "");
    // The object takes its fallback fields from the first node, is not
    // registered, has no printer and is news until handled.
    EXPECT_STREQ(got->file().get(), "net/socket.src");
    EXPECT_EQ(got->line(), 120);
    EXPECT_EQ(got->error_no(), 1000123);
    EXPECT_EQ(exception::get_first_registered(), nullptr);
    EXPECT_EQ(got->get_print_function(), nullptr);
    keep.clear();
    got.reset();
    EXPECT_EQ(vrk_test::counters().forgotten.load(), 0) << "inspected above";
    EXPECT_EQ(obj_alloc_.balance(), 0);

    // Dropped without a look, an imported exception is reported as forgotten.
    read(b).reset();
    EXPECT_EQ(vrk_test::counters().forgotten.load(), 1);

    // Suppressed stacks: every stack record is empty, and the imported
    // sections print by the first node's code.
    auto quiet = read(serialized(sent, true));
    const std::string quiet_long = long_form(*quiet);
    EXPECT_NE(quiet_long.find("Bad alloc.code: 0"), std::string::npos) << quiet_long;
}

TEST_F(Serialize, WriterKeepsEveryTextInSmallAllocationsOrFailsTheStream) {
    // 64 messages of 60 to 80 characters, alone and in a chain of 64.
    const auto many_texts = [](int line) {
        exception e("long.src", line, BOOM, nullptr);
        for (int i = 0; i < 64; ++i)
            e.append_message("long.src", i, i, std::string(60 + (i + line) % 21, 'a').c_str());
        return e;
    };
    exception one = many_texts(0);
    exception chain = many_texts(0);
    for (int i = 1; i < 64; ++i)
        chain << many_texts(i);
    auto& def = vrk_test::default_test_allocator();
    for (const exception* e : {&one, &chain}) {
        def.reset_requests();
        vrk::osstream os(alloc_);
        e->serialize(os, false);
        ASSERT_TRUE(os.good());
        EXPECT_LT(def.largest_request(), 64u * 1024u) << "the writer's scratch text";
        EXPECT_EQ(long_form(*read(to_bytes(os))), long_form(*e));
    }

    // The reader's limit holds for the writer: a text one byte longer than
    // MAX_WIRE_TEXT fails the stream instead of writing what cannot be read.
    for (const size_t len : {size_t{exception::MAX_WIRE_TEXT}, exception::MAX_WIRE_TEXT + 1ul}) {
        exception big("big.src", 1, BOOM, NO_STACK);
        big.append_message("big.src", 2, 3, std::string(len, 'b').c_str());
        vrk::osstream os(alloc_);
        big.serialize(os, true);
        if (len > exception::MAX_WIRE_TEXT) {
            EXPECT_TRUE(os.bad());
            continue;
        }
        ASSERT_TRUE(os.good());
        EXPECT_EQ(std::strlen(read(to_bytes(os))->begin()->next()->message()), len);
    }
}

// Frozen bytes of a two-exception chain with two messages each, arguments
// and a stack text: a writer and a reader that change in step still fail.
TEST_F(Serialize, GoldenBytesDecodeAndEncodeAgainUnchanged) {
    const std::string path = std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) +
                             "/data/two_exceptions.hex";
    std::ifstream in(path);
    ASSERT_TRUE(in) << path;
    bytes golden;
    for (unsigned byte; in >> std::hex >> byte;)
        golden.push_back(static_cast<unsigned char>(byte));
    auto got = read(golden);
    EXPECT_EQ(short_form(*got),
              "exception 1000123: Cannot open config.ini\nexception 5: Retry 3 of "
              "5\nexception 7: boom\nexception -9: Query on users failed\n");
    EXPECT_EQ(serialized(*got, false), golden);
}

TEST_F(Serialize, BadPatternsNameTheWordReadAndTheWordExpected) {
    bytes header = {0xFA, 0xCE, 0, 0, 0xFA, 0xCA, 0xDE, 0x01};
    bytes body_start_wrong = header;
    put_word(body_start_wrong, 0xFACADE01u);
    EXPECT_EQ(error_of(body_start_wrong),
              std::string(PATTERN) + "4207599105, expected: 2917002962\n");

    exception e("a.src", 1, BOOM, NO_STACK);
    bytes good = serialized(e, true);
    bytes end_wrong = good;
    std::fill(end_wrong.end() - 4, end_wrong.end(), 0);
    EXPECT_EQ(error_of(end_wrong), std::string(PATTERN) + "0, expected: 2917063851\n");

    bytes bad_type = {0x0A, 0xCE, 0, 0};
    EXPECT_EQ(error_of(bad_type), std::string(PATTERN) + "181272576, expected: 4207804416\n");
    bytes bad_check = {0xFA, 0xCE, 0, 0, 0xFA, 0xCA, 0xDE, 0x02};
    EXPECT_EQ(error_of(bad_check), std::string(PATTERN) + "4207599106, expected: 4207599105\n");
    bytes empty;
    EXPECT_EQ(error_of(empty), std::string(PATTERN) + "0, expected: 4207804416\n")
        << "a short read yields zeros";

    // Any type word with all the mark's bits is accepted; 0xFFFF0000 is type 0.
    bytes all_ones = good;
    all_ones[0] = all_ones[1] = 0xFF;
    EXPECT_EQ(error_of(all_ones), "");

    // The error is a registered runtime_error located in the caller.
    try {
        read(body_start_wrong);
        FAIL();
    } catch (const vrk::runtime_error& err) {
        EXPECT_EQ(err.error_no(), 1001);
        EXPECT_STREQ(err.file().get(), "sys/src/vrk/base/impl/exception");
        const vrk::exception_node* msg = err.begin()->next();
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg->line(), err.line());
        EXPECT_STREQ(msg->first()->name_, "CURRENT");
        EXPECT_STREQ(msg->first()->p_next_->name_, "EXPECT");
    }
}

TEST_F(Serialize, HostileLengthsAllocateNoMoreThanTheInput) {
    // A peak-tracking allocator behind the default allocator.
    struct peak_allocator : vrk_test::test_allocator {
        void* allocate(size_t size, const void* caller) override {
            peak = std::max(peak, size);
            return test_allocator::allocate(size, caller);
        }
        size_t peak = 0;
    } peak;
    vrk_test::set_default_allocator(&peak);
    auto node_with = [](uint32_t fname_len, uint32_t msg_len, size_t payload) {
        bytes b = {0xFA, 0xCE, 0, 0, 0xFA, 0xCA, 0xDE, 0x01};
        put_word(b, 0xADDDEED2u);
        put_word(b, 1);
        put_word(b, 0);
        put_word(b, 2);
        put_word(b, fname_len);
        if (fname_len == 0)
            put_word(b, msg_len);
        b.resize(b.size() + payload, 'z');
        return b;
    };
    const std::string over = "exception 1001: Runtime error\nexception 1001: Exception "
                             "deserialization. Bad length: 4294967295, limit: 16777216\n";
    EXPECT_EQ(error_of(node_with(0xFFFFFFFFu, 0, 0)), over);
    EXPECT_EQ(error_of(node_with(0, 0xFFFFFFFFu, 0)), over);
    EXPECT_EQ(peak.peak, 0u) << "rejected before any allocation";

    // Just under the limit, but the input ends soon: the reader allocates in
    // step with the bytes that arrive, not for the promised length.
    EXPECT_EQ(error_of(node_with(16u << 20, 0, 1000)),
              "exception 1001: Runtime error\nexception 1001: Exception deserialization. Input "
              "ends inside a text: 16777216 bytes expected, 1000 read\n");
    EXPECT_EQ(error_of(node_with(0, (16u << 20) - 1, 200000)),
              "exception 1001: Runtime error\nexception 1001: Exception deserialization. Input "
              "ends inside a text: 16777215 bytes expected, 200000 read\n");
    EXPECT_LE(peak.peak, 2 * 200000u + 64 * 1024);

    {
        // A long text that is all there comes back whole.
        exception big("f", 1, BOOM, NO_STACK);
        const std::string long_msg(300000, 'q');
        big.append_message("g", 2, 3, long_msg.c_str());
        auto back = read(serialized(big, true));
        EXPECT_EQ(std::strlen(back->begin()->next()->message()), long_msg.size());
    }
    vrk_test::set_default_allocator(nullptr);
    EXPECT_EQ(peak.balance(), 0);
}

TEST_F(Serialize, EveryTruncationAndFlippedByteLeavesNothingBehind) {
    auto& def = vrk_test::default_test_allocator();
    const bytes b = serialized(chain(), false);
    bytes bad_alloc_body = {0xFA, 0xCE, 0, 0, 0xFA, 0xCA, 0xDE, 0x01};
    for (uint32_t w : {0xDEFACED2u, 7u, 5u, 1u})
        put_word(bad_alloc_body, w);
    bad_alloc_body.push_back('x');
    const long base = def.balance();
    for (const bytes& whole : {b, bad_alloc_body})
        for (size_t n = 0; n < whole.size(); ++n) {
            EXPECT_NE(error_of(bytes(whole.begin(), whole.begin() + static_cast<long>(n))), "") << n;
            ASSERT_EQ(def.balance(), base) << "cut at " << n;
            ASSERT_EQ(obj_alloc_.balance(), 0) << "cut at " << n;
        }
    for (size_t i = 0; i < b.size(); ++i)
        for (unsigned char mask : {0x01, 0x80, 0xFF}) {
            bytes f = b;
            f[i] ^= mask;
            error_of(f); // may be valid; must not leak or crash
            ASSERT_EQ(def.balance(), base) << "flip at " << i;
            ASSERT_EQ(obj_alloc_.balance(), 0) << "flip at " << i;
        }
    EXPECT_EQ(def.bad_releases(), 0);
}

// A derived class that carries a port number in its type header.
class net_error : public exception {
public:
    static constexpr unsigned short TYPE = 0x42;
    net_error(const char* fname, int line, const vrk::error_code& code, uint32_t port)
        : exception(fname, line, code, NO_STACK), port_(port) {}
    uint32_t port() const { return port_; }
    static vrk::auto_ptr<exception, vrk::default_deleter> create(vrk::istream& inp,
                                                                 vrk::allocator& alloc) {
        const uint32_t port = read_int(inp);
        vrk::auto_ptr<exception, vrk::default_deleter> result;
        ::new (vrk::auto_ptr_mem_ref(result), alloc, 0) net_error(port);
        return result;
    }
    static vrk::auto_ptr<exception, vrk::default_deleter> refuse(vrk::istream&,
                                                                 vrk::allocator&) {
        return {};
    }

protected:
    void store_type(vrk::ostream& out) const override {
        write_int(out, TYPE_MARK | TYPE);
        write_int(out, port_);
    }

private:
    explicit net_error(uint32_t port) : exception(nullptr), port_(port) {
        if (port == 0)
            throw std::invalid_argument("port 0");
    }
    uint32_t port_;
};

TEST_F(Serialize, DerivedClassesTravelThroughTheirRegisteredCreator) {
    net_error sent("net.src", 3, BOOM, 8080);
    sent.append_message("net.src", 4, 5, "refused");
    const bytes b = serialized(sent, true);
    EXPECT_EQ(bytes(b.begin(), b.begin() + 8), (bytes{0xFA, 0xCE, 0, 0x42, 0, 0, 0x1F, 0x90}));

    ASSERT_TRUE(vrk::register_exception_type(net_error::TYPE, &net_error::create));
    EXPECT_TRUE(vrk::register_exception_type(net_error::TYPE, &net_error::create));
    EXPECT_FALSE(vrk::register_exception_type(net_error::TYPE, &net_error::refuse));
    EXPECT_EQ(vrk::exception_by_type(net_error::TYPE), &net_error::create);
    {
        auto got = read(b);
        auto* net = dynamic_cast<net_error*>(got.get());
        ASSERT_NE(net, nullptr);
        EXPECT_EQ(net->port(), 8080u);
        EXPECT_EQ(short_form(*got), "exception 7: boom\nexception 5: refused\n");
    }
    EXPECT_EQ(obj_alloc_.balance(), 0) << "released through the virtual destructor";
    bytes port0 = b;
    std::fill(port0.begin() + 4, port0.begin() + 8, 0);
    EXPECT_THROW(read(port0), std::invalid_argument);
    EXPECT_EQ(obj_alloc_.balance(), 0) << "a constructor that throws leaves nothing behind";

    // Without a creator the port is taken for the base check word.
    ASSERT_TRUE(vrk::unregister_exception_type(net_error::TYPE, &net_error::create));
    EXPECT_EQ(vrk::exception_by_type(net_error::TYPE), nullptr);
    EXPECT_EQ(error_of(b), std::string(PATTERN) + "8080, expected: 4207599105\n");
    // An unknown type whose header is the base one reads as a plain exception.
    bytes plain = b;
    const uint32_t check = exception::DEFAULT_TYPE_CHECK;
    for (int i = 0; i < 4; ++i)
        plain[4 + i] = static_cast<unsigned char>(check >> (24 - 8 * i));
    {
        auto got = read(plain);
        EXPECT_EQ(dynamic_cast<net_error*>(got.get()), nullptr);
        EXPECT_EQ(short_form(*got), "exception 7: boom\nexception 5: refused\n");
    }
    // A creator that returns nothing makes deserialize return nothing.
    ASSERT_TRUE(vrk::register_exception_type(net_error::TYPE, &net_error::refuse));
    EXPECT_FALSE(read(b));
    EXPECT_TRUE(vrk::unregister_exception_type(net_error::TYPE, &net_error::refuse));
}

} // namespace
