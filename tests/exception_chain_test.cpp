// Chains: appending, release order whichever handle goes last, refused
// appends, and the lock table behind the shared word.
#include <vector>

#include "support/forms.hpp"
#include "support/test_host.hpp"

namespace {

using vrk::exception;
using vrk::exception_data;
using vrk_test::counters;

const vrk::error_code A{1, "a", nullptr}, B{2, "b", nullptr}, C{3, "c", nullptr},
    D{4, "d", nullptr};

uint64_t count_of(const exception& e) {
    auto* d = const_cast<volatile exception_data*>(e.data());
    return exception_data::pc_type::counter_of(d->pc_.read());
}
const volatile exception_data* pred_of(const exception& e) {
    auto* d = const_cast<volatile exception_data*>(e.data());
    return exception_data::pc_type::pointer_of(d->pc_.read());
}
using vrk_test::chain_numbers;

class ExceptionChain : public vrk_test::counted_fixture {
protected:
    // Blocks (with their stack buffers) still held.
    long live_blocks() const { return alloc_.balance() / 2; }
};

TEST_F(ExceptionChain, AppendsLinkBehindTheLastBlockInOrder) {
    exception a("f", 1, A), b("f", 2, B), c("f", 3, C), d("f", 4, D);
    a << b << c;
    a.append_exp(d);
    EXPECT_EQ(chain_numbers(a), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(pred_of(b), a.data());
    EXPECT_EQ(pred_of(d), c.data());
    EXPECT_EQ(count_of(b), 1u) << "appending takes no reference";
}

TEST_F(ExceptionChain, RefusedAppendsLinkNothing) {
    exception a("f", 1, A), b("f", 2, B), c("f", 3, C), d("f", 4, D);
    a.append_exp(a); // itself
    exception a2(a);
    a.append_exp(a2); // same block
    a << b;
    c << b; // b already belongs to a's chain
    b << a; // would close a loop a -> b -> a
    EXPECT_EQ(chain_numbers(a), (std::vector<int>{1, 2}));
    EXPECT_EQ(chain_numbers(c), (std::vector<int>{3}));
    EXPECT_EQ(chain_numbers(b), (std::vector<int>{2}));
    b << d;
    d << a; // a's chain holds d, two links on: refused
    EXPECT_EQ(chain_numbers(a), (std::vector<int>{1, 2, 4}));
}

// Whichever handle goes last, a block goes when it is neither held nor linked
// from a live block, and the release of a head walks on until a held block.
TEST_F(ExceptionChain, ReleaseFollowsTheHandlesAndTheLinks) {
    {
        exception a("f", 1, A);
        a.mark_processed();
        {
            exception b("f", 2, B);
            a << b;
        } // b's handle goes first: its block stays, linked at count 0
        EXPECT_EQ(live_blocks(), 2);
        exception b2 = a.get_next();
        EXPECT_EQ(count_of(b2), 1u);
    }
    EXPECT_EQ(live_blocks(), 0);
    EXPECT_EQ(counters().forgotten, 0) << "blocks behind the head are released silently";
    {
        // The head goes first; its release walks on until a held block.
        exception c("f", 3, C);
        exception c2(c);
        c2.mark_processed();
        {
            exception a("f", 1, A), b("f", 2, B);
            a.mark_processed();
            a << b << c;
        } // a released with b; two handles hold c
        EXPECT_EQ(live_blocks(), 1);
        EXPECT_EQ(pred_of(c), nullptr) << "the tail lost its predecessor";
        EXPECT_EQ(count_of(c), 2u);
    }
    EXPECT_EQ(live_blocks(), 0);
}

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
            const_cast<volatile exception_data*>(a.data())->update_pred(nullptr);
        },
        "sys/src/vrk/base/impl/exception:[0-9]+: Unexpected link, aborting: 0");
}

} // namespace
