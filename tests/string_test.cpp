// The growable string: capacities after growth, sharing and unsharing of
// heap blocks, copies across allocators, read-only views, size and range
// errors, allocation failure. Every test ends with its allocators at zero.
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

// A text of n characters that differ from their neighbours.
std::string pattern(size_t n, char first = 'a') {
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += static_cast<char>(first + i % 26);
    return s;
}
std::string text_of(const vrk::string& s) { return std::string(s.data(), s.size()); }
// Reads without unsharing (the non-const data() makes the storage exclusive).
const char* cdata(const vrk::string& s) { return s.data(); }
// Bytes of a heap block of capacity c: the count, the text, the NUL.
size_t block_bytes(size_t c) { return c + 9; }

const char* const FILE_NAME = "sys/src/vrk/string";

// Runs f, which must throw E (exactly that class or one derived from it);
// returns the exception's text after checking its file.
template <class E> std::string caught_text(const std::function<void()>& f, const char* file) {
    try {
        f();
    } catch (E& e) {
        e.mark_processed();
        EXPECT_STREQ(e.file().get(), file);
        return e.what();
    } catch (...) {
        return "<other exception>";
    }
    return "<no exception>";
}

class StringTest : public vrk_test::host_fixture {
protected:
    void TearDown() override {
        for (auto* a : {&ta_, &tb_}) {
            EXPECT_EQ(a->balance(), 0) << "string storage leaked";
            EXPECT_EQ(a->bad_releases(), 0) << "a block was released twice";
        }
        host_fixture::TearDown();
    }
    vrk::string make(const std::string& s) { return vrk::string(s.data(), s.size(), ta_); }

    vrk_test::test_allocator ta_, tb_;
};

TEST_F(StringTest, GrowthGivesTheDocumentedCapacitiesAndBlockSizes) {
    {
        // Inline up to 39 without allocating, then half again plus one:
        // 59 (39 + 19 + 1), 89, 134, 202.
        const std::string text = pattern(200);
        vrk::string s(ta_);
        std::vector<size_t> caps;
        for (size_t i = 0; i < text.size(); ++i) {
            s.push_back(text[i]);
            if (caps.empty() || caps.back() != s.capacity())
                caps.push_back(s.capacity());
            EXPECT_EQ(ta_.allocations(), static_cast<long>(caps.size()) - 1);
        }
        EXPECT_EQ(caps, (std::vector<size_t>{39, 59, 89, 134, 202}));
        EXPECT_EQ(text_of(s), text);
        EXPECT_EQ(s.c_str()[200], '\0');
        EXPECT_EQ(ta_.balance(), 1) << "every outgrown block went back";
        EXPECT_EQ(ta_.bytes_in_use(), block_bytes(202));
    }
    vrk::string s = make("abc");
    s.reserve(100);
    EXPECT_EQ(s.capacity(), 100u) << "200 > 3 * 39: the request itself";
    s.reserve(120);
    EXPECT_EQ(s.capacity(), 151u) << "100 + 50 + 1";
    EXPECT_EQ(ta_.bytes_in_use(), block_bytes(151));
    EXPECT_EQ(text_of(s), "abc");
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
        EXPECT_EQ(ta_.balance(), 1);

        // The shared block had room: the copy gets a private one of exactly 61.
        EXPECT_EQ(*b.insert(cdata(b) + 10, '#'), '#');
        EXPECT_EQ(b.capacity(), 61u);
        EXPECT_EQ(text_of(b), pattern(60).insert(10, "#"));
        EXPECT_EQ(cdata(a), block);
        EXPECT_EQ(text_of(a), pattern(60));
        EXPECT_EQ(a.share_count(), 1u);
    }
    {
        // Assignment shares; writing through data() of a sharer copies first.
        vrk::string a = make(pattern(50)), b(ta_), c(ta_);
        b = a;
        c = b;
        EXPECT_EQ(a.share_count(), 3u);
        c.data()[0] = 'Z';
        EXPECT_EQ(text_of(a), pattern(50));
        EXPECT_EQ(b.share_count(), 2u);
        EXPECT_EQ(text_of(c), "Z" + pattern(50).substr(1));

        // Unsharing to a short length goes inline and drops one share.
        const std::vector<std::function<void(vrk::string&)>> shorten = {
            [](vrk::string& s) { s.raw_resize(5, true); },
            [](vrk::string& s) { s.assign("abcde", 5); },
            [](vrk::string& s) { s.clear(); }};
        for (const auto& f : shorten) {
            c = a;
            f(c);
            EXPECT_TRUE(c.is_inline());
            EXPECT_EQ(text_of(c), pattern(c.size()));
            EXPECT_EQ(a.share_count(), 2u);
        }
        EXPECT_EQ(ta_.balance(), 1);
    }
}

TEST_F(StringTest, CopyOntoAnotherAllocatorAndSwap) {
    vrk::string a = make(pattern(45));
    EXPECT_EQ(vrk::string(a, tb_).capacity(), 59u) << "40 to 58 characters get 59";
    EXPECT_EQ(vrk::string(make(pattern(70)), tb_).capacity(), 70u);
    EXPECT_TRUE(vrk::string(make(pattern(30)), tb_).is_inline());
    EXPECT_EQ(tb_.allocations(), 2);

    // Same allocator: the storage is exchanged, nothing copied.
    vrk::string near = make("short");
    const char* block = cdata(a);
    const long before = ta_.allocations();
    a.swap(near);
    EXPECT_EQ(cdata(near), block);
    EXPECT_EQ(ta_.allocations(), before);

    // Different allocators: each keeps its own and holds the other's text.
    vrk::string far(pattern(80, 'A').c_str(), tb_);
    near.swap(far);
    EXPECT_EQ(&near.get_allocator(), &ta_);
    EXPECT_EQ(text_of(near), pattern(80, 'A'));
    EXPECT_EQ(text_of(far), pattern(45));
    EXPECT_EQ(far.capacity(), 59u);
    EXPECT_EQ(ta_.balance(), 1);
    EXPECT_EQ(tb_.balance(), 1);
}

TEST_F(StringTest, AssignInsertAndRawResizeWriteTheRightBytes) {
    vrk::string s = make("0123456789");
    s.insert(cdata(s) + s.size(), 'X'); // the end position appends
    s.insert(cdata(s), '<');
    EXPECT_EQ(text_of(s), "<0123456789X");
    s.assign(cdata(s) + 3, 1000);
    EXPECT_EQ(text_of(s), "23456789X");
    EXPECT_EQ(s.c_str()[9], '\0');
    try {
        s.insert(cdata(s) + 10, 'x');
        ADD_FAILURE() << "no exception";
    } catch (vrk::exception& e) {
        e.mark_processed();
        EXPECT_EQ(e.error_no(), vrk::ERR_VRK_OUT_OF_RANGE.number());
        EXPECT_STREQ(e.what(), "Position 10 out of range [0, 9]");
        EXPECT_STREQ(e.file().get(), FILE_NAME);
    }
    EXPECT_EQ(text_of(s), "23456789X");

    // A piece of a shared text: the other holder keeps the whole text.
    vrk::string a = make(pattern(60)), b(a);
    b.assign(cdata(b) + 5, 45);
    EXPECT_EQ(text_of(b), pattern(60).substr(5, 45));
    EXPECT_EQ(text_of(a), pattern(60));

    // The stream buffer's use: reserve, write behind the text, set the length.
    // An exclusive block is kept for a short text.
    vrk::string r(ta_);
    r.reserve(512);
    r.assign("abc", 3);
    EXPECT_EQ(r.capacity(), 512u);
    std::memcpy(r.data(), pattern(150).data(), 150);
    r.raw_resize(150, false);
    EXPECT_EQ(text_of(r), pattern(150));
    r.raw_resize(20, false);
    r.raw_resize(40, false);
    EXPECT_EQ(text_of(r), pattern(20) + '\0' + pattern(40).substr(21));
    EXPECT_EQ(r.capacity(), 512u);
    r.raw_resize(5, true);
    EXPECT_TRUE(r.is_inline());
    EXPECT_EQ(text_of(r), pattern(5));

    // A shared block shrinks into a private one of exactly the new length.
    b = a;
    b.raw_resize(50, false);
    EXPECT_EQ(b.capacity(), 50u);
    EXPECT_EQ(text_of(b), pattern(50));
    EXPECT_EQ(a.share_count(), 1u);
    EXPECT_EQ(ta_.balance(), 2);
}

TEST_F(StringTest, ReadOnlyViewsRaiseWithTheirFirst127Characters) {
    const std::string text = pattern(200);
    vrk::string v = vrk::c_str(text.c_str(), ta_);
    EXPECT_TRUE(v.is_read_only());
    EXPECT_EQ(v.capacity(), 200u);
    vrk::string other = make("x"), far(tb_);
    const std::vector<std::function<void()>> changes = {
        [&] { v.assign("a", 1); },       [&] { v.insert(v.c_str(), 'a'); },
        [&] { v.raw_resize(3, true); },  [&] { v.push_back('a'); },
        [&] { v.clear(); },              [&] { v = other; },
        [&] { v.swap(far); },            [&] { far.swap(v); },
    };
    for (size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(caught_text<vrk::rvalue_error>(changes[i], FILE_NAME), text.substr(0, 127))
            << "change " << i;
        EXPECT_EQ(v.data(), text.c_str());
        EXPECT_EQ(v.size(), 200u);
    }
    EXPECT_EQ(ta_.requests() + tb_.requests(), 0);

    // A copy owns its text; a swap on the same allocator moves the view.
    EXPECT_EQ(text_of(vrk::string(v)), text);
    other.swap(v);
    EXPECT_TRUE(other.is_read_only());
    EXPECT_EQ(text_of(v), "x");

    // The text stops at a NUL; a view of nothing has an empty text.
    vrk::string nul = vrk::c_str("abc\0def", 7, ta_);
    EXPECT_EQ(caught_text<vrk::rvalue_error>([&] { nul.push_back('x'); }, FILE_NAME), "abc");
    vrk::string none = vrk::c_str(static_cast<const char*>(nullptr), ta_);
    EXPECT_STREQ(none.c_str(), "");
    EXPECT_EQ(caught_text<vrk::rvalue_error>([&] { none.assign("a"); }, FILE_NAME), "");
}

TEST_F(StringTest, SizeErrorsRaiseTheirOwnClasses) {
    const size_t all = ~size_t{0};
    vrk::string s = make(pattern(50));
    // Overflow when size + 9 wraps, underflow when negative as signed.
    const std::vector<std::function<void()>> overflows = {
        [&] { s.raw_resize(all, false); }, [&] { s.reserve(all - 8); },
        [&] { s.append("x", all); }, // 50 + all wraps
    };
    const std::vector<std::function<void()>> underflows = {
        [&] { s.reserve(all - 9); },
        [&] { s.raw_resize(size_t{1} << 63, true); },
        [&] { s.assign("x", all - 20); },
    };
    for (const auto& f : overflows)
        EXPECT_EQ(caught_text<vrk::overflow_error>(f, FILE_NAME), "vrk::string integer overflow");
    for (const auto& f : underflows)
        EXPECT_EQ(caught_text<vrk::underflow_error>(f, FILE_NAME), "vrk::string integer underflow");
    EXPECT_EQ(text_of(s), pattern(50));
    EXPECT_EQ(s.max_size(), size_t{0x7fffffffffffffff}) << "the largest size that passes";

    // Raw storage: nothing for 0, the bad-allocation error above 2^64 - 9.
    EXPECT_EQ(vrk::allocate_raw_chunk<char>(0, ta_).get(), nullptr);
    EXPECT_EQ(caught_text<vrk::runtime_error>([&] { vrk::allocate_raw_chunk<char>(all - 7, ta_); },
                                              "sys/src/vrk/throw_helpers"),
              "Bad allocation of 18446744073709551608 bytes");
    EXPECT_EQ(ta_.requests(), 1) << "only the string's own block was asked for";
}

TEST_F(StringTest, FailedSwapAcrossAllocatorsLeavesBothTexts) {
    // Growth of one string under failure is swept centrally; a swap between
    // allocators copies into both, and the request failing may be either.
    const std::string p50 = pattern(50), p60 = pattern(60, 'A');
    for (auto* failing : {&ta_, &tb_}) {
        long failures = 0;
        for (long n = 0; n < 10; ++n) {
            vrk::string shared = make(p50), s(ta_), far(p60.c_str(), tb_);
            s = shared;
            failing->reset_requests();
            failing->fail_at(n);
            bool done = true;
            try {
                s.swap(far);
            } catch (const std::bad_alloc&) {
                done = false;
                ++failures;
            }
            failing->fail_never();
            EXPECT_EQ(text_of(shared), p50) << "at " << n;
            if (done) {
                EXPECT_EQ(text_of(s), p60);
                EXPECT_EQ(text_of(far), p50);
                break;
            }
            EXPECT_EQ(text_of(s), p50) << "at " << n;
            EXPECT_EQ(text_of(far), p60) << "at " << n;
            s.push_back('+');
        }
        EXPECT_GT(failures, 0) << "the swap never failed";
    }
}

TEST_F(StringTest, CompareConcatenateAndReturnValues) {
    vrk::string s = make("hello, world");
    EXPECT_EQ(s.find("o", 5), 8u);
    EXPECT_EQ(s.rfind('o', 7), 4u);
    EXPECT_THROW((void)s.substr(13), vrk::exception);
    // Characters compare as unsigned bytes: 200 sorts after 'a'.
    EXPECT_GT(make("\xC8").compare("a"), 0);
    EXPECT_LT(make("ab").compare("abc"), 0);
    vrk::string sum = "<" + s + vrk::string(pattern(45).c_str(), tb_) + '>';
    EXPECT_EQ(&sum.get_allocator(), &ta_) << "the left operand's allocator";
    EXPECT_TRUE(sum == ("<hello, world" + pattern(45) + ">").c_str());

    // A return value shares the block and hands its share on, uncopied.
    vrk::string a = make(pattern(80));
    vrk::string_retval r(a);
    EXPECT_EQ(a.share_count(), 2u);
    EXPECT_STREQ(r.c_str(), pattern(80).c_str());
    auto f = [&r] { return std::move(r); };
    const long before = ta_.allocations();
    vrk::string b = f();
    EXPECT_EQ(cdata(b), cdata(a));
    EXPECT_EQ(a.share_count(), 2u);
    EXPECT_EQ(ta_.allocations(), before);
}

} // namespace
