// Stream buffers (the base's bulk transfers, and the string buffer's
// positioning, growth and put-back, are compared with the standard library by
// the streams fuzz target): the fixed buffer stream that cuts at 2047
// characters, and the string buffer's growth sizes, swap, own members and
// allocation failures.
#include <cstring>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "support/forms.hpp"
#include "support/test_allocator.hpp"
#include "support/test_host.hpp"
#include "vrk/base/ios_failure.hpp"
#include "vrk/ext/buffer_stream.hpp"
#include "vrk/iomanip.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk::ios_base;
using vrk_test::counters;

// Exposes the protected virtual operations of the string buffer.
struct open_stringbuf : vrk::stringbuf {
    using vrk::stringbuf::overflow;
    using vrk::stringbuf::pbackfail;
    using vrk::stringbuf::seekpos;
    using vrk::stringbuf::setbuf;
    using vrk::stringbuf::stringbuf;
};

using BufferStream = vrk_test::host_fixture;
using StringBuf = vrk_test::counted_fixture;

// The cut itself is checked with a printed exception.
TEST_F(BufferStream, ClearedForReuseOverACallersArrayAndRaisingUnderTheMask) {
    const long requests = vrk_test::default_test_allocator().requests();
    vrk::buffer_stream<2048> bs;
    bs << std::string(3000, 'q').c_str();
    EXPECT_EQ(bs.size(), 2047u);
    bs.clear();
    EXPECT_TRUE(bs.empty());
    EXPECT_TRUE(bs.getStream().good());
    bs << "n=" << vrk::setw(4) << 42L << vrk::endl;
    EXPECT_STREQ(bs.c_str(), "n=  42\n");
    EXPECT_EQ(vrk_test::default_test_allocator().requests(), requests);

    // Over a caller's array: one place stays for the NUL.
    char guard_and_array[10];
    std::memset(guard_and_array, '#', sizeof guard_and_array);
    vrk::buffer_stream<2048> small(guard_and_array + 1, 8);
    small << "abcdefghij";
    EXPECT_STREQ(small.c_str(), "abcdefg");
    EXPECT_EQ(guard_and_array[0], '#');
    EXPECT_EQ(guard_and_array[9], '#');
    EXPECT_TRUE(small.getStream().bad());

    // Badbit in the mask raises on the 2048th character.
    vrk::buffer_stream<2048> masked(ios_base::badbit);
    const std::string text(2047, 'z');
    masked << text.c_str();
    EXPECT_TRUE(masked.getStream().good());
    EXPECT_STREQ(vrk_test::raised<vrk::ios_failure>([&] { masked << "!"; }).what(),
                 "buffer_stream::overflow");
    EXPECT_TRUE(masked.getStream().bad());
    EXPECT_EQ(std::string(masked.c_str()), text);
}

TEST_F(StringBuf, SwapHandsOverTheTextAndTheBufferCarriesOn) {
    {
        // A long text is handed over; a short one comes back inline, and a
        // string swapped in is continued.
        vrk::osstream os(alloc_);
        const std::string text(600, 'x');
        os << text.c_str();
        vrk::string s(alloc_);
        s.assign("prefix:", 7);
        os.swap(s);
        EXPECT_EQ(vrk_test::text_of(s), text);
        os << "short";
        s.clear();
        os.swap(s);
        EXPECT_STREQ(s.c_str(), "prefix:short");
        EXPECT_STREQ(os.c_str(), "");

        // Swapping texts out and emptied storage back in, a hundred times:
        // writing reuses what came in, growth never doubles idle capacity.
        alloc_.reset_requests();
        for (int i = 0; i < 100; ++i) {
            os << std::string(60 + i % 20, 'r').c_str();
            s.clear();
            os.swap(s);
            ASSERT_EQ(s.size(), 60u + i % 20);
        }
        EXPECT_LE(alloc_.largest_request(), 512u + 9u);
    }

    // A swap across allocators that fails after a short text has moved into
    // the inline buffer leaves the buffer over that text, and usable.
    vrk_test::test_allocator other;
    {
        vrk::osstream os(alloc_);
        os << "short";
        vrk::string theirs(std::string(50, 't').c_str(), 50, other);
        alloc_.fail_from(alloc_.requests());
        EXPECT_THROW(os.swap(theirs), std::bad_alloc);
        alloc_.fail_never();
        os << "+more";
        EXPECT_STREQ(os.c_str(), "short+more");
        EXPECT_EQ(theirs.size(), 50u);
    }
    EXPECT_EQ(other.balance(), 0);
}

// The members a stream's own use does not reach: replacing, emptying and
// reading the text, a caller's array in place of string storage, put-back,
// and what the base buffer answers for them.
TEST_F(StringBuf, TextMembersOverOwnStorageACallersArrayAndPutBack) {
    struct base_only : vrk::streambuf {
    } base;
    EXPECT_EQ(base.pubsetbuf(nullptr, 1), &base);
    EXPECT_EQ(static_cast<vrk::streamoff>(base.pubseekoff(0, ios_base::beg, ios_base::in)), -1);
    EXPECT_EQ(static_cast<vrk::streamoff>(base.pubseekpos(0, ios_base::in)), -1);
    EXPECT_EQ(base.in_avail(), 0);
    EXPECT_EQ(base.sputc('x'), -1);

    open_stringbuf sb(alloc_);
    EXPECT_EQ(static_cast<vrk::streamoff>(sb.seekpos(1, ios_base::in)), -1);
    sb.str(vrk::string("xyz", 3, alloc_));
    sb.sputc('Q');                    // writing starts at the beginning
    EXPECT_EQ(sb.overflow('R'), 'R'); // room left: stored without growth
    EXPECT_EQ(sb.overflow(-1), 0);    // nothing to store
    EXPECT_STREQ(sb.c_str(), "QRz");
    const long before = alloc_.allocations();
    sb.clear();
    sb.sputn("ab", 2);
    EXPECT_STREQ(sb.c_str(), "ab");
    EXPECT_EQ(alloc_.allocations(), before); // the storage was kept
    sb.clear(true);
    EXPECT_EQ(alloc_.balance(), 0);
    EXPECT_STREQ(sb.c_str(), "");

    open_stringbuf in(vrk::string("abc", 3, alloc_), alloc_, ios_base::in);
    EXPECT_EQ(in.size(), 3u);
    EXPECT_EQ(vrk_test::text_of(in.str()), "abc");
    char mine[3] = {'k', 'l', 'm'};
    EXPECT_EQ(in.setbuf(nullptr, 3), &in);
    in.setbuf(mine, 3);
    EXPECT_EQ(in.sgetc(), 'k');
    EXPECT_EQ(in.c_str(), nullptr); // the text is not the string's

    // A caller's array is never replaced by string storage.
    open_stringbuf out(ios_base::out, alloc_);
    char arr[4];
    out.setbuf(arr, 4);
    const long requests = alloc_.requests();
    EXPECT_EQ(out.sputn("abcdef", 6), 4);
    EXPECT_EQ(alloc_.requests(), requests);
    vrk::ostream os(&out);
    os << "x";
    EXPECT_EQ(os.rdstate(), ios_base::badbit);
    EXPECT_EQ(out.c_str(), nullptr); // no room for a terminator
    EXPECT_EQ(out.sgetc(), -1);
    EXPECT_EQ(out.in_avail(), -1);
    vrk::string taken(alloc_);
    out.swap(taken);
    EXPECT_EQ(vrk_test::text_of(taken), "abcd");

    // Called directly, put-back also steps back over the same character
    // and over none (buffer users ask only for other characters).
    open_stringbuf back("abc", 3, alloc_, ios_base::in);
    back.sbumpc();
    back.sbumpc();
    EXPECT_EQ(back.pbackfail('b'), 'b');
    EXPECT_EQ(back.pbackfail(-1), 0);
    EXPECT_EQ(back.sgetc(), 'a');
}

// The first character grows the storage to 512, the 513th to 1024. Absorbed
// failures are swept centrally; here badbit is in the mask, the second growth
// fails and the text of the first survives.
TEST_F(StringBuf, GrowsByDoublingFrom512AndAFailedGrowthIsRethrownUnderBadbit) {
    alloc_.fail_at(1);
    vrk::osstream os(ios_base::out, ios_base::badbit, alloc_);
    os << "k";
    EXPECT_EQ(alloc_.bytes_in_use(), 512u + 9u);
    const std::string text(512, 'k');
    os << text.c_str() + 1;
    EXPECT_TRUE(os.good());
    EXPECT_THROW(os << "!", std::bad_alloc);
    EXPECT_EQ(alloc_.largest_request(), 1024u + 9u);
    EXPECT_EQ(os.rdstate(), ios_base::badbit);
    EXPECT_EQ(std::string(os.c_str()), text);
    EXPECT_EQ(counters().caught, 0);
}

} // namespace
