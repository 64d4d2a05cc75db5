// Streams in several threads: each thread has its own streams, all share the
// classic locale and its facets, which are built on first use.
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_allocator.hpp"
#include "vrk/base/impl/bad_alloc_text.hpp"
#include "vrk/iomanip.hpp"
#include "vrk/sstream.hpp"

namespace {

TEST(StreamThreads, OwnStreamsOverTheSharedClassicLocaleGiveExactText) {
    constexpr int THREADS = 4, ROUNDS = 300;
    vrk_test::test_allocator ta;
    std::vector<int> bad(THREADS, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([&, t] {
            for (int r = 0; r < ROUNDS; ++r) {
                vrk::osstream os(ta);
                os << "t" << t << vrk::hex << vrk::setw(6) << vrk::setfill('0') << r << vrk::dec
                   << ' ' << -r;
                char expect[64];
                std::snprintf(expect, sizeof expect, "t%d%06x %d", t, r, -r);
                if (std::string(os.c_str()) != expect || !os.good())
                    ++bad[t];
                vrk::isstream is(os.str());
                long back = 0;
                char c = 0;
                is >> c >> c; // 't' and the digit of t
                is >> vrk::hex >> back;
                if (back != r)
                    ++bad[t];
            }
        });
    for (auto& th : threads)
        th.join();
    for (int t = 0; t < THREADS; ++t)
        EXPECT_EQ(bad[t], 0) << "thread " << t;
    EXPECT_EQ(ta.balance(), 0);
}

// The fallback text is one process-wide array: a new thread reaches it
// without allocating thread storage, and threads filling it at once do not
// race (the thread sanitizer build checks the stores).
TEST(StreamThreads, FallbackTextIsOneSharedArrayFilledWithoutRaces) {
    const char* mine = vrk::impl::getBadAllocMsg(1, "main.x", 1);
    std::vector<const char*> seen(2);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            for (int r = 0; r < 200; ++r)
                seen[t] = vrk::impl::getBadAllocMsg(t + r, t == 0 ? "a.x" : "bb/c.x", r);
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(seen[0], mine);
    EXPECT_EQ(seen[1], mine);
    EXPECT_EQ(std::string(vrk::impl::getBadAllocMsg(7, "z.x", 3)).substr(15, 84),
              "          7 (" + std::string(61, ' ') + "z.x:     3");
}

} // namespace
