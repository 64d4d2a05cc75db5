// Strings on one heap block in several threads: sharing, unsharing and the
// last release race only through the block's atomic count.
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_allocator.hpp"
#include "vrk/string.hpp"

namespace {

TEST(StringShare, CopiesInManyThreadsReleaseTheBlockExactlyOnce) {
    vrk_test::test_allocator ta;
    const std::string text(100, 'q');
    constexpr int THREADS = 4, ROUNDS = 2000;
    {
        auto original = std::make_unique<vrk::string>(text.c_str(), ta);
        std::vector<vrk::string> seeds;
        for (int t = 0; t < THREADS; ++t)
            seeds.emplace_back(*original);
        EXPECT_EQ(original->share_count(), THREADS + 1u);
        original.reset(); // a thread's string is now the last holder

        std::vector<std::thread> threads;
        std::vector<int> bad(THREADS, 0);
        for (int t = 0; t < THREADS; ++t)
            threads.emplace_back([&, t] {
                vrk::string mine(std::move(seeds[t]));
                for (int i = 0; i < ROUNDS; ++i) {
                    vrk::string copy(mine);
                    if (i % 3 == 0)
                        copy.push_back('!'); // unshares: copies the text, drops a share
                    if (std::string(mine.c_str()) != text)
                        ++bad[t];
                }
            });
        for (auto& th : threads)
            th.join();
        for (int t = 0; t < THREADS; ++t)
            EXPECT_EQ(bad[t], 0) << "thread " << t;
    }
    EXPECT_EQ(ta.balance(), 0);
    EXPECT_EQ(ta.bad_releases(), 0);
    EXPECT_EQ(ta.allocations(), 1 + THREADS * ((ROUNDS + 2) / 3));
}

} // namespace
