// The stream layer where it cannot be compared with the standard streams (the
// streams fuzz target does that for formatting, extraction, state bits, short
// writes and absorbed exceptions): the exceptions mask, vrk exceptions and
// forced unwinds from the buffer, unit buffering, ties, the format guard,
// missing facets and the library's own rules.
#include <pthread.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/test_host.hpp"
#include "vrk/base/faultprot_cstring.hpp"
#include "vrk/base/ios_failure.hpp"
#include "vrk/base/num_put.hpp"
#include "vrk/iomanip.hpp"
#include "vrk/istream.hpp"
#include "vrk/ostream.hpp"

namespace {

using vrk::ios_base;
using vrk_test::counters;

const vrk::error_code BUF_ERROR{4711, "buffer broke", nullptr};

// Raises our exception, as a buffer or a facet of the library would.
void raise_vrk(int line) {
    vrk::runtime_error e("sys/src/vrk/test", line, BUF_ERROR, __builtin_return_address(0));
    e.register_on_thread();
    e.do_throw();
}

// A put area of `cap` characters; when it is full, overflow does what the
// test asked for. A get area over `input`.
class scripted_buf : public vrk::basic_streambuf<char> {
public:
    enum action { REFUSE, THROW_VRK, THROW_STD, THROW_INT, CANCEL_THREAD };

    explicit scripted_buf(size_t cap = 256, action act = REFUSE) : on_overflow(act) {
        setp(data_, data_ + cap);
    }
    void set_input(const std::string& text) {
        input_ = text;
        setg(input_.data(), input_.data(), input_.data() + input_.size());
    }
    std::string text() const { return std::string(pbase(), pptr()); }

    int syncs = 0, sync_result = 0;
    action on_overflow;

protected:
    int sync() override {
        ++syncs;
        return sync_result;
    }
    int overflow(int c) override {
        switch (on_overflow) {
        case REFUSE:
            return -1;
        case THROW_VRK:
            raise_vrk(7);
            break;
        case THROW_STD:
            throw std::runtime_error("std failure");
        case THROW_INT:
            throw 42;
        case CANCEL_THREAD:
            pthread_cancel(pthread_self());
            pthread_testcancel();
            break;
        }
        return c;
    }

private:
    char data_[4096];
    std::string input_;
};

// A num_put facet that raises our exception for every long.
class throwing_num_put : public vrk::num_put {
protected:
    iter_type do_put(iter_type out, ios_base&, char, long) const override {
        raise_vrk(9);
        return out;
    }
};

using IosErrors = vrk_test::host_fixture;

// Every open mode is also a member of ios_base, with its fixed value.
static_assert(ios_base::app == 1 && ios_base::ate == 2 && ios_base::binary == 4 &&
              ios_base::in == 8 && ios_base::out == 16 && ios_base::trunc == 32 &&
              ios_base::sync == 64);

// The output sentry fails any stream that is not good, eofbit alone too; it
// raises only when the mask covers the state.
TEST_F(IosErrors, FailedStreamWritesNothingAndRaisesOnlyUnderTheMask) {
    scripted_buf buf;
    vrk::ostream os(&buf);
    os.setstate(ios_base::eofbit);
    os << "x" << 5L;
    os.put('y');
    os.write("z", 1);
    EXPECT_EQ(os.rdstate(), ios_base::eofbit | ios_base::failbit);
    os.flush(); // a failed stream is still flushed
    EXPECT_EQ(buf.syncs, 1);

    os.clear(ios_base::eofbit);
    os.exceptions(ios_base::failbit);
    const vrk::exception e = vrk_test::raised<vrk::ios_failure>([&] { os << "x"; });
    EXPECT_STREQ(e.what(), "basic_ios::clear");
    EXPECT_STREQ(e.file().get(), "sys/src/vrk/ios");
    EXPECT_GT(e.line(), 0);
    EXPECT_EQ(e.error_no(), vrk::ERR_VRK_IOS.number());
    EXPECT_EQ(os.rdstate(), ios_base::eofbit | ios_base::failbit);
    EXPECT_EQ(buf.text(), "");
    // Setting a mask that covers the current state raises at once.
    EXPECT_THROW(os.exceptions(ios_base::eofbit), vrk::ios_failure);

    vrk::ostream none(nullptr); // no buffer: failbit and badbit
    EXPECT_EQ(none.rdstate(), ios_base::goodbit);
    none << "x";
    EXPECT_EQ(none.rdstate(), ios_base::failbit | ios_base::badbit);
}

// Our exceptions from the buffer or a facet are dumped, or rethrown under
// badbit; standard ones rethrown under the mask; other throws pass untouched.
TEST_F(IosErrors, ExceptionsFromTheBufferAndFacets) {
    throwing_num_put facet;
    scripted_buf buf(2, scripted_buf::THROW_VRK);
    vrk::ostream os(&buf);
    os << "abc"
       << "d";
    EXPECT_EQ(os.rdstate(), ios_base::badbit | ios_base::failbit);
    EXPECT_EQ(buf.text(), "ab");
    os.clear(); // the same from the num_put facet
    os.imbue(vrk::locale(vrk::locale::classic(), vrk::num_put::id, &facet));
    os << 5L;
    EXPECT_EQ(os.rdstate(), ios_base::badbit);
    EXPECT_EQ(counters().caught, 2);
    os.clear();
    os.exceptions(ios_base::badbit);
    const vrk::exception e = vrk_test::raised<vrk::runtime_error>([&] { os << "abc"; });
    EXPECT_EQ(e.error_no(), 4711);
    EXPECT_STREQ(e.what(), "buffer broke");
    EXPECT_STREQ(e.file().get(), "sys/src/vrk/test");
    EXPECT_EQ(os.rdstate(), ios_base::badbit);

    // A standard exception: absorption without the mask is compared with the
    // standard streams by the streams fuzz target.
    scripted_buf other(0, scripted_buf::THROW_STD);
    vrk::ostream std_os(&other);
    std_os.exceptions(ios_base::badbit);
    EXPECT_THROW(std_os.put('x'), std::runtime_error);
    EXPECT_EQ(std_os.rdstate(), ios_base::badbit);
    std_os.clear();
    other.on_overflow = scripted_buf::THROW_INT;
    EXPECT_THROW(std_os << "x", int);
    EXPECT_EQ(std_os.rdstate(), ios_base::goodbit);
    EXPECT_EQ(counters().caught, 2) << "only our exceptions are dumped";
    EXPECT_EQ(counters().forgotten, 0);
}

TEST(IosAbsorbCancel, ForcedUnwindPassesWithBadbitSet) {
    scripted_buf buf(0, scripted_buf::CANCEL_THREAD);
    vrk::ostream os(&buf);
    auto writer = [](void* arg) -> void* {
        *static_cast<vrk::ostream*>(arg) << "x"; // the buffer cancels this thread
        return nullptr;                          // reached only when the unwind was absorbed
    };
    pthread_t t;
    ASSERT_EQ(pthread_create(&t, nullptr, writer, &os), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(t, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(os.rdstate(), ios_base::badbit);
}

TEST(IosBuffering, UnitbufTieAndEndlSyncTheBuffer) {
    scripted_buf tied_buf;
    vrk::ostream tied(&tied_buf);
    scripted_buf buf;
    vrk::ostream os(&buf);
    os.tie(&tied);
    os << "a";
    EXPECT_EQ(tied_buf.syncs, 1);
    EXPECT_EQ(buf.syncs, 0);

    os << vrk::unitbuf << "b" << 1L;
    os.put('c');
    EXPECT_EQ(buf.syncs, 3);
    os << vrk::nounitbuf << vrk::endl;
    EXPECT_EQ(buf.syncs, 4);
    EXPECT_EQ(buf.text(), "ab1c\n");

    // A failing sync is a failed stream; the tie is no longer flushed.
    buf.sync_result = -1;
    os.flush();
    EXPECT_EQ(os.rdstate(), ios_base::badbit);
    os << "d";
    EXPECT_EQ(tied_buf.syncs, 5);
    EXPECT_EQ(os.rdstate(), ios_base::badbit | ios_base::failbit);

    // Input flushes its tie too.
    scripted_buf in_buf;
    in_buf.set_input("7");
    vrk::istream is(&in_buf);
    is.tie(&tied);
    long v = 0;
    is >> v;
    EXPECT_EQ(v, 7);
    EXPECT_EQ(tied_buf.syncs, 6);
}

// The format the guard puts back is checked where exceptions are printed.
TEST_F(IosErrors, GuardSuspendsTheMaskAndRestoresWidthAndFill) {
    scripted_buf buf(1);
    vrk::ostream os(&buf);
    os.exceptions(ios_base::badbit);
    os.width(9);
    {
        vrk::ios::stream_guard guard(os, ios_base::goodbit);
        os << "abc"; // short write: badbit, but nothing is raised here
        EXPECT_EQ(os.exceptions(), ios_base::goodbit);
        os.fill('#');
    }
    EXPECT_EQ(os.fill(), ' ');
    EXPECT_EQ(os.exceptions(), ios_base::badbit);
    EXPECT_EQ(os.rdstate(), ios_base::badbit);
    EXPECT_EQ(os.width(), 9);
}

TEST_F(IosErrors, NullFacetFailsWhereAFacetIsNeededWhateverTheMask) {
    auto expect_null_facet = [](auto&& op) {
        const vrk::exception e = vrk_test::raised<vrk::null_facet_error>(op);
        EXPECT_STREQ(e.file().get(), "sys/src/vrk/ios");
        EXPECT_EQ(e.line(), 75);
        EXPECT_STREQ(e.what(), vrk::null_facet_error::TEXT);
    };
    scripted_buf buf;
    vrk::ostream os(&buf);
    os.imbue(vrk::locale::none());
    EXPECT_EQ(os.ctype_facet(), nullptr);
    os << "plain"; // no width: no fill needed
    EXPECT_TRUE(os.good());
    expect_null_facet([&] { os << 5L; });
    expect_null_facet([&] { os << vrk::setw(7) << "x"; });
    expect_null_facet([&] { os << vrk::endl; });
    expect_null_facet([&] { os.fill(); });
    EXPECT_EQ(buf.text(), "plain");

    scripted_buf in_buf;
    in_buf.set_input("  12");
    vrk::istream is(&in_buf);
    is.imbue(vrk::locale::none());
    long v = 0;
    expect_null_facet([&] { is >> v; });
    // Unformatted input needs no facet.
    char c = 0;
    is.get(c);
    EXPECT_EQ(c, ' ');

    // A locale with ctype but without num_put fails only on numbers.
    vrk::ostream os2(&buf);
    os2.imbue(vrk::locale(vrk::locale::classic(), vrk::num_put::id, nullptr));
    os2 << vrk::setw(3) << "y";
    expect_null_facet([&] { os2 << 1; });
}

TEST(IosMisc, FaultprotCstringWordStoreAndIostreamState) {
    scripted_buf buf;
    vrk::ostream os(&buf);
    vrk::faultprot_cstring("file.cpp").print(os);
    vrk::faultprot_cstring().print(os);
    EXPECT_EQ(buf.text(), "file.cpp");
    // Copies are cut at the size, terminated only when room remains.
    char out[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(vrk::faultprot_cstring("file.cpp").ncpy(out, 4), 4u);
    EXPECT_EQ(vrk::faultprot_cstring("ab").ncpy(out, 4), 2u);
    EXPECT_EQ(std::string(out, 4), std::string("ab\0e", 4));
    EXPECT_EQ(vrk::faultprot_cstring().ncpy(out, 4), 0u);
    EXPECT_EQ(out[0], '\0');

    // Words beyond the local slots are one scratch word, zero at every call:
    // the store never allocates.
    os.iword(3) = 77;
    os.iword(8) = 5;
    EXPECT_EQ(os.iword(8), 0);
    EXPECT_EQ(os.pword(-1), nullptr);
    os.pword(3) = &buf;
    EXPECT_EQ(os.iword(3), 77);
    EXPECT_EQ(os.pword(3), &buf);
    EXPECT_TRUE(os.good());

    // An iostream has one state: the end of its input fails its output.
    buf.set_input("5");
    vrk::iostream ios(&buf);
    long v = 0;
    ios >> v;
    ios << "x";
    EXPECT_EQ(v, 5);
    EXPECT_EQ(ios.rdstate(), ios_base::eofbit | ios_base::failbit);
    EXPECT_EQ(buf.text(), "file.cpp");
}

} // namespace
