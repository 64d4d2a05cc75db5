// State shared between threads, each thread with objects of its own: the
// type registry and one exception chain serialized and read everywhere, the
// classic locale and its lazily built facets, and string blocks whose shares
// are taken and dropped everywhere. ThreadSanitizer checks the accesses;
// the allocators check that every block is released exactly once.
#include <atomic>
#include <cstdio>
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

constexpr int THREADS = 4;

// Runs `body(t)` in THREADS threads; each returns the number of wrong
// results it saw, which must all be zero.
template <class F> void in_threads(F body) {
    std::vector<int> bad(THREADS, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([&, t] { bad[t] = body(t); });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(bad, std::vector<int>(THREADS, 0));
}

vrk::auto_ptr<exception, vrk::default_deleter> creator(vrk::istream& inp, vrk::allocator& alloc) {
    return exception::deserialize(inp, alloc); // never reached: only looked up
}

using SharedState = vrk_test::host_fixture;

TEST_F(SharedState, RegistryLookupsAndWritersOfOneChain) {
    exception shared("t.src", 1, vrk::error_code{21, "shared $N$", nullptr}, vrk_test::NO_STACK);
    shared << vrk::msgarg_int("N", 5);
    exception tail("t.src", 2, vrk::error_code{22, "tail", nullptr}, vrk_test::NO_STACK);
    shared << tail;
    in_threads([&](int t) {
        vrk_test::test_allocator alloc;
        const auto type = static_cast<unsigned short>(100 + t);
        int bad = 0;
        for (int i = 0; i < 300; ++i) {
            bad += !vrk::register_exception_type(type, &creator);
            vrk::osstream os(alloc);
            shared.serialize(os, true);
            vrk::string bytes = os.str();
            vrk::isstream is(bytes.data(), bytes.size(), alloc);
            auto e = exception::deserialize(is, alloc);
            bad += vrk_test::chain_numbers(*e) != std::vector<int>{21, 22};
            e->mark_processed();
            e.reset();
            bad += vrk::exception_by_type(type) != &creator;
            bad += !vrk::unregister_exception_type(type, &creator);
        }
        return bad + (alloc.balance() != 0);
    });
}

TEST(SharedLocale, OwnStreamsGiveExactText) {
    vrk_test::test_allocator ta;
    in_threads([&](int t) {
        int bad = 0;
        for (int r = 0; r < 300; ++r) {
            vrk::osstream os(ta);
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
        }
        return bad;
    });
    EXPECT_EQ(ta.balance(), 0);
}

TEST(SharedString, CopiesInManyThreadsReleaseTheBlockExactlyOnce) {
    vrk_test::test_allocator ta;
    const std::string text(100, 'q');
    constexpr int ROUNDS = 2000;
    {
        std::vector<vrk::string> seeds;
        {
            vrk::string original(text.c_str(), ta);
            for (int t = 0; t < THREADS; ++t)
                seeds.emplace_back(original);
        } // a thread's string is now the last holder
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
    }
    EXPECT_EQ(ta.balance(), 0);
    EXPECT_EQ(ta.bad_releases(), 0);
    EXPECT_EQ(ta.allocations(), 1 + THREADS * ((ROUNDS + 2) / 3));
}

// The fallback text is one process-wide array: a new thread reaches it
// without allocating thread storage, and threads filling it at once do not
// race (the thread sanitizer build checks the stores).
TEST_F(SharedState, FallbackTextIsOneArrayFilledWithoutRaces) {
    const char* mine = vrk::impl::getBadAllocMsg(1, "main.x", 1);
    in_threads([&](int t) {
        int bad = 0;
        for (int r = 0; r < 200; ++r)
            bad += vrk::impl::getBadAllocMsg(t + r, t % 2 != 0 ? "a.x" : "bb/c.x", r) != mine;
        return bad;
    });
    EXPECT_EQ(std::string(vrk::impl::getBadAllocMsg(7, "z.x", 3)).substr(15, 84),
              "          7 (" + std::string(61, ' ') + "z.x:     3");
}

} // namespace
