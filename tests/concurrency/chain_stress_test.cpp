// Many threads sharing blocks: copying and dropping, appending to one chain,
// racing to append one exception to several chains, walking chains while
// their heads are dropped. A counting allocator proves that every block is
// released exactly once and nothing leaks. Bounded in rounds; set
// VRK_STRESS_ROUNDS to run longer.
#include <atomic>
#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

#include "support/test_host.hpp"

namespace {

using vrk::exception;
using vrk_test::host_fixture;
using vrk_test::test_allocator;

constexpr int THREADS = 4;

int rounds() {
    const char* env = std::getenv("VRK_STRESS_ROUNDS");
    return env != nullptr ? std::max(1, std::atoi(env)) : 200;
}

const vrk::error_code CODE{9, "shared", nullptr};

vrk::error_code code_for(int n) { return vrk::error_code{n, "worker", nullptr}; }

class ChainStress : public host_fixture {
protected:
    void SetUp() override {
        host_fixture::SetUp();
        vrk_test::set_default_allocator(&alloc_);
    }
    void TearDown() override {
        EXPECT_EQ(alloc_.balance(), 0) << "blocks leaked";
        EXPECT_EQ(alloc_.bad_releases(), 0) << "a block was released twice";
        host_fixture::TearDown();
    }
    template <class F> static void run_threads(F f) {
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t)
            threads.emplace_back(f, t);
        for (auto& th : threads)
            th.join();
    }
    test_allocator alloc_;
};

TEST_F(ChainStress, CopyAndDropSharedBlocks) {
    for (int r = 0; r < rounds(); ++r) {
        auto* source = new exception("f", r, CODE, exception::CALLER_SUPPRESS_STACK_TRACE);
        source->mark_processed();
        std::atomic<int> ready{0};
        run_threads([&](int) {
            ready.fetch_add(1);
            while (ready.load() < THREADS)
                std::this_thread::yield();
            for (int i = 0; i < 20; ++i) {
                exception a(*source);
                exception b(a);
                a = b;
                a.mark_processed();
                b.mark_processed();
            }
        });
        delete source;
    }
    EXPECT_EQ(vrk_test::counters().forgotten, 0);
}

TEST_F(ChainStress, ManyThreadsAppendToOneChain) {
    for (int r = 0; r < rounds(); ++r) {
        auto* head = new exception("f", 0, CODE, exception::CALLER_SUPPRESS_STACK_TRACE);
        run_threads([&](int t) {
            exception mine(*head);
            for (int i = 0; i < 3; ++i) {
                exception add("f", i, code_for(100 + t * 10 + i),
                              exception::CALLER_SUPPRESS_STACK_TRACE);
                mine << add;
            }
            mine.mark_processed();
        });
        std::multiset<int> seen;
        for (exception x = head->get_next(); x.data() != nullptr; x = x.get_next())
            seen.insert(x.error_no());
        ASSERT_EQ(seen.size(), size_t{THREADS * 3}) << "an append was lost or doubled";
        for (int t = 0; t < THREADS; ++t)
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(seen.count(100 + t * 10 + i), 1u);
        head->mark_processed();
        delete head;
    }
}

TEST_F(ChainStress, OneExceptionAppendedToManyChainsAtOnceLinksOnce) {
    for (int r = 0; r < rounds(); ++r) {
        auto* shared = new exception("f", 1, code_for(77), exception::CALLER_SUPPRESS_STACK_TRACE);
        std::atomic<int> winners{0}, done{0};
        run_threads([&](int t) {
            exception head("f", t, code_for(t), exception::CALLER_SUPPRESS_STACK_TRACE);
            exception mine(*shared);
            head << mine;
            if (head.get_next().error_no() == 77)
                winners.fetch_add(1);
            mine.mark_processed();
            // Every head stays alive until all have tried: a head released
            // early would free the shared block for the next one.
            done.fetch_add(1);
            while (done.load() < THREADS)
                std::this_thread::yield();
        });
        EXPECT_EQ(winners.load(), 1);
        shared->mark_processed();
        delete shared;
    }
}

TEST_F(ChainStress, WalkersSeeAPrefixWhileHandlesAreDropped) {
    for (int r = 0; r < rounds(); ++r) {
        auto* head = new exception("f", 0, code_for(0), exception::CALLER_SUPPRESS_STACK_TRACE);
        std::vector<exception*> members;
        for (int i = 1; i <= 3; ++i) {
            members.push_back(
                new exception("f", i, code_for(i), exception::CALLER_SUPPRESS_STACK_TRACE));
            *head << *members.back();
        }
        std::vector<exception*> walker_heads;
        for (int t = 0; t < THREADS - 1; ++t)
            walker_heads.push_back(new exception(*head));
        std::atomic<int> bad_order{0};
        run_threads([&](int t) {
            if (t == THREADS - 1) {
                // The dropper: lets go of the original handles.
                for (exception* m : members)
                    delete m;
                head->mark_processed();
                delete head;
                return;
            }
            exception* mine = walker_heads[static_cast<size_t>(t)];
            for (int pass = 0; pass < 5; ++pass) {
                int expected = 0;
                for (exception x = *mine; x.data() != nullptr; x = x.get_next())
                    if (x.error_no() != expected++)
                        bad_order.fetch_add(1);
                if (expected != 4)
                    bad_order.fetch_add(1);
            }
            mine->mark_processed();
            delete mine;
        });
        EXPECT_EQ(bad_order.load(), 0);
    }
}

} // namespace
