// Many threads sharing blocks: racing to append one exception to several
// chains, appending two chains into each other, walking, printing and
// serializing chains while others append to them or drop their last handles,
// copying and dropping the last handles of a chain nobody looked at. A
// counting allocator proves that every block is released exactly once and
// nothing leaks; walkers must always see a prefix of the final chain.
//
// Each scenario runs at least VRK_STRESS_ROUNDS rounds (default 20) and goes
// on until VRK_STRESS_SECONDS (default 1) have passed.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/forms.hpp"
#include "support/test_host.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk::exception;
using vrk_test::test_allocator;
const auto walk = vrk_test::chain_numbers; // the error numbers along a chain

constexpr int THREADS = 4;

// Runs round(1), round(2), ... at least VRK_STRESS_ROUNDS times (default
// `rounds`) and until VRK_STRESS_SECONDS (default 1) have passed, or until a
// check has failed.
template <class F> void stress(const char* name, int rounds, F round) {
    const char* r = std::getenv("VRK_STRESS_ROUNDS");
    const char* s = std::getenv("VRK_STRESS_SECONDS");
    const int min_rounds = r != nullptr ? std::max(1, std::atoi(r)) : rounds;
    const std::chrono::duration<double> seconds(s != nullptr ? std::max(0.0, std::atof(s)) : 1.0);
    const auto start = std::chrono::steady_clock::now();
    int n = 0;
    while ((n < min_rounds || std::chrono::steady_clock::now() - start < seconds) &&
           !::testing::Test::HasFailure())
        round(++n);
    std::printf("[ stress      ] %-30s %6d rounds\n", name, n);
}

using vrk_test::NO_STACK;

exception* make(int n) {
    return new exception("f", n, vrk::error_code{n, "worker", nullptr}, NO_STACK);
}

void drop(exception* e) {
    e->mark_processed();
    delete e;
}

bool is_prefix(const std::vector<int>& part, const std::vector<int>& whole) {
    return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

std::string print(const exception& e) {
    test_allocator out;
    return e.what(out, true).c_str();
}

template <class F> void run_threads(F f) {
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back(f, t);
    for (auto& th : threads)
        th.join();
}

using ChainStress = vrk_test::counted_fixture;

TEST_F(ChainStress, OneExceptionAppendedToManyChainsAtOnceLinksOnce) {
    stress("same_exception_to_many_chains", 20, [&](int) {
        exception* shared = make(77);
        std::atomic<int> winners{0}, done{0};
        run_threads([&](int t) {
            exception head("f", t, vrk::error_code{t, "worker", nullptr}, NO_STACK);
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
        drop(shared);
    });
}

// Two threads append two chains into each other at the same moment, round
// after round: at most one link may be made, or the chains close a loop that
// no walk ends and nothing releases. The window is a few instructions wide,
// hence the many rounds; the two threads stay up for all of them.
TEST_F(ChainStress, CrossAppendsNeverCloseALoop) {
    exception* pair[2] = {};
    std::atomic<int> go{0}, done{0};
    auto wait_for = [](const std::atomic<int>& flag, int value) {
        for (int spins = 1; flag.load() < value; ++spins) // go = INT_MAX: stop
            if (spins % 4096 == 0)
                std::this_thread::yield();
    };
    std::thread other([&] {
        for (int round = 1; wait_for(go, round), go.load() != INT_MAX; ++round) {
            *pair[1] << *pair[0];
            done.store(round);
        }
    });
    stress("cross_appends", 5000, [&](int round) {
        pair[0] = make(0);
        pair[1] = make(1);
        go.store(round);
        // The other thread starts a moment later: sweep across that moment.
        for (int delay = round % 64; delay > 0; --delay)
            __asm__ volatile("" ::: "memory");
        *pair[0] << *pair[1];
        wait_for(done, round);
        // a -> b -> a: two steps from either end lead back into the chain.
        if (pair[0]->get_next().get_next().data() != nullptr) {
            ADD_FAILURE() << "round " << round << ": the two chains closed a loop";
            return; // its blocks leak
        }
        drop(pair[0]);
        drop(pair[1]);
    });
    go.store(INT_MAX);
    other.join();
}

TEST_F(ChainStress, WalkersSeeTheWholeChainWhileTheOriginalHandlesAreDropped) {
    stress("walk_and_print_while_dropping", 20, [&](int) {
        exception* handles[4] = {make(0), make(1), make(2), make(3)};
        for (int i = 1; i < 4; ++i)
            *handles[0] << *handles[i];
        const std::string text = print(*handles[0]);
        std::vector<exception*> walker_heads;
        for (int t = 0; t < THREADS - 1; ++t)
            walker_heads.push_back(new exception(*handles[0]));
        std::atomic<int> bad{0};
        run_threads([&](int t) {
            if (t == THREADS - 1) { // the dropper
                for (exception* h : handles)
                    drop(h);
                return;
            }
            exception* mine = walker_heads[static_cast<size_t>(t)];
            for (int pass = 0; pass < 5; ++pass)
                if (walk(*mine) != std::vector<int>{0, 1, 2, 3} || print(*mine) != text)
                    bad.fetch_add(1);
            drop(mine);
        });
        EXPECT_EQ(bad.load(), 0);
    });
}

// Two threads append four numbered exceptions each to one chain while the
// others walk it, print it and write and read it back, until after the last
// append: every look is a prefix of the final chain, which holds every append
// once.
TEST_F(ChainStress, WalkersPrintersAndWritersSeeAPrefixWhileOthersAppend) {
    constexpr int APPENDERS = 2, EACH = 4;
    stress("look_while_appending", 20, [&](int) {
        exception* head = make(0);
        std::vector<std::vector<int>> walks[THREADS], reads[THREADS];
        std::vector<std::string> prints[THREADS];
        std::atomic<int> appenders_done{0};
        run_threads([&](int t) {
            exception mine(*head);
            for (int i = 0; t < APPENDERS && i < EACH; ++i) {
                exception add("f", i, vrk::error_code{100 + t * 10 + i, "worker", nullptr},
                              NO_STACK);
                mine << add;
            }
            for (bool last = t < APPENDERS; !last;) {
                last = appenders_done.load() == APPENDERS;
                walks[t].push_back(walk(mine));
                prints[t].push_back(print(mine));
                test_allocator out;
                vrk::osstream os(out);
                mine.serialize(os, true);
                vrk::string bytes = os.str();
                vrk::isstream is(bytes.data(), bytes.size(), out);
                auto copy = exception::deserialize(is, out);
                reads[t].push_back(walk(*copy));
                copy->mark_processed();
            }
            appenders_done.fetch_add(t < APPENDERS ? 1 : 0);
            mine.mark_processed();
        });
        const std::vector<int> final_order = walk(*head);
        EXPECT_EQ(std::multiset<int>(final_order.begin(), final_order.end()),
                  (std::multiset<int>{0, 100, 101, 102, 103, 110, 111, 112, 113}))
            << "an append was lost or doubled";
        const std::string final_text = print(*head);
        for (int t = APPENDERS; t < THREADS; ++t) {
            for (const auto& w : walks[t])
                EXPECT_TRUE(is_prefix(w, final_order)) << "a walker saw another order";
            for (const auto& r : reads[t])
                EXPECT_TRUE(is_prefix(r, final_order)) << "a serialized chain lost its order";
            for (const auto& p : prints[t])
                EXPECT_EQ(final_text.compare(0, p.size(), p), 0) << "a printer saw another order";
            EXPECT_EQ(walks[t].back(), final_order) << "the last walk began after every append";
            EXPECT_EQ(reads[t].back(), final_order);
        }
        drop(head);
    });
}

TEST_F(ChainStress, TheLastHandleDroppedInAnyThreadReportsEachHeadOnce) {
    stress("last_handle_reports_once", 20, [&](int) {
        vrk_test::reset_host();
        vrk_test::set_default_allocator(&alloc_);
        std::vector<exception*> handles;
        {
            exception head("f", 0, vrk::error_code{5, "five", nullptr}, NO_STACK);
            exception tail("f", 1, vrk::error_code{6, "six", nullptr}, NO_STACK);
            head << tail;
            for (int t = 0; t < THREADS; ++t)
                handles.push_back(new exception(t % 2 == 0 ? head : tail));
        } // the threads now hold the only handles; nobody looked at either
        run_threads([&](int t) {
            for (int i = 0; i < 10; ++i) {
                const exception a(*handles[static_cast<size_t>(t)]), c(a);
            }
            delete handles[static_cast<size_t>(t)];
        });
        // The head is reported exactly once. The tail goes silently with the
        // head, or, when its own handles outlived the head, is reported once
        // as the head of what is left.
        const std::vector<int> reported = vrk_test::forgotten_errors();
        EXPECT_EQ(std::count(reported.begin(), reported.end(), 5), 1);
        EXPECT_LE(std::count(reported.begin(), reported.end(), 6), 1);
        EXPECT_EQ(reported.size(), size_t(vrk_test::counters().forgotten.load()));
        EXPECT_EQ(alloc_.balance(), 0);
    });
}

} // namespace
