// Serialization: the frozen bytes of a chain and of a body without data
// block, the writer's memory and length limit, the reader's error texts and
// allocations on hostile input, and derived classes that register their own
// creator. Decoding arbitrary bytes (leaks, truncations, second round trips)
// is the fuzz target's part, replayed over its seeds in every build.
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
using vrk_test::long_form;
using vrk_test::NO_STACK;
using vrk_test::short_form;
using bytes = std::vector<unsigned char>;

const vrk::error_code BOOM{7, "boom", nullptr};
constexpr uint32_t HEAD = 0xFACE0000u, CHECK = 0xFACADE01u, NODE = 0xADDDEED2u;
constexpr uint32_t END = 0xADDEDCABu, MAX = exception::MAX_WIRE_TEXT;

bytes to_bytes(vrk::osstream& os) {
    vrk::string s = os.str();
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    return bytes(p, p + s.size());
}

// Big-endian `words`, then `payload` bytes 'z'.
bytes wire(std::initializer_list<uint32_t> words, size_t payload = 0) {
    bytes b;
    for (uint32_t w : words)
        for (int shift = 24; shift >= 0; shift -= 8)
            b.push_back(static_cast<unsigned char>(w >> shift));
    b.resize(b.size() + payload, 'z');
    return b;
}

class Serialize : public vrk_test::host_fixture {
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
    // The short form of the error `b` raises; "" when none.
    std::string error_of(const bytes& b) {
        try {
            read(b)->mark_processed();
        } catch (const vrk::runtime_error& e) {
            e.mark_processed();
            return short_form(e);
        }
        return "";
    }
    vrk_test::test_allocator alloc_;     // streams and texts
    vrk_test::test_allocator obj_alloc_; // the deserialized object
};

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
    got.reset();
    EXPECT_EQ(vrk_test::counters().forgotten.load(), 0) << "serializing handles it";
    read(golden).reset();
    EXPECT_EQ(vrk_test::counters().forgotten.load(), 1) << "dropped without a look";
    // A message appended to what was read goes behind the first exception's.
    auto again = read(golden);
    again->append_message("f", 1, 2, "added");
    EXPECT_NE(short_form(*again).find("of 5\nexception 2: added\nexception 7"), std::string::npos);
}

// An exception whose data block could not be allocated: number, line and
// file name, no end word. Read back it gets a block with a fixed text (the
// exception fuzz target checks it), or none without a file name.
TEST_F(Serialize, ABodyWithoutDataBlockHasItsOwnBytes) {
    auto& def = vrk_test::default_test_allocator();
    def.fail_from(0);
    exception lost("x", 5, BOOM, NO_STACK);
    exception lost_nofile(nullptr, 6, BOOM, NO_STACK);
    def.fail_never();
    ASSERT_EQ(lost.data(), nullptr);
    const bytes b = serialized(lost, true);
    EXPECT_EQ(b, (bytes{0xFA, 0xCE, 0, 0, 0xFA, 0xCA, 0xDE, 0x01, 0xDE, 0xFA, 0xCE, 0xD2, 0,
                        0,    0,    7, 0, 0,    0,    5,    0,    0,    0,    1,    'x'}));
    EXPECT_EQ(read(serialized(lost_nofile, true))->data(), nullptr) << "nothing to hold";
}

TEST_F(Serialize, WriterKeepsEveryTextInSmallAllocationsOrFailsTheStream) {
    // A chain of 64 exceptions with 64 messages of 60 to 80 characters each.
    const auto many_texts = [](int line) {
        exception e("long.src", line, BOOM, nullptr);
        for (int i = 0; i < 64; ++i)
            e.append_message("long.src", i, i, std::string(60 + (i + line) % 21, 'a').c_str());
        return e;
    };
    exception chain = many_texts(0);
    for (int i = 1; i < 64; ++i)
        chain << many_texts(i);
    // Texts about as long as the writer gathers and the reader reads with
    // the word behind them.
    static const std::string names[] = {std::string(250, 'f'), std::string(256, 'g'),
                                        std::string(257, 'h'), std::string(300, 'i')};
    exception edges(names[0].c_str(), 1, BOOM, nullptr);
    for (int i = 0; i < 40; ++i)
        edges.append_message(names[i % 4].c_str(), i, i, std::string(235 + i, 'm').c_str());
    auto& def = vrk_test::default_test_allocator();
    for (const exception* e : {&chain, &edges}) {
        def.reset_requests();
        vrk::osstream os(alloc_);
        e->serialize(os, false);
        ASSERT_TRUE(os.good());
        EXPECT_LT(def.largest_request(), 64u * 1024u) << "the writer's scratch text";
        EXPECT_EQ(long_form(*read(to_bytes(os)), false, false), long_form(*e, false, false));
        for (auto* d = e->data(); d != nullptr; d = d->next())
            EXPECT_TRUE(d->done()) << "serializing handles every block";
    }

    // The reader's limit holds for the writer: a text one byte longer than
    // MAX_WIRE_TEXT fails the stream instead of writing what cannot be read.
    for (const size_t len : {size_t{MAX}, MAX + 1ul}) {
        exception big("big.src", 1, BOOM, NO_STACK);
        big.append_message("big.src", 2, 3, std::string(len, 'b').c_str());
        vrk::osstream os(alloc_);
        big.serialize(os, true);
        if (len > MAX) {
            EXPECT_TRUE(os.bad());
            continue;
        }
        ASSERT_TRUE(os.good());
        EXPECT_EQ(std::strlen(read(to_bytes(os))->begin()->next()->message()), len);
    }
}

// Each input with the error it raises and the largest allocation it may cost
// (the error's own block included): a promised length costs nothing before
// its bytes come.
TEST_F(Serialize, ReaderErrorsNameWhatWasReadAndAllocateInStepWithTheInput) {
    const std::string head = "exception 1001: Runtime error\nexception 1001: Exception "
                             "deserialization. ";
    const std::string pattern = head + "Bad data pattern: ", length = head + "Bad length: ",
                      ends = head + "Input ends inside a text: ";
    const struct {
        bytes input;
        std::string error;
        size_t largest = 1024;
    } cases[] = {
        {wire({HEAD, CHECK, CHECK}), pattern + "4207599105, expected: 2917002962\n"},
        {wire({HEAD, CHECK, NODE, 1, 0, 2, 0, 0}), pattern + "0, expected: 2917063851\n"},
        {wire({0x0ACE0000u}), pattern + "181272576, expected: 4207804416\n"},
        {wire({HEAD, 0xFACADE02u}), pattern + "4207599106, expected: 4207599105\n"},
        {wire({}), pattern + "0, expected: 4207804416\n"}, // a short read yields zeros
        // Any type word with all the mark's bits is accepted: 0xFFFF0000 is type 0.
        {wire({0xFFFF0000u, CHECK, NODE, 1, 0, 2, 0, 0, 0, END}), ""},
        {wire({HEAD, CHECK, NODE, 1, 0, 2, 0xFFFFFFFFu}), length + "4294967295, limit: 16777216\n"},
        {wire({HEAD, CHECK, NODE, 1, 0, 2, 0, 0xFFFFFFFFu}),
         length + "4294967295, limit: 16777216\n"},
        {wire({HEAD, CHECK, NODE, 1, 0, 2, 0, MAX + 1}), length + "16777217, limit: 16777216\n"},
        {wire({HEAD, CHECK, NODE, 1, 0, 2, 5}, 3), ends + "5 bytes expected, 3 read\n"},
        {wire({HEAD, CHECK, NODE, 1, 0, 2, 0, 5}, 4), ends + "5 bytes expected, 4 read\n"},
        {wire({HEAD, CHECK, NODE, 1, 0, 2, MAX}, 1000),
         ends + "16777216 bytes expected, 1000 read\n", 64 * 1024},
        {wire({HEAD, CHECK, NODE, 1, 0, 2, 0, MAX - 1}, 200000),
         ends + "16777215 bytes expected, 200000 read\n", 2 * 200000 + 64 * 1024},
    };
    auto& def = vrk_test::default_test_allocator();
    for (const auto& c : cases) {
        def.reset_requests();
        EXPECT_EQ(error_of(c.input), c.error);
        EXPECT_LE(def.largest_request(), c.largest) << c.error;
    }
    EXPECT_EQ(obj_alloc_.balance(), 0);
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
    static vrk::auto_ptr<exception, vrk::default_deleter> refuse(vrk::istream&, vrk::allocator&) {
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

    // Without a creator the port is taken for the base check word; a
    // creator that returns nothing makes deserialize return nothing.
    ASSERT_TRUE(vrk::unregister_exception_type(net_error::TYPE, &net_error::create));
    EXPECT_EQ(error_of(b),
              "exception 1001: Runtime error\nexception 1001: Exception deserialization. Bad "
              "data pattern: 8080, expected: 4207599105\n");
    ASSERT_TRUE(vrk::register_exception_type(net_error::TYPE, &net_error::refuse));
    EXPECT_FALSE(read(b));
    EXPECT_TRUE(vrk::unregister_exception_type(net_error::TYPE, &net_error::refuse));
}

} // namespace
