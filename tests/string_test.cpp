// The growable string: capacities after growth, sharing and unsharing of
// heap blocks, copies across allocators, read-only views, size errors and
// allocation failure. Every scenario ends with the string allocator at zero.
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_host.hpp"
#include "vrk/string.hpp"

namespace {

using vrk_test::test_allocator;

// A text of n characters that differ from position to position.
std::string pattern(size_t n, char first = 'a') {
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += static_cast<char>(first + i % 26);
    return s;
}

std::string text_of(const vrk::string& s) { return std::string(s.data(), s.size()); }
// Reads without unsharing (the non-const data() makes the storage exclusive).
const char* cdata(const vrk::string& s) { return s.data(); }

// Bytes a heap block of capacity c takes: the count, the text, the NUL.
size_t block_bytes(size_t c) { return c + 9; }

class StringTest : public vrk_test::host_fixture {
protected:
    void TearDown() override {
        EXPECT_EQ(ta_.balance(), 0) << "string allocator leaked";
        EXPECT_EQ(ta_.bad_releases(), 0) << "a block was released twice or elsewhere";
        EXPECT_EQ(tb_.balance(), 0);
        EXPECT_EQ(tb_.bad_releases(), 0);
        host_fixture::TearDown();
    }
    vrk::string make(const std::string& s) { return vrk::string(s.data(), s.size(), ta_); }

    test_allocator ta_, tb_;
};

TEST_F(StringTest, GrowthGivesTheDocumentedCapacitiesAndBlockSizes) {
    {
        vrk::string s = make(pattern(39));
        EXPECT_TRUE(s.is_inline());
        EXPECT_EQ(s.capacity(), 39u);
        EXPECT_EQ(ta_.allocations(), 0) << "39 characters need no allocation";
        EXPECT_EQ(s.c_str()[39], '\0');

        s.push_back('!');
        EXPECT_TRUE(s.is_heap());
        EXPECT_EQ(s.capacity(), 59u);
        EXPECT_EQ(s.share_count(), 1u);
        EXPECT_EQ(ta_.bytes_in_use(), block_bytes(59));
        EXPECT_EQ(text_of(s), pattern(39) + "!");
        EXPECT_EQ(s.c_str()[40], '\0');
    }
    EXPECT_EQ(ta_.balance(), 0);
    {
        vrk::string s(ta_);
        s.assign("abc", 3);
        s.reserve(100);
        EXPECT_EQ(s.capacity(), 100u) << "a request above half again is taken as it is";
        EXPECT_EQ(text_of(s), "abc");
        s.reserve(120);
        EXPECT_EQ(s.capacity(), 151u) << "100 + 50 + 1";
        EXPECT_EQ(ta_.balance(), 1) << "the old block went back";
        EXPECT_EQ(ta_.bytes_in_use(), block_bytes(151));
        EXPECT_EQ(text_of(s), "abc");
        s.reserve(10);
        EXPECT_EQ(s.capacity(), 151u) << "reserve never shrinks";
    }
    {
        // Appending one character at a time: 39 -> 59 -> 89 -> 134 -> ...
        vrk::string s(ta_);
        std::string expect;
        std::vector<size_t> caps;
        for (int i = 0; i < 200; ++i) {
            s.push_back(static_cast<char>('0' + i % 10));
            expect += static_cast<char>('0' + i % 10);
            if (caps.empty() || caps.back() != s.capacity())
                caps.push_back(s.capacity());
        }
        EXPECT_EQ(caps, (std::vector<size_t>{39, 59, 89, 134, 202}));
        EXPECT_EQ(text_of(s), expect);
        EXPECT_EQ(std::strlen(s.c_str()), 200u);
    }
}

TEST_F(StringTest, CopiesShareLongTextsAndChangesUnshareThem) {
    {
        vrk::string a(ta_);
        a.reserve(100);
        a.assign(pattern(60).data(), 60);
        const char* block = cdata(a);

        vrk::string b(a);
        EXPECT_EQ(cdata(b), block);
        EXPECT_EQ(a.share_count(), 2u);
        EXPECT_EQ(ta_.balance(), 1) << "sharing costs no allocation";

        // The shared block had room: the copy gets a private block of exactly 61.
        const char* pos = b.insert(cdata(b) + 10, '#');
        EXPECT_NE(cdata(b), block);
        EXPECT_EQ(b.capacity(), 61u);
        EXPECT_EQ(*pos, '#');
        EXPECT_EQ(text_of(b), pattern(60).insert(10, "#"));
        EXPECT_EQ(cdata(a), block);
        EXPECT_EQ(text_of(a), pattern(60));
        EXPECT_EQ(a.share_count(), 1u);
        EXPECT_EQ(b.share_count(), 1u);
        EXPECT_EQ(ta_.balance(), 2);
    }
    EXPECT_EQ(ta_.balance(), 0);
    {
        // Short texts are copied into the inline buffer, never shared.
        const long before = ta_.allocations();
        vrk::string a = make(pattern(20));
        vrk::string b(a);
        EXPECT_TRUE(b.is_inline());
        EXPECT_EQ(text_of(b), pattern(20));
        EXPECT_EQ(ta_.allocations(), before);
    }
    {
        // Assignment shares too; the last holder frees; writing through the
        // non-const data() of a sharer copies first.
        vrk::string a = make(pattern(50));
        vrk::string b(ta_), c(ta_);
        b = a;
        c = b;
        EXPECT_EQ(a.share_count(), 3u);
        c.data()[0] = 'Z';
        EXPECT_EQ(a.share_count(), 2u);
        EXPECT_EQ(text_of(a), pattern(50));
        EXPECT_EQ(c[0], 'Z');
        a = c; // drops a's share, joins c's block
        EXPECT_EQ(b.share_count(), 1u);
        EXPECT_EQ(c.share_count(), 2u);
        EXPECT_EQ(ta_.balance(), 2);
    }
    {
        // A move takes the storage and leaves an empty inline string.
        vrk::string a = make(pattern(50));
        const char* block = cdata(a);
        vrk::string b(std::move(a));
        EXPECT_EQ(cdata(b), block);
        EXPECT_TRUE(a.empty()); // NOLINT: moved-from state is specified
        EXPECT_TRUE(a.is_inline());
        EXPECT_EQ(b.share_count(), 1u);
        EXPECT_EQ(ta_.balance(), 1);
    }
    {
        // Unsharing to a short length goes inline.
        vrk::string a = make(pattern(50));
        vrk::string b(a);
        b.raw_resize(5, true);
        EXPECT_TRUE(b.is_inline());
        EXPECT_EQ(text_of(b), pattern(5));
        EXPECT_EQ(a.share_count(), 1u);
        b = a;
        b.assign("xy", 2);
        EXPECT_TRUE(b.is_inline());
        EXPECT_EQ(a.share_count(), 1u);
        b = a;
        b.clear();
        EXPECT_TRUE(b.is_inline());
        EXPECT_EQ(a.share_count(), 1u);
        EXPECT_EQ(text_of(a), pattern(50));
        EXPECT_EQ(ta_.balance(), 1);
    }
}

TEST_F(StringTest, CopyOntoAnotherAllocatorAndSwap) {
    {
        vrk::string a = make(pattern(45));
        vrk::string b(a, tb_);
        EXPECT_EQ(&b.get_allocator(), &tb_);
        EXPECT_EQ(b.capacity(), 59u) << "40 to 58 characters get the first growth capacity";
        EXPECT_EQ(tb_.bytes_in_use(), block_bytes(59));
        EXPECT_EQ(a.share_count(), 1u);
        EXPECT_EQ(text_of(b), pattern(45));

        vrk::string c = make(pattern(70));
        vrk::string d(c, tb_);
        EXPECT_EQ(d.capacity(), 70u);
        vrk::string e(make(pattern(30)), tb_);
        EXPECT_TRUE(e.is_inline());
        EXPECT_EQ(tb_.balance(), 2);
    }
    {
        // Same allocator: the storage is exchanged, nothing is copied.
        vrk::string a = make(pattern(50));
        vrk::string b = make("short");
        const char* block = cdata(a);
        const long before = ta_.allocations();
        a.swap(b);
        EXPECT_EQ(cdata(b), block);
        EXPECT_EQ(text_of(a), "short");
        EXPECT_EQ(ta_.allocations(), before);
    }
    {
        // Different allocators: each keeps its own and holds the other's text.
        vrk::string a = make(pattern(50));
        vrk::string b(pattern(80, 'A').c_str(), tb_);
        a.swap(b);
        EXPECT_EQ(&a.get_allocator(), &ta_);
        EXPECT_EQ(&b.get_allocator(), &tb_);
        EXPECT_EQ(text_of(a), pattern(80, 'A'));
        EXPECT_EQ(text_of(b), pattern(50));
        EXPECT_EQ(b.capacity(), 59u);
        EXPECT_EQ(ta_.balance(), 1);
        EXPECT_EQ(tb_.balance(), 1);
    }
}

TEST_F(StringTest, AssignAndInsertWriteTheRightBytes) {
    {
        vrk::string s = make("0123456789");
        s.assign(s.data() + 2, 1000);
        EXPECT_EQ(text_of(s), "23456789");
        EXPECT_EQ(s.c_str()[8], '\0');
    }
    {
        // A piece of a shared text: the other holder keeps the whole text.
        vrk::string a = make(pattern(60));
        vrk::string b(a);
        b.assign(cdata(b) + 5, 45);
        EXPECT_EQ(text_of(b), pattern(60).substr(5, 45));
        EXPECT_EQ(text_of(a), pattern(60));
        EXPECT_EQ(a.share_count(), 1u);
    }
    {
        // An exclusive block is kept for a short text (the stream buffer
        // reserves, then assigns into it).
        vrk::string s(ta_);
        s.reserve(512);
        s.assign("abc", 3);
        EXPECT_EQ(s.capacity(), 512u);
        s.assign(pattern(600).data(), 600);
        EXPECT_EQ(s.capacity(), 769u);
        EXPECT_EQ(text_of(s), pattern(600));
        EXPECT_EQ(ta_.balance(), 1);
    }
    {
        vrk::string s = make("0123456789");
        s.insert(cdata(s) + s.size(), 'X');
        s.insert(cdata(s), '<');
        s.insert(cdata(s) + 5, '|');
        EXPECT_EQ(text_of(s), "<0123|456789X");
        EXPECT_EQ(s.c_str()[13], '\0');
        vrk::string t = make(pattern(39));
        t.insert(cdata(t) + 39, '$');
        EXPECT_EQ(t.capacity(), 59u);
        EXPECT_EQ(text_of(t), pattern(39) + "$");
    }
    {
        // Appending a piece of its own text while growing out of the buffer.
        vrk::string s = make(pattern(30));
        s.append(s.data(), 30);
        EXPECT_EQ(text_of(s), pattern(30) + pattern(30));
    }
}

TEST_F(StringTest, RawResizeSetsTheLengthWithoutWritingCharacters) {
    {
        vrk::string s = make(pattern(100));
        s.raw_resize(5, true);
        EXPECT_TRUE(s.is_inline());
        EXPECT_EQ(text_of(s), pattern(5));
        EXPECT_EQ(ta_.balance(), 0);
    }
    {
        // Without use_buffer an exclusive block stays; the characters the
        // storage already held become the text.
        vrk::string s(ta_);
        s.reserve(200);
        std::memcpy(s.data(), pattern(150).data(), 150);
        s.raw_resize(150, false);
        EXPECT_EQ(text_of(s), pattern(150));
        EXPECT_EQ(s.c_str()[150], '\0');
        s.raw_resize(20, false);
        EXPECT_EQ(s.capacity(), 200u);
        EXPECT_EQ(text_of(s), pattern(20));
        s.raw_resize(40, true);
        EXPECT_EQ(text_of(s), pattern(20) + '\0' + pattern(40).substr(21))
            << "the old characters are still there, behind the NUL of length 20";
        s.raw_resize(300, false);
        EXPECT_EQ(s.capacity(), 301u);
        EXPECT_EQ(s.size(), 300u);
        EXPECT_EQ(s.c_str()[300], '\0');
    }
    {
        // A shared block: shrinking gives a private block of exactly the size.
        vrk::string a = make(pattern(100));
        vrk::string b(a);
        b.raw_resize(60, false);
        EXPECT_EQ(b.capacity(), 60u);
        EXPECT_EQ(text_of(b), pattern(60));
        EXPECT_EQ(text_of(a), pattern(100));
        EXPECT_EQ(a.share_count(), 1u);
    }
    {
        const long before = ta_.allocations();
        vrk::string s = make("abc");
        s.raw_resize(2, true);
        EXPECT_EQ(text_of(s), "ab");
        EXPECT_EQ(ta_.allocations(), before);
    }
}

// Runs f, expecting it to throw E; returns the caught exception's what() and
// checks the file every string error carries.
template <class E> std::string caught_text(const std::function<void()>& f, const char* file) {
    try {
        f();
    } catch (E& e) {
        EXPECT_STREQ(e.file().get(), file);
        e.mark_processed();
        return e.what();
    } catch (...) {
        ADD_FAILURE() << "other exception";
        return "<other>";
    }
    ADD_FAILURE() << "no exception";
    return "<none>";
}

TEST_F(StringTest, ReadOnlyViewsRaiseWithTheirFirst127Characters) {
    const std::string long_text = pattern(200);
    const std::string first127 = long_text.substr(0, 127);
    {
        vrk::string v = vrk::c_str(long_text.c_str(), ta_);
        EXPECT_TRUE(v.is_read_only());
        EXPECT_EQ(v.data(), long_text.c_str());
        EXPECT_EQ(v.size(), 200u);
        EXPECT_EQ(v.capacity(), 200u);
        vrk::string other = make("x");
        vrk::string far(tb_);
        const std::vector<std::function<void()>> changes = {
            [&] { v.assign("a", 1); },
            [&] { v.insert(v.c_str(), 'a'); },
            [&] { v.raw_resize(3, true); },
            [&] { v.append("a"); },
            [&] { v.reserve(100); },
            [&] { v.clear(); },
            [&] { v = other; },
            [&] { v.swap(far); },
            [&] { far.swap(v); },
            [&] { v.check_writable(); },
        };
        for (size_t i = 0; i < changes.size(); ++i) {
            EXPECT_EQ(caught_text<vrk::rvalue_error>(changes[i], "sys/src/vrk/string"), first127)
                << "change " << i;
            EXPECT_EQ(v.data(), long_text.c_str()) << "change " << i;
            EXPECT_EQ(v.size(), 200u);
        }
        EXPECT_EQ(ta_.allocations(), 0);
        EXPECT_EQ(tb_.allocations(), 0);

        // A copy is an owned string; a swap on the same allocator moves the view.
        vrk::string copy(v);
        EXPECT_TRUE(copy.is_heap());
        EXPECT_EQ(copy.capacity(), 200u);
        EXPECT_EQ(text_of(copy), long_text);
        other.swap(v);
        EXPECT_TRUE(other.is_read_only());
        EXPECT_EQ(text_of(v), "x");
    }
    {
        // The text stops at a NUL; a view of nothing has an empty text.
        const char with_nul[] = "abc\0def";
        vrk::string v = vrk::c_str(with_nul, 7, ta_);
        EXPECT_EQ(caught_text<vrk::rvalue_error>([&] { v.push_back('x'); }, "sys/src/vrk/string"),
                  "abc");
        vrk::string empty = vrk::c_str(static_cast<const char*>(nullptr), ta_);
        EXPECT_STREQ(empty.c_str(), "");
        EXPECT_EQ(caught_text<vrk::rvalue_error>([&] { empty.assign("a"); }, "sys/src/vrk/string"),
                  "");
    }
}

TEST_F(StringTest, SizeErrorsAndOutOfRangePositions) {
    const size_t all = ~size_t{0};
    const char* file = "sys/src/vrk/string";
    vrk::string s = make(pattern(50));
    const std::vector<std::pair<std::function<void()>, bool>> cases = {
        // true: overflow (size + 9 wraps), false: underflow (negative as signed)
        {[&] { s.raw_resize(all, false); }, true},
        {[&] { s.reserve(all - 8); }, true},
        {[&] { s.reserve(all - 9); }, false},
        {[&] { s.raw_resize(size_t{1} << 63, true); }, false},
        {[&] { s.append("x", all); }, true}, // 50 + all wraps
        {[&] { s.assign("x", all - 20); }, false},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        if (cases[i].second)
            EXPECT_EQ(caught_text<vrk::overflow_error>(cases[i].first, file),
                      "vrk::string integer overflow")
                << "case " << i;
        else
            EXPECT_EQ(caught_text<vrk::underflow_error>(cases[i].first, file),
                      "vrk::string integer underflow")
                << "case " << i;
        EXPECT_EQ(text_of(s), pattern(50)) << "case " << i;
    }
    EXPECT_EQ(ta_.balance(), 1);
    EXPECT_EQ(s.max_size(), size_t{0x7fffffffffffffff});

    // Positions: one past the end is an append, two past raise.
    vrk::string t = make("0123456789");
    try {
        t.insert(t.c_str() + 11, 'x');
        ADD_FAILURE() << "no exception";
    } catch (vrk::exception& e) {
        e.mark_processed();
        EXPECT_EQ(e.error_no(), vrk::ERR_VRK_OUT_OF_RANGE.number());
        EXPECT_STREQ(e.what(), "Position 11 out of range [0, 10]");
        EXPECT_STREQ(e.file().get(), file);
    }
    try {
        (void)t.substr(12);
        ADD_FAILURE() << "no exception";
    } catch (vrk::exception& e) {
        e.mark_processed();
        EXPECT_STREQ(e.what(), "Position 12 out of range [0, 10]");
    }
    EXPECT_EQ(text_of(t), "0123456789");
    EXPECT_EQ(text_of(t.substr(10)), "");

    // Raw storage: nothing for 0, the bad-allocation error above 2^64 - 9.
    EXPECT_EQ(vrk::allocate_raw_chunk<char>(0, ta_).get(), nullptr);
    EXPECT_EQ(vrk::allocate_raw_chunk<char>::max_size, all - 8);
    EXPECT_EQ(caught_text<vrk::runtime_error>([&] { vrk::allocate_raw_chunk<char>(all - 7, ta_); },
                                              "sys/src/vrk/throw_helpers"),
              "Bad allocation of 18446744073709551608 bytes");
    EXPECT_EQ(ta_.requests(), 1) << "only the string's own block was asked for";
}

TEST_F(StringTest, FailingAllocatorLeavesTheStringValid) {
    // Each operation is run with the n-th request failing, n = 0, 1, ...
    // until it succeeds; every failure must leave the old text and no leak.
    struct op {
        const char* name;
        std::function<void(vrk::string&, vrk::string&)> run;
        std::string expect; // the first string's text after success
    };
    const std::string p50 = pattern(50), p39 = pattern(39);
    const std::vector<op> ops = {
        {"push_back", [](vrk::string& s, vrk::string&) { s.push_back('!'); }, p39 + "!"},
        {"reserve", [](vrk::string& s, vrk::string&) { s.reserve(500); }, p39},
        {"insert into shared",
         [](vrk::string& s, vrk::string& shared) {
             s = shared;
             s.insert(cdata(s), '#');
         },
         "#" + p50},
        {"copy to other allocator",
         [this](vrk::string& s, vrk::string& shared) {
             vrk::string far(shared, tb_);
             s.swap(far);
         },
         p50},
        {"swap across allocators",
         [this](vrk::string& s, vrk::string&) {
             vrk::string far(pattern(60, 'A').c_str(), tb_);
             s.swap(far);
         },
         pattern(60, 'A')},
        {"assign long", [](vrk::string& s, vrk::string&) { s.assign(pattern(300).c_str()); },
         pattern(300)},
    };
    for (const op& o : ops) {
        for (long n = 0;; ++n) {
            vrk::string shared = make(p50);
            vrk::string s = make(p39);
            ta_.reset_requests();
            tb_.reset_requests();
            ta_.fail_at(n);
            tb_.fail_at(n);
            bool done = false;
            try {
                o.run(s, shared);
                done = true;
            } catch (const std::bad_alloc&) {
            }
            ta_.fail_never();
            tb_.fail_never();
            if (done) {
                EXPECT_EQ(text_of(s), o.expect) << o.name;
                EXPECT_EQ(text_of(shared), p50) << o.name;
                break;
            }
            EXPECT_TRUE(text_of(s) == p39 || text_of(s) == p50) << o.name << " at " << n;
            EXPECT_EQ(text_of(shared), p50) << o.name << " at " << n;
            s.push_back('+'); // still usable
            ASSERT_LT(n, 10) << o.name;
        }
        EXPECT_EQ(ta_.balance(), 0) << o.name;
        EXPECT_EQ(tb_.balance(), 0) << o.name;
    }
}

TEST_F(StringTest, SearchCompareAndConcatenate) {
    vrk::string s = make("hello, world");
    EXPECT_EQ(s.find("o"), 4u);
    EXPECT_EQ(s.find("o", 5), 8u);
    EXPECT_EQ(s.find('x'), vrk::string::npos);
    EXPECT_EQ(s.find(""), 0u);
    EXPECT_EQ(s.find("world", 8), vrk::string::npos);
    EXPECT_EQ(s.rfind('o'), 8u);
    EXPECT_EQ(s.rfind('o', 7), 4u);
    EXPECT_EQ(s.rfind('h', 0), 0u);
    EXPECT_EQ(text_of(s.substr(7, 3)), "wor");

    // Characters compare as unsigned bytes: 200 sorts after 'a'.
    vrk::string high = make("\xC8");
    EXPECT_GT(high.compare("a"), 0);
    EXPECT_LT(make("ab").compare("abc"), 0);
    EXPECT_TRUE(s == "hello, world");
    EXPECT_FALSE(s == make("hello"));

    vrk::string long_part(pattern(45).c_str(), tb_);
    vrk::string sum = s + long_part;
    EXPECT_EQ(&sum.get_allocator(), &ta_);
    EXPECT_EQ(text_of(sum), "hello, world" + pattern(45));
    EXPECT_EQ(text_of("<" + s + '>'), "<hello, world>");
    EXPECT_EQ(text_of(s + "!"), "hello, world!");
}

TEST_F(StringTest, ReturnValuesCarryTheStorageOut) {
    {
        vrk::string a = make(pattern(80));
        vrk::string_retval r(a);
        EXPECT_EQ(a.share_count(), 2u);
        EXPECT_EQ(r.size(), 80u);
        EXPECT_STREQ(r.c_str(), pattern(80).c_str());
        EXPECT_EQ(&r.get_allocator(), &ta_);
        vrk::string b(std::move(r));
        EXPECT_EQ(a.share_count(), 2u) << "taking the value moves its share";
        EXPECT_EQ(r.size(), 0u); // NOLINT: moved-from state is specified
        vrk::string c(vrk::string_retval(make("short")), tb_);
        EXPECT_EQ(text_of(c), "short");
        EXPECT_EQ(ta_.balance(), 1);
    }
    {
        auto f = [this] { return vrk::string_retval(make(pattern(100))); };
        vrk::string s = f();
        EXPECT_EQ(text_of(s), pattern(100));
        EXPECT_EQ(ta_.allocations(), 2) << "one block, no copy on the way out";
    }
}

} // namespace
