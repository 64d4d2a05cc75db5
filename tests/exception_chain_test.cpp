// The lock table behind a block's shared word, and a link completed
// without its claim. (Appending, loops and release along chains are the
// exception fuzz target's part.)
#include "support/test_host.hpp"

namespace {

using vrk::exception;

const vrk::error_code A{1, "a", nullptr};

using ExceptionChain = vrk_test::counted_fixture;

TEST_F(ExceptionChain, WordsInTheSameLockSlotStayIndependent) {
    alignas(16) vrk::atomic_dword_t words[702 * 2 / 2 + 1] = {};
    // words[0] and words[701] lie 701 * 16 bytes apart: the same slot.
    volatile vrk::atomic_dword_t& x = words[0];
    volatile vrk::atomic_dword_t& y = words[701];
    ASSERT_EQ(vrk::impl::Atomic128CAS::slot(&x), vrk::impl::Atomic128CAS::slot(&y));
    using op = vrk::impl::AtomicOperation<16>;
    op::write(x, {1, 2});
    op::write(y, {3, 4});
    vrk::atomic_dword_t prev;
    EXPECT_FALSE(op::cas(x, {3, 4}, {9, 9}, prev));
    EXPECT_EQ(prev, (vrk::atomic_dword_t{1, 2}));
    EXPECT_TRUE(op::cas(y, {3, 4}, {5, 6}, prev));
    EXPECT_EQ(op::read(x), (vrk::atomic_dword_t{1, 2}));
    EXPECT_EQ(op::read(y), (vrk::atomic_dword_t{5, 6}));
    EXPECT_EQ(op::xchg(y, {7, 8}), (vrk::atomic_dword_t{5, 6}));
}

TEST_F(ExceptionChain, CompletingALinkThatWasNotClaimedAborts) {
    EXPECT_DEATH(
        {
            exception a("f", 1, A);
            a.mark_processed();
            const_cast<volatile vrk::exception_data*>(a.data())->update_pred(nullptr);
        },
        "sys/src/vrk/base/impl/exception:[0-9]+: Unexpected link, aborting: 0");
}

} // namespace
