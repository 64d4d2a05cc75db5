// Many threads sharing blocks: copying and dropping, appending to one chain,
// racing to append one exception to several chains, walking and printing
// chains while others append to them or drop their last handles, serializing
// a chain while others append to it. A counting allocator proves that every
// block is released exactly once and nothing leaks; walkers must always see
// a prefix of the final chain.
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

constexpr int THREADS = 4;

// How long one scenario goes on: a number of rounds, then a time.
class stress_budget {
public:
    explicit stress_budget(const char* name, int default_rounds = 20) : name_(name) {
        const char* rounds = std::getenv("VRK_STRESS_ROUNDS");
        const char* seconds = std::getenv("VRK_STRESS_SECONDS");
        min_rounds_ = rounds != nullptr ? std::max(1, std::atoi(rounds)) : default_rounds;
        seconds_ = seconds != nullptr ? std::max(0.0, std::atof(seconds)) : 1.0;
    }
    ~stress_budget() {
        std::printf("[ stress      ] %-34s %6d rounds in %.2f s\n", name_, rounds_, elapsed_());
        std::fflush(stdout);
    }
    // True while another round is due.
    bool next() {
        if (rounds_ >= min_rounds_ && elapsed_() >= seconds_)
            return false;
        ++rounds_;
        return true;
    }

private:
    double elapsed_() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }
    const char* name_;
    int min_rounds_ = 20;
    double seconds_ = 1.0;
    int rounds_ = 0;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

const vrk::error_code CODE{9, "shared", nullptr};

vrk::error_code code_for(int n) { return vrk::error_code{n, "worker", nullptr}; }
using vrk_test::NO_STACK;

// Thread `t` appends `each` exceptions numbered 100 + 10 t + i to the chain
// of `mine`.
void append_numbered(exception& mine, int t, int each) {
    for (int i = 0; i < each; ++i) {
        exception add("f", i, code_for(100 + t * 10 + i), NO_STACK);
        mine << add;
    }
}

const char* const FOUR_WORKERS = "exception 0: worker\n"
                                 "exception 1: worker\n"
                                 "exception 2: worker\n"
                                 "exception 3: worker\n";

// The error numbers along a chain, from `head` on.
constexpr auto walk = &vrk_test::chain_numbers;

bool is_prefix(const std::vector<int>& part, const std::vector<int>& whole) {
    return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

class ChainStress : public vrk_test::counted_fixture {
protected:
    template <class F> static void run_threads(F f) {
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t)
            threads.emplace_back(f, t);
        for (auto& th : threads)
            th.join();
    }

    static constexpr int APPENDERS = 2, EACH = 4;

    // The first APPENDERS threads append EACH numbered exceptions each to
    // the chain of `head`, through handles of their own; every other thread
    // calls observe(t, handle) until it has run once after all appends.
    template <class F> static void append_while_observing(const exception& head, F observe) {
        std::atomic<int> appenders_done{0};
        run_threads([&](int t) {
            exception mine(head);
            if (t < APPENDERS) {
                append_numbered(mine, t, EACH);
                appenders_done.fetch_add(1);
            } else {
                bool last = false;
                while (!last) {
                    last = appenders_done.load() == APPENDERS;
                    observe(t, mine);
                }
            }
            mine.mark_processed();
        });
    }
};

TEST_F(ChainStress, CopyAndDropSharedBlocks) {
    for (stress_budget b("copy_and_drop"); b.next();) {
        auto* source = new exception("f", 1, CODE, NO_STACK);
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
    for (stress_budget b("append_to_one_chain"); b.next();) {
        auto* head = new exception("f", 0, CODE, NO_STACK);
        run_threads([&](int t) {
            exception mine(*head);
            append_numbered(mine, t, 3);
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
    for (stress_budget b("same_exception_to_many_chains"); b.next();) {
        auto* shared = new exception("f", 1, code_for(77), NO_STACK);
        std::atomic<int> winners{0}, done{0};
        run_threads([&](int t) {
            exception head("f", t, code_for(t), NO_STACK);
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
    int round = 0;
    for (stress_budget b("cross_appends", 5000); b.next();) {
        pair[0] = new exception("f", 0, code_for(0), NO_STACK);
        pair[1] = new exception("f", 1, code_for(1), NO_STACK);
        go.store(++round);
        // The other thread starts a moment later: sweep across that moment.
        for (int delay = round % 64; delay > 0; --delay)
            __asm__ volatile("" ::: "memory");
        *pair[0] << *pair[1];
        wait_for(done, round);
        // a -> b -> a: two steps from either end lead back into the chain.
        if (pair[0]->get_next().get_next().data() != nullptr) {
            ADD_FAILURE() << "round " << round << ": the two chains closed a loop";
            break; // its blocks leak
        }
        for (exception* e : pair) {
            e->mark_processed();
            delete e;
        }
    }
    go.store(INT_MAX);
    other.join();
}

TEST_F(ChainStress, WalkersSeeAPrefixWhileHandlesAreDropped) {
    for (stress_budget b("walk_and_print_while_dropping"); b.next();) {
        auto* head = new exception("f", 0, code_for(0), NO_STACK);
        std::vector<exception*> members;
        for (int i = 1; i <= 3; ++i) {
            members.push_back(new exception("f", i, code_for(i), NO_STACK));
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
            test_allocator out;
            for (int pass = 0; pass < 5; ++pass) {
                int expected = 0;
                for (exception x = *mine; x.data() != nullptr; x = x.get_next())
                    if (x.error_no() != expected++)
                        bad_order.fetch_add(1);
                if (expected != 4)
                    bad_order.fetch_add(1);
                vrk::string text = mine->what(out, true);
                if (std::string(text.c_str()) != FOUR_WORKERS)
                    bad_order.fetch_add(1);
            }
            mine->mark_processed();
            delete mine;
        });
        EXPECT_EQ(bad_order.load(), 0);
    }
}

TEST_F(ChainStress, WalkersAndPrintersSeeAPrefixWhileOthersAppend) {
    for (stress_budget b("walk_and_print_while_appending"); b.next();) {
        auto* head = new exception("f", 0, code_for(0), NO_STACK);
        std::vector<std::vector<int>> walks[THREADS];
        std::vector<std::string> prints[THREADS];
        append_while_observing(*head, [&](int t, const exception& mine) {
            test_allocator out;
            walks[t].push_back(walk(mine));
            vrk::string text = mine.what(out, true);
            prints[t].emplace_back(text.c_str());
        });
        const std::vector<int> final_order = walk(*head);
        ASSERT_EQ(final_order.size(), size_t{1 + APPENDERS * EACH});
        std::string final_text;
        {
            test_allocator out;
            vrk::string text = head->what(out, true);
            final_text = text.c_str();
        }
        for (int t = APPENDERS; t < THREADS; ++t) {
            for (const auto& w : walks[t])
                EXPECT_TRUE(is_prefix(w, final_order)) << "a walker saw another order";
            for (const auto& p : prints[t])
                EXPECT_EQ(final_text.compare(0, p.size(), p), 0) << "a printer saw another order";
            EXPECT_EQ(walks[t].back(), final_order) << "the last walk began after every append";
        }
        head->mark_processed();
        delete head;
    }
}

TEST_F(ChainStress, TheLastHandleDroppedInAnyThreadReportsEachHeadOnce) {
    for (stress_budget b("last_handle_reports_once"); b.next();) {
        vrk_test::reset_host();
        vrk_test::set_default_allocator(&alloc_);
        std::vector<exception*> handles;
        {
            exception head("f", 0, code_for(5), NO_STACK);
            exception tail("f", 1, code_for(6), NO_STACK);
            head << tail;
            for (int t = 0; t < THREADS; ++t)
                handles.push_back(new exception(t % 2 == 0 ? head : tail));
        } // the threads now hold the only handles; nobody looked at either
        run_threads([&](int t) {
            for (int i = 0; i < 10; ++i)
                exception(*handles[static_cast<size_t>(t)]).error_no();
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
    }
}

TEST_F(ChainStress, SerializingAChainWhileOthersAppendWritesAPrefix) {
    for (stress_budget b("serialize_while_appending"); b.next();) {
        auto* head = new exception("f", 0, code_for(0), NO_STACK);
        std::vector<std::vector<int>> reads[THREADS];
        append_while_observing(*head, [&](int t, const exception& mine) {
            test_allocator out;
            vrk::osstream os(out);
            mine.serialize(os, true);
            vrk::string bytes = os.str();
            vrk::isstream is(bytes.data(), bytes.size(), out);
            auto copy = exception::deserialize(is, out);
            reads[t].push_back(walk(*copy));
            copy->mark_processed();
        });
        const std::vector<int> final_order = walk(*head);
        for (int t = APPENDERS; t < THREADS; ++t) {
            for (const auto& r : reads[t])
                EXPECT_TRUE(is_prefix(r, final_order)) << "a serialized chain lost its order";
            EXPECT_EQ(reads[t].back(), final_order);
        }
        head->mark_processed();
        delete head;
    }
}

} // namespace
