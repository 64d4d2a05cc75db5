// The growable string where a comparison with std::string cannot look:
// capacities, allocation counts and block sizes, the bytes the stream buffer
// leaves behind the text, return values, raw storage. Texts, sharing, views,
// errors and allocation failure in operation sequences are checked by
// fuzz/fuzz_string.cpp, whose corpus every build replays. Every test ends
// with its allocators at zero.
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/forms.hpp"
#include "support/test_host.hpp"
#include "vrk/string.hpp"

namespace {

using vrk_test::text_of;

// A text of n characters that differ from their neighbours.
std::string pattern(size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += static_cast<char>('a' + i % 26);
    return s;
}
// Reads without unsharing (the non-const data() makes the storage exclusive).
const char* cdata(const vrk::string& s) { return s.data(); }

class StringTest : public vrk_test::host_fixture {
protected:
    void TearDown() override {
        for (auto* a : {&ta_, &tb_}) {
            EXPECT_EQ(a->balance(), 0) << "string storage leaked";
            EXPECT_EQ(a->bad_releases(), 0) << "a block was released twice";
        }
        host_fixture::TearDown();
    }

    vrk_test::test_allocator ta_, tb_;
};

TEST_F(StringTest, GrowthAllocatesTheDocumentedCapacities) {
    // Inline up to 39 without allocating, then half again plus one:
    // 59 (39 + 19 + 1), 89, 134, 202; a block holds the count, text and NUL.
    vrk::string s(ta_);
    std::vector<size_t> caps;
    for (char c : pattern(200)) {
        s.push_back(c);
        if (caps.empty() || caps.back() != s.capacity())
            caps.push_back(s.capacity());
        EXPECT_EQ(ta_.allocations(), static_cast<long>(caps.size()) - 1);
    }
    EXPECT_EQ(caps, (std::vector<size_t>{39, 59, 89, 134, 202}));
    EXPECT_EQ(ta_.bytes_in_use(), 202u + 9);
    vrk::string r(ta_);
    r.reserve(100);
    EXPECT_EQ(r.capacity(), 100u) << "200 > 3 * 39: the request itself";
    r.reserve(120);
    EXPECT_EQ(r.capacity(), 151u) << "100 + 50 + 1";
    EXPECT_EQ(ta_.balance(), 2) << "every outgrown block went back";
}

TEST_F(StringTest, CopiesAndSwapsAllocateAsDocumented) {
    vrk::string a(ta_);
    a.reserve(100);
    a.assign(pattern(60).data(), 60);
    vrk::string b(a), c(a);
    // The shared block had room: an unshared copy gets exactly what it needs.
    b.insert(cdata(b) + 10, '#');
    EXPECT_EQ(b.capacity(), 61u);
    c.raw_resize(50, false);
    EXPECT_EQ(c.capacity(), 50u);
    // On another allocator: 59 for 40 to 58 characters, else the length.
    EXPECT_EQ(vrk::string(c, tb_).capacity(), 59u);
    EXPECT_EQ(vrk::string(b, tb_).capacity(), 61u);
    EXPECT_EQ(ta_.allocations(), 3);
}

TEST_F(StringTest, StreamBufferUseKeepsItsBlockAndTheBytesBehindTheText) {
    // Reserve, assign, write behind the text, then set the length.
    vrk::string r(ta_);
    r.reserve(512);
    r.assign("abc", 3);
    EXPECT_EQ(r.capacity(), 512u) << "an exclusive block is kept for a short text";
    std::memcpy(r.data(), pattern(150).data(), 150);
    r.raw_resize(150, false);
    r.raw_resize(20, false);
    r.raw_resize(40, false);
    EXPECT_EQ(text_of(r), pattern(20) + '\0' + pattern(40).substr(21));
    EXPECT_EQ(ta_.allocations(), 1);
}

TEST_F(StringTest, ReturnValuesHandTheirShareOnAndRawStorageHasLimits) {
    vrk::string a(pattern(80).c_str(), ta_);
    vrk::string_retval r(a);
    EXPECT_EQ(a.share_count(), 2u);
    auto f = [&r] { return std::move(r); };
    vrk::string b = f();
    EXPECT_EQ(cdata(b), cdata(a));
    EXPECT_EQ(a.share_count(), 2u);
    EXPECT_EQ(ta_.allocations(), 1);

    // Nothing for 0, the bad-allocation error above 2^64 - 9, unasked.
    EXPECT_EQ(vrk::allocate_raw_chunk<char>(0, ta_).get(), nullptr);
    EXPECT_STREQ(vrk_test::raised<vrk::exception>([&] {
                     vrk::allocate_raw_chunk<char>(~size_t{0} - 7, ta_);
                 }).what(),
                 "Bad allocation of 18446744073709551608 bytes");
    EXPECT_EQ(ta_.requests(), 1);
    EXPECT_EQ(a.max_size(), size_t{0x7fffffffffffffff}) << "the largest size that passes";
}

} // namespace
