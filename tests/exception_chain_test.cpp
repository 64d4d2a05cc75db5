// Chains: appending in order, and the lock table behind the shared word.
#include <vector>

#include "support/forms.hpp"
#include "support/test_host.hpp"

namespace {

using vrk::exception;
using vrk::exception_data;

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

using ExceptionChain = vrk_test::counted_fixture;

TEST_F(ExceptionChain, AppendsLinkBehindTheLastBlockInOrder) {
    exception a("f", 1, A), b("f", 2, B), c("f", 3, C), d("f", 4, D);
    a << b << c;
    a.append_exp(d);
    EXPECT_EQ(chain_numbers(a), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(pred_of(b), a.data());
    EXPECT_EQ(pred_of(d), c.data());
    EXPECT_EQ(count_of(b), 1u) << "appending takes no reference";
}

TEST_F(ExceptionChain, AppendsThroughAnyMemberFindTheEndAndRefuseLoops) {
    for (int round = 0; round < 2; ++round) { // the second reuses the first's memory
        exception a("f", 1, A), b("f", 2, B), c("f", 3, C), d("f", 4, D);
        a << b;
        exception mid = a.get_next();
        mid << c; // the end a's last append left behind has moved
        a << d;
        b << a;   // a loop, through the first block
        mid << a; // and through a later one
        EXPECT_EQ(chain_numbers(a), (std::vector<int>{1, 2, 3, 4}));
        EXPECT_EQ(pred_of(a), nullptr);
    }
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
