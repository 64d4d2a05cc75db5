// Threads sharing state. Chains: racing to append one exception to several
// chains, appending two chains into each other, walking, printing and
// serializing chains while others append to them, copying and dropping the
// last handles of a chain nobody looked at; walkers must always see a prefix
// of the final chain. Process-wide state each thread uses with objects of its
// own: the type registry, the classic locale and its lazily built facets,
// the fallback text and string blocks shared everywhere. ThreadSanitizer
// checks the accesses; counting allocators prove that every block is released
// exactly once and nothing leaks.
//
// Each chain scenario runs at least VRK_STRESS_ROUNDS rounds (default 20) and
// goes on until VRK_STRESS_SECONDS (default 1) have passed.
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
#include "vrk/base/impl/bad_alloc_text.hpp"
#include "vrk/exception_types.hpp"
#include "vrk/iomanip.hpp"

namespace {

using vrk::exception;
using vrk_test::NO_STACK;
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

// Runs `body(t)` in THREADS threads at once; each returns the number of wrong
// results it saw, which must all be zero.
template <class F> void in_threads(F body) {
    std::vector<int> bad(THREADS, 0);
    {
        std::vector<std::jthread> threads; // joined here
        for (int t = 0; t < THREADS; ++t)
            threads.emplace_back([&, t] { bad[t] = body(t); });
    }
    EXPECT_EQ(bad, std::vector<int>(THREADS, 0));
}

exception* make(int n) {
    return new exception("f", n, vrk::error_code{n, "worker", nullptr}, NO_STACK);
}

void drop(exception* e) {
    e->mark_processed();
    delete e;
}

// The error numbers of `e`'s chain written and read back on `alloc`.
std::vector<int> walk_read_back(const exception& e, vrk::allocator& alloc) {
    vrk::osstream os(alloc);
    e.serialize(os, true);
    vrk::string bytes = os.str();
    vrk::isstream is(bytes.data(), bytes.size(), alloc);
    auto copy = exception::deserialize(is, alloc);
    copy->mark_processed();
    return walk(*copy);
}

using ChainStress = vrk_test::counted_fixture;

TEST_F(ChainStress, OneExceptionAppendedToManyChainsAtOnceLinksOnce) {
    stress("same_exception_to_many_chains", 20, [&](int) {
        exception* shared = make(77);
        std::atomic<int> winners{0}, done{0};
        in_threads([&](int t) {
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
            return 0;
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

// Two threads append four numbered exceptions each to one chain while the
// others walk it, print it and write and read it back, until after the last
// append: every look is a prefix of the final chain, which holds every append
// once.
TEST_F(ChainStress, WalkersPrintersAndWritersSeeAPrefixWhileOthersAppend) {
    constexpr int APPENDERS = 2, EACH = 4;
    stress("look_while_appending", 20, [&](int) {
        exception* head = make(0);
        std::vector<std::vector<int>> walks[THREADS]; // each walk, then its read-back
        std::vector<std::string> prints[THREADS];
        std::atomic<int> appenders_done{0};
        in_threads([&](int t) {
            exception mine(*head);
            for (int i = 0; t < APPENDERS && i < EACH; ++i) {
                exception add("f", i, vrk::error_code{100 + t * 10 + i, "worker", nullptr},
                              NO_STACK);
                mine << add;
            }
            for (bool last = t < APPENDERS; !last;) {
                last = appenders_done.load() == APPENDERS;
                walks[t].push_back(walk(mine));
                prints[t].push_back(vrk_test::short_form(mine));
                test_allocator out;
                walks[t].push_back(walk_read_back(mine, out));
            }
            appenders_done.fetch_add(t < APPENDERS ? 1 : 0);
            mine.mark_processed();
            return 0;
        });
        const std::vector<int> final_order = walk(*head);
        EXPECT_EQ(std::multiset<int>(final_order.begin(), final_order.end()),
                  (std::multiset<int>{0, 100, 101, 102, 103, 110, 111, 112, 113}))
            << "an append was lost or doubled";
        const std::string final_text = vrk_test::short_form(*head);
        const auto is_prefix = [&](const std::vector<int>& part) {
            return part.size() <= final_order.size() &&
                   std::equal(part.begin(), part.end(), final_order.begin());
        };
        for (int t = APPENDERS; t < THREADS; ++t) {
            for (const auto& w : walks[t])
                EXPECT_TRUE(is_prefix(w)) << "a walker or a read-back saw another order";
            for (const auto& p : prints[t])
                EXPECT_EQ(final_text.compare(0, p.size(), p), 0) << "a printer saw another order";
            EXPECT_EQ(walks[t].end()[-2], final_order) << "the last walk began after every append";
            EXPECT_EQ(walks[t].back(), final_order);
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
        in_threads([&](int t) {
            for (int i = 0; i < 10; ++i) {
                const exception a(*handles[static_cast<size_t>(t)]), c(a);
            }
            delete handles[static_cast<size_t>(t)];
            return 0;
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

vrk::auto_ptr<exception, vrk::default_deleter> creator(vrk::istream& inp, vrk::allocator& alloc) {
    return exception::deserialize(inp, alloc); // never reached: only looked up
}

using SharedState = vrk_test::host_fixture;

// Every thread at once: registers and looks up a type of its own while it
// reads a shared chain back (deserialize reads the registry), writes and reads
// numbers through the classic locale's lazily built facets, and fills the
// fallback text, one process-wide array reached without thread storage.
TEST_F(SharedState, ProcessWideStateUsedFromEveryThread) {
    exception shared("t.src", 1, vrk::error_code{21, "shared $N$", nullptr}, NO_STACK);
    shared << vrk::msgarg_int("N", 5);
    exception tail("t.src", 2, vrk::error_code{22, "tail", nullptr}, NO_STACK);
    shared << tail;
    const char* fallback = vrk::impl::getBadAllocMsg(1, "main.x", 1);
    in_threads([&](int t) {
        test_allocator alloc;
        const auto type = static_cast<unsigned short>(100 + t);
        int bad = 0;
        for (int r = 0; r < 300; ++r) {
            bad += !vrk::register_exception_type(type, &creator);
            bad += walk_read_back(shared, alloc) != std::vector<int>{21, 22};
            bad += vrk::exception_by_type(type) != &creator;
            bad += !vrk::unregister_exception_type(type, &creator);
            vrk::osstream os(alloc);
            os << "t" << t << vrk::hex << vrk::setw(6) << vrk::setfill('0') << r << vrk::dec << ' '
               << -r;
            char expect[64];
            std::snprintf(expect, sizeof expect, "t%d%06x %d", t, r, -r);
            bad += std::string(os.c_str()) != expect || !os.good();
            vrk::isstream is(os.str());
            long back = 0;
            char c = 0;
            is >> c >> c >> vrk::hex >> back; // 't', the digit of t, the number
            bad += back != r;
            bad += vrk::impl::getBadAllocMsg(t + r, t % 2 != 0 ? "a.x" : "bb/c.x", r) != fallback;
        }
        return bad + (alloc.balance() != 0);
    });
}

TEST_F(ChainStress, SharedStringCopiesReleaseTheBlockExactlyOnce) {
    const std::string text(100, 'q');
    constexpr int ROUNDS = 2000;
    // Shares of a block whose first string is gone: a thread's is the last.
    std::vector<vrk::string> seeds(THREADS, vrk::string(text.c_str(), alloc_));
    in_threads([&](int t) {
        vrk::string mine(std::move(seeds[t]));
        int bad = 0;
        for (int i = 0; i < ROUNDS; ++i) {
            vrk::string copy(mine);
            if (i % 3 == 0)
                copy.push_back('!'); // unshares: copies the text, drops a share
            bad += std::string(mine.c_str()) != text;
        }
        return bad;
    });
    EXPECT_EQ(alloc_.allocations(), 1 + THREADS * ((ROUNDS + 2) / 3));
}

} // namespace
